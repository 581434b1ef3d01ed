#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "support/VkCrypt.h"

// The cipher of the update manifest "version.xml": Triple-DES in CBC mode with PKCS#7
// padding, keyed by the 12 bytes "rwpkfx408261" completed from the default key (the way the
// string cipher completes a short caller key) and an IV of its own. The server's files are
// enciphered this way, so neither the key nor the IV may change.
class VkManifestCipher {
  public:
    // The manifest key as the cipher uses it: "rwpkfx408261" followed by bytes 13..24 of the
    // default key.
    static VkCipherKey key();
    // The manifest IV: 5d 27 e0 a4 b1 6c 93 f8, in this order.
    static VkCipherIv iv();

    // The plain manifest, or nil for empty data, a length that is not a whole number of
    // blocks or bad padding.
    static std::optional<std::vector<uint8_t>> decrypt(const std::vector<uint8_t>& body);
    // The enciphered manifest as the update server serves it; nil only for empty data.
    static std::optional<std::vector<uint8_t>> encrypt(const std::vector<uint8_t>& plain);
};
