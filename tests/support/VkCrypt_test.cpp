#include "support/VkCrypt.h"

#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/VkTestBytes.h"
#include <iconv.h>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

// Base64 text of raw plain bytes enciphered under the default key, to feed the decipher path
// with plain texts that VkCrypt itself would never produce.
std::string cipherTextOf(const Bytes& plain) {
    auto cipher = VkCryptInter(plain, true);
    EXPECT_TRUE(cipher.has_value());
    return cipher ? VkEncodeBase64(*cipher) : std::string();
}

// Independent judge of UTF-8: the C library's converter, which refuses overlong forms,
// surrogates and code points above U+10FFFF.
bool libcSaysUtf8(const std::string& s) {
    iconv_t cd = iconv_open("UTF-32LE", "UTF-8");
    if (cd == reinterpret_cast<iconv_t>(-1))
        return false;
    std::string in = s;
    std::string out(in.size() * 4 + 4, '\0');
    char* inPtr = in.data();
    char* outPtr = out.data();
    size_t inLeft = in.size(), outLeft = out.size();
    size_t result = iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft);
    iconv_close(cd);
    return result != static_cast<size_t>(-1) && inLeft == 0;
}

TEST(VkBase64Test, EncodesStandardVectorsAndDecodesLenientlyAsStoredDataExpects) {
    for (auto [plain, text] : {std::pair<Bytes, std::string>{{}, ""},
                               {bytesOf("f"), "Zg=="},
                               {bytesOf("fo"), "Zm8="},
                               {bytesOf("foobar"), "Zm9vYmFy"},
                               {{0xFB, 0xFF, 0xBF}, "+/+/"}})
        EXPECT_EQ(VkEncodeBase64(plain), text);
    EXPECT_EQ(VkEncodeBase64(Bytes(300, 0xA5)).size(), 400u) << "no line breaks";
    Bytes all(256);
    for (size_t i = 0; i < all.size(); ++i)
        all[i] = static_cast<uint8_t>(i);
    for (auto end = all.begin() + 1; end <= all.end(); ++end)
        EXPECT_EQ(VkDecodeBase64(VkEncodeBase64(Bytes(all.begin(), end))), Bytes(all.begin(), end));

    const struct {
        std::string text;
        std::optional<Bytes> bytes;
    } cases[] = {
        {"QUJD", Bytes{0x41, 0x42, 0x43}},
        {"QQ==", Bytes{0x41}},
        {"QUI=", Bytes{0x41, 0x42}},
        // A padded group in the middle is shortened and decoding carries on.
        {"QQ==QUJD", Bytes{0x41, 0x41, 0x42, 0x43}},
        {"QUI=QQ==", Bytes{0x41, 0x42, 0x41}},
        // A third "=" decides alone, whatever the fourth character is.
        {"QQ=D", Bytes{0x41}},
        // Unknown characters count as index 255 ("QU\nD" is 16, 20, 255, 3), so a MIME line
        // break is garbage, not skipped.
        {"QU\nD", Bytes{0x41, 0x7F, 0xC3}},
        {std::string("\0\0\0\0", 4), Bytes{0xFF, 0xFF, 0xFF}},
        // Empty text and lengths that are no multiple of 4.
        {"", std::nullopt},
        {"QQ=", std::nullopt},
        {"QUJDR", std::nullopt},
        {"Zm9v\nYmFy", std::nullopt},
    };
    for (const auto& c : cases)
        EXPECT_EQ(VkDecodeBase64(c.text), c.bytes) << c.text;
}

class VkCryptInterTest : public ::testing::Test {
  protected:
    const Bytes plain_ = bytesOf("/Applications/Evil.app");
    const VkCipherKey defaultKey_ = vkDefaultCipherKey();
    // Stored signature databases and trust lists are enciphered under the default key: if
    // this changes, every user's stored data has become unreadable.
    const Bytes expected_ = vkFromHex("73f9e2b3ade03c511e711729b9f27f968b86fed46a0930f0");
};

