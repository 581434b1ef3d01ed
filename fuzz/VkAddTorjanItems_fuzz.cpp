// The update step: the manifest deciphered and read, then every entry acted on, against an
// update server whose answers are the input.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "VkFuzzSupport.h"
#include "database/VkAddTorjanItems.h"
#include "database/VkManifestCipher.h"
#include "fakes/VkCannedHttpClient.h"

namespace {

// Serves the manifest and, for every file it names, the fuzzed bytes; every third file
// is missing.
std::shared_ptr<VkHttpClient> fuzzServer(std::vector<uint8_t> manifest, std::vector<uint8_t> file) {
    auto downloads = std::make_shared<size_t>(0);
    return std::make_shared<VkCannedHttpClient>(
        [=](const std::string& url) -> VkResult<std::vector<uint8_t>> {
            if (url.ends_with(VkAddTorjanItems::kManifestName))
                return manifest;
            if (url.ends_with(VkAddTorjanItems::kSignatureName))
                return VkError{"HTTP 404"};
            if (++*downloads % 3 == 0)
                return VkError{"HTTP 404"};
            return file;
        });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    // First byte 0: the bytes as the server sends them (deciphering included). Otherwise the
    // rest is the plain manifest, enciphered here so that the reading is what gets fuzzed.
    std::vector<uint8_t> rest(data + 1, data + size);
    std::vector<uint8_t> body = rest;
    if (data[0] != 0) {
        auto enciphered = VkManifestCipher::encrypt(rest);
        if (!enciphered)
            return 0;
        body = std::move(*enciphered);
    }
    auto ctx = vkFuzzContext();
    {
        // Unsigned, so that what follows the signature check is what gets fuzzed.
        VkAddTorjanItems updater(ctx, fuzzServer(body, rest));
        updater.setAllowUnsigned(true);
        VkUpdateReport report = updater.checkUpdateOnce();
        VK_FUZZ_CHECK(report.success || report.failure != VkUpdateReport::Failure::None);
        // What was staged lies in the staging folder, nowhere else.
        for (const auto& entry : report.entries) {
            if (!entry.stagedPath.empty())
                VK_FUZZ_CHECK(VkFile::deletingLastPathComponent(entry.stagedPath) ==
                              ctx->dataPath("temp"));
        }
        updater.stopUpdateNotification();
    }
    VkFile::removeTree(ctx->dataFolder);
    return 0;
}
