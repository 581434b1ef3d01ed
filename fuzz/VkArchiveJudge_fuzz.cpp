// Archives handed to the scan: VkArchiveJudge over every format it opens, nested ones
// included. The first byte picks the file name (it decides disk images and what a single
// stream's contents are called); the rest is the file.
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "VkFuzzSupport.h"
#include "engine/VkArchiveJudge.h"
#include "platform/VkHandle.h"

namespace {

const char* const kNames[] = {"a.zip", "a.tar.gz", "a.pkg", "a.7z",
                              "a.gz",  "a.cpio",   "a.dmg", "a.tar.xz"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const std::string name = kNames[data[0] % (sizeof kNames / sizeof kNames[0])];
    VkFd fd(::memfd_create("archive", MFD_CLOEXEC));
    VK_FUZZ_CHECK(fd.valid());
    VK_FUZZ_CHECK(::write(fd.get(), data + 1, size - 1) == static_cast<ssize_t>(size - 1));
    VkArchiveLimits limits;
    limits.maxTotalBytes = 8u << 20;
    limits.maxMembers = 1000;
    uint64_t asked = 0;
    // Every size is a candidate, so every member is decompressed and hashed; no record ever
    // matches (the hash of the empty record code is never a hash text).
    VkArchiveJudge judge({[](uint64_t) { return true; },
                          [&asked](uint64_t size, const VkArchiveJudge::Hasher& hasher) {
                              ++asked;
                              if (size > 1048576)
                                  (void)hasher(0, 1048576);
                              auto whole = hasher(0, 0);
                              VK_FUZZ_CHECK(!whole || whole->size() == 32);
                              return std::shared_ptr<VkTorjanItem>();
                          }},
                         limits);
    VkArchiveReport report = judge.judge(fd.get(), name);
    VK_FUZZ_CHECK(report.findings.empty());
    // The limit holds, give or take one block read past it.
    VK_FUZZ_CHECK(report.bytesDecompressed <= limits.maxTotalBytes + (1u << 20));
    VK_FUZZ_CHECK(report.membersDecompressed <= report.members);
    VK_FUZZ_CHECK(asked <= report.membersDecompressed);
    return 0;
}
