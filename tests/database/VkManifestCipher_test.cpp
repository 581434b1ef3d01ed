#include "database/VkManifestCipher.h"

#include <string>

#include <gtest/gtest.h>

#include "fakes/VkTestBytes.h"

namespace {

std::vector<uint8_t> bytes(const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

// Triple-DES CBC/PKCS#7 of the text below made with the openssl command-line tool, the key
// ("rwpkfx408261" completed from the default key) and IV spelt out there, so that a wrong key
// completion or IV in the cipher under test cannot agree with itself.
const std::vector<uint8_t> kReference = vkFromHex(
    "2491c34492eadb2b4481e1fd1e1e325fd71252abf05952be78195277e7d69fc072a43f974b6912027f5"
    "167ee6c332355");

TEST(VkManifestCipherTest, MatchesTripleDesWithTheManifestKeyAndIvAndRefusesDamage) {
    std::vector<uint8_t> plain = bytes("<plist><array/></plist> and a little more text");
    auto enciphered = VkManifestCipher::encrypt(plain);
    ASSERT_TRUE(enciphered);
    EXPECT_EQ(*enciphered, kReference);
    EXPECT_EQ(VkManifestCipher::decrypt(kReference), plain);

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