TEST_F(VkCryptInterTest, MatchesTripleDesCbcAndTheDefaultKeyNeverChanges) {
    // Reference cipher text made with the openssl command-line tool.
    VkCipherKey key{};
    auto keyBytes = vkFromHex("00112233445566778899aabbccddeeff0123456789abcdef");
    std::copy(keyBytes.begin(), keyBytes.end(), key.begin());
    VkCipherIv iv{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    const Bytes plain = bytesOf("0123456789abcdefghijklmnopqrstuvwxyz");
    const Bytes cipher = vkFromHex(
        "c97d6b6398f67304f77ec53e29b454ff4ef2ea039ea141f68e901898d061a4e7"
        "e26f7e91ac73141b");
    EXPECT_EQ(VkCryptInterWithIv(plain, true, key, iv), cipher);
    EXPECT_EQ(VkCryptInterWithIv(cipher, false, key, iv), plain);

    EXPECT_EQ(VkCryptInter(plain_, true), expected_);
    EXPECT_EQ(vkEncryptString("VkSecurity"), "efwat7il4VO1payX6V7dPw==");
}

TEST_F(VkCryptInterTest, CallerKeysAreCompletedFromTheDefaultKeyUnderTheDefaultIv) {
    auto completed = [&](Bytes prefix) {
        Bytes key(defaultKey_.begin(), defaultKey_.end());
        std::copy(prefix.begin(), prefix.end(), key.begin());
        return key;
    };
    const Bytes shortKey = bytesOf("0123456789");
    const Bytes longKey = bytesOf("abcdefghijklmnopqrstuvwxyz0123");
    const Bytes oneByte{static_cast<uint8_t>(defaultKey_[0] ^ 0x5A)};
    const struct {
        Bytes given;
        Bytes equivalent;  // the 24-byte key it stands for
    } cases[] = {
        {shortKey, completed(shortKey)},
        {oneByte, completed(oneByte)},
        {longKey, Bytes(longKey.begin(), longKey.begin() + 24)},
        {Bytes{}, Bytes(defaultKey_.begin(), defaultKey_.end())},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given.size());
        auto cipher = VkCryptInter(plain_, true, c.given);
        ASSERT_TRUE(cipher.has_value());
        EXPECT_EQ(cipher, VkCryptInter(plain_, true, c.equivalent));
        EXPECT_EQ(VkCryptInter(*cipher, false, c.given), plain_);
        VkCipherKey full = vkCompleteCipherKey(c.given.data(), c.given.size());
        EXPECT_EQ(Bytes(full.begin(), full.end()), c.equivalent);
        // The IV stays the default's, never taken from the caller's key.
        EXPECT_EQ(cipher, VkCryptInterWithIv(plain_, true, full, vkDefaultCipherIv()));
    }
    // Completed from the default key, not padded with zeros.
    Bytes zeroPadded = shortKey;
    zeroPadded.resize(24, 0);
    EXPECT_NE(VkCryptInter(plain_, true, shortKey), VkCryptInter(plain_, true, zeroPadded));
}

TEST_F(VkCryptInterTest, RefusalsAndRepeatedCallsGiveTheBytesOfAFreshCipher) {
    // Each thread reuses its cipher context; no call may leak chaining or padding state into
    // the next: another IV, another key, the other direction, or a refusal half-way.
    for (auto refused : {VkCryptInter({}, true), VkCryptInter({}, false),
                         VkCryptInter(plain_, true, std::nullopt, 1),
                         VkCryptInter(expected_, false, std::nullopt, -1)})
        EXPECT_FALSE(refused.has_value());
    VkCipherIv otherIv{1, 2, 3, 4, 5, 6, 7, 8};
    auto withOtherIv = VkCryptInterWithIv(plain_, true, defaultKey_, otherIv).value_or(Bytes());
    EXPECT_NE(withOtherIv, expected_);
    EXPECT_EQ(VkCryptInter(plain_, true), expected_);
    EXPECT_EQ(VkCryptInterWithIv(withOtherIv, false, defaultKey_, otherIv), plain_);
    // Not a whole number of blocks, then a last block that deciphers to no PKCS#7 padding.
    EXPECT_FALSE(VkCryptInter(Bytes(expected_.begin(), expected_.end() - 1), false));
    EXPECT_FALSE(VkCryptInter(Bytes(5, 1), false).has_value());
    EXPECT_EQ(VkCryptInter(expected_, false), plain_);
    auto zeroBlock = VkCryptInterWithIv(Bytes(8, 0), true, defaultKey_, vkDefaultCipherIv());
    ASSERT_EQ(zeroBlock.value_or(Bytes()).size(), 16u);
    EXPECT_FALSE(VkCryptInter(Bytes(zeroBlock->begin(), zeroBlock->begin() + 8), false));
    EXPECT_EQ(VkCryptInter(expected_, false), plain_);
    auto underOther = VkCryptInter(plain_, true, bytesOf("another key"));
    ASSERT_TRUE(underOther.has_value());
    EXPECT_NE(VkCryptInter(*underOther, false), plain_);
    EXPECT_EQ(VkCryptInter(plain_, true), expected_);
}

