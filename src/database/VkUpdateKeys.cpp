#include "database/VkUpdateKeys.h"

#include <algorithm>

#include "platform/VkFileUtil.h"
#include "support/VkSignature.h"

namespace {

// A PEM public key is about 113 bytes; anything much larger is not one.
constexpr size_t kMaxKeyFileBytes = 16 * 1024;

}  // namespace

VkUpdateKeys VkUpdateKeys::load(const std::vector<std::string>& folders) {
    VkUpdateKeys result;
    for (const std::string& folder : folders) {
        auto names = VkFile::listDirectory(folder);
        if (!names.ok())
            continue;
        std::vector<std::string> sorted = *names;
        std::sort(sorted.begin(), sorted.end());
        for (const std::string& name : sorted) {
            if (VkFile::pathExtension(name) != "pub")
                continue;
            std::string path = VkFile::join(folder, name);
            auto text = VkFile::readAll(path, kMaxKeyFileBytes);
            if (!text.ok()) {
                result.skipped_.push_back(path + ": " + text.error());
                continue;
            }
            auto fingerprint = VkSignature::fingerprint(*text);
            if (!fingerprint.ok()) {
                result.skipped_.push_back(path + ": " + fingerprint.error());
                continue;
            }
            result.keys_.push_back({path, *text, *fingerprint});
        }
    }
    return result;
}

std::optional<VkUpdateKeys::Key> VkUpdateKeys::signerOf(
    const std::vector<uint8_t>& data, const std::vector<uint8_t>& signature) const {
    for (const Key& key : keys_) {
        if (VkSignature::verify(key.pem, data.data(), data.size(), signature))
            return key;
    }
    return std::nullopt;
}
