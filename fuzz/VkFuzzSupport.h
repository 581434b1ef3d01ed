#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "platform/VkContext.h"
#include "platform/VkFileUtil.h"
#include "platform/VkSystemLog.h"

// What the fuzz targets share. Every input must leave nothing behind that a later input
// could see: no growing log, no files kept between inputs.

// A log that drops its lines (a captured log would grow with every input).
class VkFuzzLog : public VkSystemLog {
  public:
    void log(const std::string&) override {}
};

// A context in a folder of its own under $TMPDIR, made once per process; the fuzz script
// gives each target its own TMPDIR and removes it afterwards. Callers remove what one input
// wrote before they return.
inline std::shared_ptr<VkContext> vkFuzzContext() {
    static std::shared_ptr<VkContext> ctx = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vkfuzz.XXXXXX";
        if (!::mkdtemp(pattern.data()))
            std::abort();
        auto made = VkContext::forTesting(pattern);
        made->systemLog = std::make_shared<VkFuzzLog>();
        return made;
    }();
    return ctx;
}

// Stops the run at a broken invariant, so that libFuzzer keeps the input.
#define VK_FUZZ_CHECK(condition) \
    do {                         \
        if (!(condition))        \
            __builtin_trap();    \
    } while (0)
