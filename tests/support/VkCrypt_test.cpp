#include "support/VkCrypt.h"

#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <iconv.h>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

Bytes fromHex(const std::string& hex) {
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
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

bool isUtf8WithoutNul(const std::string& s) {
    return s.find('\0') == std::string::npos && libcSaysUtf8(s);
}

// --- Base64 ---------------------------------------------------------------------------------

TEST(VkBase64Test, EncodesStandardVectorsWithoutLineBreaks) {
    EXPECT_EQ(VkEncodeBase64({}), "");
    EXPECT_EQ(VkEncodeBase64(bytesOf("f")), "Zg==");
    EXPECT_EQ(VkEncodeBase64(bytesOf("fo")), "Zm8=");
    EXPECT_EQ(VkEncodeBase64(bytesOf("foo")), "Zm9v");
    EXPECT_EQ(VkEncodeBase64(bytesOf("foobar")), "Zm9vYmFy");
    EXPECT_EQ(VkEncodeBase64({0xFB, 0xFF, 0xBF}), "+/+/");
    std::string longText = VkEncodeBase64(Bytes(300, 0xA5));
    EXPECT_EQ(longText.size(), 400u);
    EXPECT_EQ(longText.find_first_of("\r\n"), std::string::npos);
}

TEST(VkBase64Test, RoundTripsEveryLengthAndByteValue) {
    std::mt19937 rng(20240611);
    for (size_t length = 1; length <= 70; ++length) {
        Bytes data(length);
        for (auto& b : data)
            b = static_cast<uint8_t>(rng());
        auto decoded = VkDecodeBase64(VkEncodeBase64(data));
        ASSERT_TRUE(decoded.has_value()) << length;
        EXPECT_EQ(*decoded, data) << length;
    }
    Bytes all(256);
    for (size_t i = 0; i < all.size(); ++i)
        all[i] = static_cast<uint8_t>(i);
    EXPECT_EQ(VkDecodeBase64(VkEncodeBase64(all)), all);
}

TEST(VkBase64Test, DecodesLenientlyAsStoredDataExpects) {
    EXPECT_EQ(VkDecodeBase64("QUJD"), (Bytes{0x41, 0x42, 0x43}));
    EXPECT_EQ(VkDecodeBase64("QQ=="), (Bytes{0x41}));
    EXPECT_EQ(VkDecodeBase64("QUI="), (Bytes{0x41, 0x42}));
    // A padded group in the middle is shortened and decoding carries on.
    EXPECT_EQ(VkDecodeBase64("QQ==QUJD"), (Bytes{0x41, 0x41, 0x42, 0x43}));
    EXPECT_EQ(VkDecodeBase64("QUI=QQ=="), (Bytes{0x41, 0x42, 0x41}));
    // A third "=" decides alone, whatever the fourth character is.
    EXPECT_EQ(VkDecodeBase64("QQ=D"), (Bytes{0x41}));
    // Unknown characters count as index 255: "QU\nD" is 16, 20, 255, 3.
    EXPECT_EQ(VkDecodeBase64("QU\nD"), (Bytes{0x41, 0x7F, 0xC3}));
    EXPECT_EQ(VkDecodeBase64(std::string("\0\0\0\0", 4)), (Bytes{0xFF, 0xFF, 0xFF}));
}

TEST(VkBase64Test, RefusesEmptyTextAndLengthsNotMultipleOfFour) {
    EXPECT_FALSE(VkDecodeBase64("").has_value());
    EXPECT_FALSE(VkDecodeBase64("QQ=").has_value());
    EXPECT_FALSE(VkDecodeBase64("QUJDR").has_value());
    EXPECT_FALSE(VkDecodeBase64("Q").has_value());
}

TEST(VkBase64Test, LineBrokenTextDoesNotDecodeToTheOriginalBytes) {
    Bytes data(114);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 7 + 3);
    std::string text = VkEncodeBase64(data);
    ASSERT_EQ(text.size(), 152u);
    // MIME-style: a CRLF after every 76 characters. The length stays a multiple of 4, so the
    // text is decoded, but the break characters become garbage instead of being skipped.
    std::string broken = text.substr(0, 76) + "\r\n" + text.substr(76) + "\r\n";
    auto decoded = VkDecodeBase64(broken);
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->size(), 117u);
    EXPECT_NE(*decoded, data);
    // A single LF after the first line makes the length wrong: nothing at all.
    EXPECT_FALSE(VkDecodeBase64(text.substr(0, 76) + "\n" + text.substr(76)).has_value());
}

