#include "support/VkCliOutput.h"

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/VkCrypt.h"

namespace {

TEST(VkCliOutput, TextEscapesWhatATerminalWouldNotShowAsItself) {
    struct Case {
        std::string in;
        std::string out;
    };
    const Case cases[] = {
        {"/a/b c/Résumé 日本.txt", "/a/b c/Résumé 日本.txt"},
        {"x\ny: Evil FOUND", "x\\ny: Evil FOUND"},
        {"a\rb\tc", "a\\rb\\tc"},
        {"\x1b[2Jclear", "\\x1b[2Jclear"},
        {std::string("\x01\x7f", 2), "\\x01\\x7f"},
        {"back\\slash\\n", "back\\\\slash\\\\n"},  // a real "\n" stays distinguishable
        {"bad\xff\xfe.bin", "bad\\xff\\xfe.bin"},
        {"cut\xe6\x97", "cut\\xe6\\x97"},           // truncated sequence
        {"over\xc0\xaf", "over\\xc0\\xaf"},         // overlong "/"
        {"sur\xed\xa0\x80", "sur\\xed\\xa0\\x80"},  // surrogate
        {"csi\xc2\x9b"
         "2J",
         "csi\\xc2\\x9b2J"},  // C1 control
        {"txt.\xe2\x80\xae"
         "exe",
         "txt.\\xe2\\x80\\xaeexe"},  // right-to-left override
        {"ev\xe2\x80\x8bil\xef\xbb\xbf", "ev\\xe2\\x80\\x8bil\\xef\\xbb\\xbf"},  // zero-width, BOM
    };
    for (const Case& c : cases)
        EXPECT_EQ(vkCliText(c.in), c.out) << c.out;
}

TEST(VkCliOutput, JsonCarriesPathsThatAreNotUtf8InBase64) {
    const std::string raw = "/tmp/bad\xff\xfe.bin";
    nlohmann::json j = nlohmann::json::object();
    vkJsonSetPath(j, "path", raw);
    vkJsonSetPath(j, "fine", "/tmp/Résumé\n.txt");
    vkJsonSetPaths(j, "list", {"/ok", raw});
    // The text shows each bad byte as U+FFFD; Base64 only where a path is not UTF-8.
    const std::string shown = "/tmp/bad\xef\xbf\xbd\xef\xbf\xbd.bin";
    const std::string exact = VkEncodeBase64(std::vector<uint8_t>(raw.begin(), raw.end()));
    EXPECT_EQ(nlohmann::json::parse(vkJsonText(j)),
              nlohmann::json({{"fine", "/tmp/Résumé\n.txt"},
                              {"path", shown},
                              {"pathBase64", exact},
                              {"list", {"/ok", shown}},
                              {"listBase64", {nullptr, exact}}}));
}

}  // namespace
