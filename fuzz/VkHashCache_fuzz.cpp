// The hash cache file of the data folder: whatever it holds, a lookup gives back nothing or
// a well-formed hash, and what the scan keeps is kept.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "VkFuzzSupport.h"
#include "engine/VkHashCache.h"

namespace {

bool wellFormed(const std::optional<std::string>& hash) {
    if (!hash)
        return true;
    if (hash->size() != 32 && hash->size() != 40 && hash->size() != 64)
        return false;
    return hash->find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto ctx = vkFuzzContext();
    VkFile::createDirectory(ctx->dataFolder, true);
    const std::string path = ctx->dataPath(VkHashCache::kFileName);
    if (!VkFile::writeAtomically(path, data, size))
        return 0;

    // Stamps a crafted file may well name: small numbers, and the seed's own.
    const VkFileStamp stamps[] = {{1, 1, 1, 1, 1}, {0, 0, 0, 0, 0}, {2049, 77, 5, 100, 100}};
    const std::string kept = "00112233445566778899aabbccddeeff";
    {
        VkHashCache cache(path, 8, std::chrono::seconds(0));
        for (const VkFileStamp& stamp : stamps) {
            for (int32_t type : {0, 1, 2}) {
                VkHashCache::Hashes found = cache.find(stamp, type);
                VK_FUZZ_CHECK(wellFormed(found.head) && wellFormed(found.whole));
            }
        }
        cache.rememberChecked({9, 9, 9, 9, 9}, 1, 0, {std::nullopt, kept}, ctx->dataPath("gone"));
        cache.prune();
        cache.entryCount();
    }
    VkFile::removeTree(ctx->dataFolder);
    return 0;
}