TEST(VkBase64Test, RandomTextNeverCrashesAndYieldsOneToThreeBytesPerGroup) {
    std::mt19937 rng(7);
    const std::string junk = "ABCxyz019+/=\n\r \t\x80\xff-_.";
    for (int round = 0; round < 3000; ++round) {
        size_t length = rng() % 40;
        std::string text(length, '\0');
        for (auto& c : text) {
            c = (round % 2) ? static_cast<char>(rng()) : junk[rng() % junk.size()];
        }
        auto decoded = VkDecodeBase64(text);
        if (length == 0 || length % 4 != 0) {
            EXPECT_FALSE(decoded.has_value()) << round;
            continue;
        }
        ASSERT_TRUE(decoded.has_value()) << round;
        EXPECT_GE(decoded->size(), length / 4);
        EXPECT_LE(decoded->size(), length / 4 * 3);
    }
}

// --- Block cipher ---------------------------------------------------------------------------

class VkCryptInterTest : public ::testing::Test {
  protected:
    const Bytes plain_ = bytesOf("/Applications/Evil.app");
    const VkCipherKey defaultKey_ = vkDefaultCipherKey();
};

TEST_F(VkCryptInterTest, MatchesTripleDesCbcOfAnIndependentImplementation) {
    // Reference cipher texts made with the openssl command-line tool.
    VkCipherKey key{};
    auto keyBytes = fromHex("00112233445566778899aabbccddeeff0123456789abcdef");
    std::copy(keyBytes.begin(), keyBytes.end(), key.begin());
    VkCipherIv iv{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    auto cipher =
        VkCryptInterWithIv(bytesOf("0123456789abcdefghijklmnopqrstuvwxyz"), true, key, iv);
    ASSERT_TRUE(cipher.has_value());
    EXPECT_EQ(*cipher, fromHex("c97d6b6398f67304f77ec53e29b454ff4ef2ea039ea141f68e901898d061a4e7"
                               "e26f7e91ac73141b"));
    EXPECT_EQ(VkCryptInterWithIv(*cipher, false, key, iv),
              bytesOf("0123456789abcdefghijklmnopqrstuvwxyz"));
}

TEST_F(VkCryptInterTest, DefaultKeyAndIvNeverChange) {
    // Stored signature databases and trust lists are enciphered under this key; if this test
    // fails, every user's stored data has become unreadable.
    EXPECT_EQ(VkCryptInter(plain_, true),
              fromHex("73f9e2b3ade03c511e711729b9f27f968b86fed46a0930f0"));
    EXPECT_EQ(vkEncryptString("VkSecurity"), "efwat7il4VO1payX6V7dPw==");
    VkCipherIv iv = vkDefaultCipherIv();
    EXPECT_TRUE(std::equal(iv.begin(), iv.end(), defaultKey_.begin()));
}

TEST_F(VkCryptInterTest, PadsToWholeBlocksAndRoundTrips) {
    for (size_t length : {1u, 7u, 8u, 9u, 16u, 100u}) {
        Bytes data(length, static_cast<uint8_t>(length));
        auto cipher = VkCryptInter(data, true);
        ASSERT_TRUE(cipher.has_value()) << length;
        EXPECT_EQ(cipher->size(), (length / 8 + 1) * 8) << length;
        EXPECT_EQ(VkCryptInter(*cipher, false), data) << length;
    }
}

TEST_F(VkCryptInterTest, RefusesEmptyInputReservedAndBrokenCipherText) {
    EXPECT_FALSE(VkCryptInter({}, true).has_value());
    EXPECT_FALSE(VkCryptInter({}, false).has_value());
    EXPECT_FALSE(VkCryptInter(plain_, true, std::nullopt, 1).has_value());
    auto cipher = VkCryptInter(plain_, true);
    ASSERT_TRUE(cipher.has_value());
    EXPECT_FALSE(VkCryptInter(*cipher, false, std::nullopt, -1).has_value());
    // Not a whole number of blocks.
    EXPECT_FALSE(VkCryptInter(Bytes(cipher->begin(), cipher->end() - 1), false).has_value());
    EXPECT_FALSE(VkCryptInter(Bytes(5, 1), false).has_value());
    // The last block deciphers to bytes that are not PKCS#7 padding.
    Bytes zeros(8, 0);
    auto zeroBlock = VkCryptInterWithIv(zeros, true, defaultKey_, vkDefaultCipherIv());
    ASSERT_TRUE(zeroBlock.has_value());
    EXPECT_FALSE(VkCryptInter(Bytes(zeroBlock->begin(), zeroBlock->begin() + 8), false));
}

TEST_F(VkCryptInterTest, ShortKeyIsCompletedFromTheDefaultKey) {
    Bytes shortKey = bytesOf("0123456789");
    Bytes completed(defaultKey_.begin(), defaultKey_.end());
    std::copy(shortKey.begin(), shortKey.end(), completed.begin());
    Bytes zeroPadded = shortKey;
    zeroPadded.resize(24, 0);

    auto withShort = VkCryptInter(plain_, true, shortKey);
    ASSERT_TRUE(withShort.has_value());
    EXPECT_EQ(withShort, VkCryptInter(plain_, true, completed));
    EXPECT_NE(withShort, VkCryptInter(plain_, true, zeroPadded));
    EXPECT_NE(withShort, VkCryptInter(plain_, true));
    EXPECT_EQ(VkCryptInter(*withShort, false, shortKey), plain_);
    // A one-byte key changes the first byte only.
    Bytes oneByte{static_cast<uint8_t>(defaultKey_[0] ^ 0x5A)};
    Bytes onlyFirst(defaultKey_.begin(), defaultKey_.end());
    onlyFirst[0] = oneByte[0];
    EXPECT_EQ(VkCryptInter(plain_, true, oneByte), VkCryptInter(plain_, true, onlyFirst));
}

TEST_F(VkCryptInterTest, LongKeyUsesItsFirst24BytesAndEmptyKeyTheDefault) {
    Bytes longKey = bytesOf("abcdefghijklmnopqrstuvwxyz0123");
    ASSERT_EQ(longKey.size(), 30u);
    Bytes first24(longKey.begin(), longKey.begin() + 24);
    auto withLong = VkCryptInter(plain_, true, longKey);
    ASSERT_TRUE(withLong.has_value());
    EXPECT_EQ(withLong, VkCryptInter(plain_, true, first24));
    EXPECT_NE(withLong, VkCryptInter(plain_, true));
    EXPECT_EQ(VkCryptInter(plain_, true, Bytes{}), VkCryptInter(plain_, true));
}

TEST_F(VkCryptInterTest, IvStaysTheDefaultUnderACallersKey) {
    Bytes callerKey = bytesOf("caller key of 24 bytes!!");
    ASSERT_EQ(callerKey.size(), 24u);
    VkCipherKey key{};
    std::copy(callerKey.begin(), callerKey.end(), key.begin());
    VkCipherIv callerIv{};
    std::copy_n(callerKey.begin(), 8, callerIv.begin());
    auto cipher = VkCryptInter(plain_, true, callerKey);
    EXPECT_EQ(cipher, VkCryptInterWithIv(plain_, true, key, vkDefaultCipherIv()));
    EXPECT_NE(cipher, VkCryptInterWithIv(plain_, true, key, callerIv));
}

TEST_F(VkCryptInterTest, RepeatedCallsGiveTheBytesOfAFreshCipher) {
    // Each thread reuses its cipher context; no call may leak chaining or padding state into
    // the next, whatever came before: the same call, another IV, another key, the other
    // direction, or a failure half-way.
    const Bytes expected = fromHex("73f9e2b3ade03c511e711729b9f27f968b86fed46a0930f0");
    EXPECT_EQ(VkCryptInter(plain_, true), expected);
    EXPECT_EQ(VkCryptInter(plain_, true), expected);
    VkCipherIv otherIv{1, 2, 3, 4, 5, 6, 7, 8};
    auto withOtherIv = VkCryptInterWithIv(plain_, true, defaultKey_, otherIv);
    ASSERT_TRUE(withOtherIv.has_value());
    EXPECT_NE(*withOtherIv, expected);
    EXPECT_EQ(VkCryptInter(plain_, true), expected);
    EXPECT_EQ(VkCryptInterWithIv(*withOtherIv, false, defaultKey_, otherIv), plain_);
    EXPECT_EQ(VkCryptInter(expected, false), plain_);
    // A failure in the middle of a decipher (a partial block, then bad padding).
    EXPECT_FALSE(VkCryptInter(Bytes(expected.begin(), expected.end() - 3), false).has_value());
    EXPECT_EQ(VkCryptInter(expected, false), plain_);
    EXPECT_FALSE(VkCryptInter(Bytes(expected.begin(), expected.begin() + 8), false).has_value());
    EXPECT_EQ(VkCryptInter(expected, false), plain_);
    // Another key and back.
    auto underOther = VkCryptInter(plain_, true, bytesOf("another key"));
    ASSERT_TRUE(underOther.has_value());
    EXPECT_NE(*underOther, expected);
    EXPECT_FALSE(VkCryptInter(*underOther, false) == plain_);
    EXPECT_EQ(VkCryptInter(*underOther, false, bytesOf("another key")), plain_);
    EXPECT_EQ(VkCryptInter(plain_, true), expected);
}

TEST_F(VkCryptInterTest, CompletesKeysForOtherCiphersTheSameWay) {
    Bytes twelve = bytesOf("manifest-key");
    VkCipherKey key = vkCompleteCipherKey(twelve.data(), twelve.size());
    EXPECT_TRUE(std::equal(twelve.begin(), twelve.end(), key.begin()));
    EXPECT_TRUE(std::equal(key.begin() + 12, key.end(), defaultKey_.begin() + 12));
    EXPECT_EQ(vkCompleteCipherKey(nullptr, 0), defaultKey_);
}

// --- String cipher --------------------------------------------------------------------------

TEST(VkCryptTest, EmptyTextIsNilBothWays) {
    EXPECT_FALSE(vkEncryptString("").has_value());
    EXPECT_FALSE(vkDecryptString("").has_value());
    EXPECT_FALSE(VkCrypt("", true, std::string("key")).has_value());
}

TEST(VkCryptTest, CipherTextLengthFollowsTheBlocks) {
    auto one = vkEncryptString("x");
    ASSERT_TRUE(one.has_value());
    EXPECT_EQ(one->size(), 12u);
    EXPECT_EQ(one->back(), '=');
    auto eight = vkEncryptString("12345678");
    ASSERT_TRUE(eight.has_value());
    EXPECT_EQ(eight->size(), 24u);
}

TEST(VkCryptTest, RoundTripsUtf8Text) {
    for (const std::string& text : std::vector<std::string>{
             "a", "OSX/Flashback", "/Users/anna/Library/LaunchAgents/com.apple.x.plist",
             "Z\xC3\xBCrich \xE2\x9C\x93 \xF0\x9F\x90\x8D", std::string(1000, 'q')}) {
        auto cipher = vkEncryptString(text);
        ASSERT_TRUE(cipher.has_value()) << text;
        EXPECT_NE(*cipher, text);
        EXPECT_EQ(vkDecryptString(*cipher), text);
    }
}

TEST(VkCryptTest, PlainTextEndsAtTheFirstZeroByte) {
    auto cipher = vkEncryptString(std::string("ab\0cd", 5));
    ASSERT_TRUE(cipher.has_value());
    EXPECT_EQ(vkDecryptString(*cipher), "ab");
    // A leading zero byte leaves an empty text, which is a value, not nil.
    EXPECT_EQ(vkDecryptString(cipherTextOf({0x00, 'a'})), "");
    // Bytes after the zero are never looked at, valid or not.
    EXPECT_EQ(vkDecryptString(cipherTextOf({'a', 0x00, 0xFF, 0xC0})), "a");
}

TEST(VkCryptTest, PlainBytesThatAreNotUtf8GiveNil) {
    const std::vector<Bytes> invalid = {
        {0xFF},                    // never valid
        {'a', 0xC3, 0x28},         // bad continuation
        {0xC0, 0x80},              // overlong NUL
        {0xE0, 0x80, 0xAF},        // overlong three-byte form
        {0xED, 0xA0, 0x80},        // surrogate
        {0xF4, 0x90, 0x80, 0x80},  // above U+10FFFF
        {0xE2, 0x82},              // truncated at the end
        {0x80, 'a'},               // lone continuation byte
    };
    for (const auto& plain : invalid) {
        EXPECT_FALSE(vkDecryptString(cipherTextOf(plain)).has_value()) << plain.size();
    }
    EXPECT_EQ(vkDecryptString(cipherTextOf({0xF0, 0x9F, 0x90, 0x8D})), "\xF0\x9F\x90\x8D");
    EXPECT_EQ(vkDecryptString(cipherTextOf({0xEF, 0xBF, 0xBD})), "\xEF\xBF\xBD");
}

TEST(VkCryptTest, AcceptsExactlyThePlainTextsTheCLibraryCallsUtf8) {
    // Bytes drawn mostly from UTF-8 lead and continuation ranges, so that valid and
    // invalid sequences both come up often.
    const Bytes pool = {'a',  '~',  ' ',  'Z',  '0',  '/',  0x7F, 0x80, 0x8F, 0x90,
                        0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1, 0xED,
                        0xEE, 0xEF, 0xF0, 0xF1, 0xF4, 0xF5, 0xF8, 0xFF};
    std::mt19937 rng(99);
    int valid = 0, invalid = 0;
    for (int round = 0; round < 3000; ++round) {
        Bytes plain(1 + rng() % 6);
        for (auto& b : plain)
            b = pool[rng() % pool.size()];
        std::string asText(plain.begin(), plain.end());
        const bool expected = libcSaysUtf8(asText);
        expected ? ++valid : ++invalid;
        auto deciphered = vkDecryptString(cipherTextOf(plain));
        ASSERT_EQ(deciphered.has_value(), expected) << VkEncodeBase64(plain);
        if (deciphered) {
            EXPECT_EQ(*deciphered, asText);
        }
        EXPECT_EQ(vkEncryptString(asText).has_value(), expected) << VkEncodeBase64(plain);
    }
    EXPECT_GT(valid, 100);
    EXPECT_GT(invalid, 100);
}

TEST(VkCryptTest, TextThatIsNotUtf8IsNotEnciphered) {
    // It could never be deciphered again.
    EXPECT_FALSE(vkEncryptString("caf\xE9").has_value());
    EXPECT_FALSE(vkEncryptString(std::string("\xED\xA0\x80", 3)).has_value());
}

TEST(VkCryptTest, KeyStringAndReservedAreHonoured) {
    auto withKey = VkCrypt("trusted file", true, std::string("secret"));
    ASSERT_TRUE(withKey.has_value());
    EXPECT_NE(withKey, vkEncryptString("trusted file"));
    EXPECT_EQ(VkCrypt(*withKey, false, std::string("secret")), "trusted file");
    EXPECT_NE(vkDecryptString(*withKey), "trusted file");
    // An empty key string is no key at all.
    EXPECT_EQ(VkCrypt("trusted file", true, std::string()), vkEncryptString("trusted file"));
    EXPECT_FALSE(VkCrypt("trusted file", true, std::nullopt, 3).has_value());
    auto plain = vkEncryptString("trusted file");
    ASSERT_TRUE(plain.has_value());
    EXPECT_FALSE(VkCrypt(*plain, false, std::nullopt, 3).has_value());
}

TEST(VkCryptTest, UndecodableOrUndecipherableTextGivesNil) {
    EXPECT_FALSE(vkDecryptString("QQ=").has_value());   // length
    EXPECT_FALSE(vkDecryptString("QUJD").has_value());  // 3 bytes: not a block
    EXPECT_FALSE(vkDecryptString("plain text").has_value());
    auto cipher = vkEncryptString("OSX/Olyx.A");
    ASSERT_TRUE(cipher.has_value());
    EXPECT_FALSE(vkDecryptString(cipher->substr(0, cipher->size() - 4)).has_value());
}

TEST(VkCryptTest, RandomInputNeverCrashesAndNeverYieldsBrokenText) {
    std::mt19937 rng(424242);
    int paddingAccepted = 0;
    for (int round = 0; round < 4000; ++round) {
        std::string text;
        if (round % 2 == 0) {
            // Well-formed Base64 of random whole blocks: reaches the cipher and the text check.
            Bytes cipher(8 * (1 + rng() % 4));
            for (auto& b : cipher)
                b = static_cast<uint8_t>(rng());
            if (VkCryptInter(cipher, false))
                ++paddingAccepted;
            text = VkEncodeBase64(cipher);
        } else {
            text.resize(rng() % 48);
            for (auto& c : text)
                c = static_cast<char>(rng());
        }
        auto plain = vkDecryptString(text);
        if (plain) {
            EXPECT_TRUE(isUtf8WithoutNul(*plain)) << round;
        }
        std::optional<std::string> key;
        if (rng() % 2)
            key = std::string(rng() % 40, static_cast<char>(rng()));
        auto keyed = VkCrypt(text, false, key);
        if (keyed) {
            EXPECT_TRUE(isUtf8WithoutNul(*keyed)) << round;
        }
    }
    // About one random block in 256 ends in valid padding, so the text check was reached.
    EXPECT_GT(paddingAccepted, 0);
}

TEST(VkCryptTest, RunsOnManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < 200; ++i) {
                std::string text = "thread " + std::to_string(t) + " item " + std::to_string(i);
                auto cipher = vkEncryptString(text);
                if (!cipher || vkDecryptString(*cipher) != text)
                    ++failures[t];
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
