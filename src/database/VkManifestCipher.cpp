#include "database/VkManifestCipher.h"

namespace {

constexpr char kManifestKeyText[] = "rwpkfx408261";

}  // namespace

VkCipherKey VkManifestCipher::key() {
    return vkCompleteCipherKey(reinterpret_cast<const uint8_t*>(kManifestKeyText),
                               sizeof(kManifestKeyText) - 1);
}

VkCipherIv VkManifestCipher::iv() {
    return {0x5d, 0x27, 0xe0, 0xa4, 0xb1, 0x6c, 0x93, 0xf8};
}

std::optional<std::vector<uint8_t>> VkManifestCipher::decrypt(const std::vector<uint8_t>& body) {
    if (body.empty())
        return std::nullopt;
    return VkCryptInterWithIv(body, false, key(), iv());
}

std::optional<std::vector<uint8_t>> VkManifestCipher::encrypt(const std::vector<uint8_t>& plain) {
    if (plain.empty())
        return std::nullopt;
    return VkCryptInterWithIv(plain, true, key(), iv());
}