TEST(VkCryptTest, TextRoundTripsUnderItsKeyAndAZeroByteIsNoText) {
    // A zero byte anywhere: one text must not have a second cipher text with more behind it.
    EXPECT_EQ(vkEncryptString(std::string("ab\0cd", 5)), std::nullopt);
    for (const Bytes& plain : {Bytes{'a', 'b', 0x00, 'c'}, Bytes{0x00}, Bytes{'a', 0x00}})
        EXPECT_EQ(vkDecryptString(cipherTextOf(plain)), std::nullopt);

    auto withKey = VkCrypt("trusted file", true, std::string("secret")).value_or("");
    EXPECT_NE(withKey, vkEncryptString("trusted file"));
    EXPECT_EQ(VkCrypt(withKey, false, std::string("secret")), "trusted file");
    EXPECT_NE(vkDecryptString(withKey), "trusted file");
    // An empty key string is no key at all.
    EXPECT_EQ(VkCrypt("trusted file", true, std::string()), vkEncryptString("trusted file"));
}

TEST(VkCryptTest, EmptyReservedUndecodableAndUndecipherableTextGiveNil) {
    const std::string cipher = vkEncryptString("OSX/Olyx.A").value_or("");
    ASSERT_EQ(vkDecryptString(cipher), "OSX/Olyx.A");
    // Empty, reserved flag 3, bad length, 3 bytes (not a block), no Base64, cut short.
    for (auto nil :
         {vkEncryptString(""), vkDecryptString(""), VkCrypt("", true, "key"),
          VkCrypt("trusted file", true, std::nullopt, 3), VkCrypt(cipher, false, std::nullopt, 3),
          vkDecryptString("QQ="), vkDecryptString("QUJD"), vkDecryptString("plain text"),
          vkDecryptString(cipher.substr(0, cipher.size() - 4))})
        EXPECT_EQ(nil, std::nullopt);
}

TEST(VkCryptTest, AcceptsExactlyThePlainTextsTheCLibraryCallsUtf8) {
    // Text that is not UTF-8 is not enciphered (it could never be deciphered again), and
    // plain bytes that are not UTF-8 decipher to nil. Known hard cases first, then bytes drawn
    // mostly from UTF-8 lead and continuation ranges so that both outcomes come up often.
    // Never valid, bad continuation, overlong NUL, overlong three-byte form, surrogate, above
    // U+10FFFF, truncated at the end, lone continuation, Latin-1; then two valid forms.
    std::vector<Bytes> plains;
    for (const char* hex : {"ff", "61c328", "c080", "e080af", "eda080", "f4908080", "e282", "8061",
                            "636166e9", "f09f908d", "efbfbd"})
        plains.push_back(vkFromHex(hex));
    const Bytes pool = {'a',  '~',  ' ',  'Z',  '0',  '/',  0x7F, 0x80, 0x8F, 0x90,
                        0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1, 0xED,
                        0xEE, 0xEF, 0xF0, 0xF1, 0xF4, 0xF5, 0xF8, 0xFF};
    std::mt19937 rng(99);
    for (int round = 0; round < 3000; ++round) {
        Bytes plain(1 + rng() % 6);
        for (auto& b : plain)
            b = pool[rng() % pool.size()];
        plains.push_back(plain);
    }
    int valid = 0, invalid = 0;
    for (const Bytes& plain : plains) {
        std::string asText(plain.begin(), plain.end());
        const bool expected = libcSaysUtf8(asText);
        expected ? ++valid : ++invalid;
        EXPECT_EQ(vkDecryptString(cipherTextOf(plain)),
                  expected ? std::optional(asText) : std::nullopt)
            << VkEncodeBase64(plain);
        EXPECT_EQ(vkEncryptString(asText).has_value(), expected) << VkEncodeBase64(plain);
    }
    EXPECT_GT(valid, 100);
    EXPECT_GT(invalid, 100);
}

TEST(VkCryptTest, RunsOnManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < 200; ++i) {
                std::string text = "thread " + std::to_string(t) + " item " + std::to_string(i);
                failures[t] += vkDecryptString(vkEncryptString(text).value_or("")) != text;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
