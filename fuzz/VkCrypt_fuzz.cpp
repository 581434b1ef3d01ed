// The string cipher and its Base64 coder: stored fields of signature records and of the trust
// list are deciphered from whatever a database or defaults file holds.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "VkFuzzSupport.h"
#include "support/VkCrypt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::vector<uint8_t> bytes(data, data + size);

    // Stored text: deciphered text never holds a NUL (it ends at the first one).
    if (auto plain = vkDecryptString(text))
        VK_FUZZ_CHECK(plain->find('\0') == std::string::npos);
    // A caller's key, taken from the input itself.
    VkCrypt(text, false, text.substr(0, size % 31));

    // Any bytes go through the coder and come back.
    VkDecodeBase64(text);
    if (size > 0) {
        auto back = VkDecodeBase64(VkEncodeBase64(bytes));
        VK_FUZZ_CHECK(back && *back == bytes);
    }
    // Enciphered text deciphers to itself up to its first zero byte.
    if (auto cipher = vkEncryptString(text)) {
        auto again = vkDecryptString(*cipher);
        VK_FUZZ_CHECK(again && *again == text.substr(0, text.find('\0')));
    }
    return 0;
}
