#include "database/VkManifestCipher.h"

#include <string>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "support/VkCrypt.h"

namespace {

std::vector<uint8_t> bytes(const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

// Triple-DES CBC/PKCS#7 straight through OpenSSL, with the key and IV spelt out here, so that
// a wrong key completion or IV in the cipher under test cannot agree with itself.
std::vector<uint8_t> referenceEncrypt(const std::vector<uint8_t>& plain) {
    uint8_t key[24];
    const char text[] = "rwpkfx408261";
    VkCipherKey defaults = vkDefaultCipherKey();
    for (int i = 0; i < 24; ++i)
        key[i] = i < 12 ? static_cast<uint8_t>(text[i]) : defaults[i];
    const uint8_t iv[8] = {0x5d, 0x27, 0xe0, 0xa4, 0xb1, 0x6c, 0x93, 0xf8};
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    std::vector<uint8_t> out(plain.size() + 8);
    int n = 0, last = 0;
    EXPECT_EQ(EVP_EncryptInit_ex(ctx, EVP_des_ede3_cbc(), nullptr, key, iv), 1);
    EXPECT_EQ(EVP_EncryptUpdate(ctx, out.data(), &n, plain.data(), static_cast<int>(plain.size())),
              1);
    EXPECT_EQ(EVP_EncryptFinal_ex(ctx, out.data() + n, &last), 1);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<size_t>(n + last));
    return out;
}

TEST(VkManifestCipherTest, MatchesTripleDesWithTheManifestKeyAndIvAndRefusesDamage) {
    std::vector<uint8_t> plain = bytes("<plist><array/></plist> and a little more text");
    auto enciphered = VkManifestCipher::encrypt(plain);
    ASSERT_TRUE(enciphered);
    EXPECT_EQ(*enciphered, referenceEncrypt(plain));
    EXPECT_EQ(enciphered->size() % 8, 0u);
    EXPECT_EQ(VkManifestCipher::decrypt(referenceEncrypt(plain)), plain);
    // The string cipher's key does not open a manifest.
    auto withDefaultKey = VkCryptInter(plain, true);
    ASSERT_TRUE(withDefaultKey);
    auto opened = VkManifestCipher::decrypt(*withDefaultKey);
    EXPECT_TRUE(!opened || *opened != plain);

    // Damaged or empty bodies give nil.
    EXPECT_FALSE(VkManifestCipher::decrypt({}));
    EXPECT_FALSE(VkManifestCipher::encrypt({}));
    auto sixteen = *VkManifestCipher::encrypt(bytes("0123456789abcdef"));
    EXPECT_EQ(sixteen.size(), 24u) << "a whole block of padding after 16 bytes";
    std::vector<uint8_t> cut(sixteen.begin(), sixteen.end() - 3);
    EXPECT_FALSE(VkManifestCipher::decrypt(cut)) << "not a whole number of blocks";
    EXPECT_FALSE(VkManifestCipher::decrypt(bytes("<plist>not enciphered</plist>")));
}

}  // namespace
