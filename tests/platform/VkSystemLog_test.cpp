#include "platform/VkSystemLog.h"

#include <gtest/gtest.h>

TEST(VkSystemLogTest, ANameCannotForgeALogLine) {
    const std::string name = "/tmp/a\n[VkAnti] detect nothing\x1b[2K\\x0a";
    EXPECT_EQ(VkSystemLog::escaped("[VkAnti] detect " + name),
              "[VkAnti] detect /tmp/a\\x0a[VkAnti] detect nothing\\x1b[2K\\\\x0a");
    EXPECT_EQ(VkSystemLog::escaped("Résumé 日本"), "Résumé 日本");
}
