#include "support/VkCrypt.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include <openssl/err.h>
#include <openssl/evp.h>

#include "platform/VkHandle.h"
#include "platform/VkUtf8.h"

namespace {

using CipherContext = VkHandle<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;

// A thread's Triple-DES context, set up for `key` in one direction while `ready`.
struct CachedCipher {
    CipherContext ctx;
    VkCipherKey key{};
    bool encrypt = false;
    bool ready = false;
};

// "=" is the 65th entry so that it has index 64: the decoder recognises padding by that index.
constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
constexpr uint8_t kNotInAlphabet = 255;
constexpr uint8_t kPadIndex = 64;

// Index of every byte in the alphabet; bytes outside it (line breaks, blanks, NUL, anything
// non-ASCII) keep 255, which the decoder turns into garbage rather than refusing.
constexpr std::array<uint8_t, 256> makeDecodeTable() {
    std::array<uint8_t, 256> table{};
    for (auto& entry : table)
        entry = kNotInAlphabet;
    for (uint8_t i = 0; i < 65; ++i)
        table[static_cast<uint8_t>(kBase64Alphabet[i])] = i;
    return table;
}
constexpr std::array<uint8_t, 256> kDecodeTable = makeDecodeTable();

// Appends one 64-bit word most significant byte first, so the key is the same bytes on every
// machine.
void appendWord(VkCipherKey& key, size_t offset, uint64_t word) {
    for (size_t i = 0; i < 8; ++i)
        key[offset + i] = static_cast<uint8_t>(word >> (56 - 8 * i));
}

}  // namespace

VkCipherKey vkDefaultCipherKey() {
    // Put together from three words at every call rather than kept as one 24-byte constant.
    // Never change it: the delivered signature databases and every user's trust list are
    // enciphered with it.
    VkCipherKey key{};
    appendWord(key, 0, 0x169d4a4e785bee54ULL);
    appendWord(key, 8, 0xfb17d15fc53fcfa1ULL);
    appendWord(key, 16, 0xc215fd7d097afc64ULL);
    return key;
}

VkCipherIv vkDefaultCipherIv() {
    VkCipherKey key = vkDefaultCipherKey();
    VkCipherIv iv{};
    std::copy_n(key.begin(), iv.size(), iv.begin());
    return iv;
}

VkCipherKey vkCompleteCipherKey(const uint8_t* keyBytes, size_t length) {
    // A short key is completed from the default key, not padded with zeros: keys of 1 to 24
    // bytes have always been used this way, so data enciphered under them depends on it.
    VkCipherKey key = vkDefaultCipherKey();
    if (keyBytes != nullptr && length > 0)
        std::copy_n(keyBytes, std::min(length, key.size()), key.begin());
    return key;
}

std::string VkEncodeBase64(const std::vector<uint8_t>& data) {
    std::string out;
    const size_t length = data.size();
    if (length == 0)
        return out;
    out.reserve((length + 2) / 3 * 4);
    for (size_t pos = 0; pos < length; pos += 3) {
        uint8_t group[3] = {0, 0, 0};
        std::memcpy(group, data.data() + pos, std::min<size_t>(3, length - pos));
        char quad[4] = {
            kBase64Alphabet[group[0] >> 2],
            kBase64Alphabet[((group[0] << 4) & 0x30) | (group[1] >> 4)],
            kBase64Alphabet[((group[1] << 2) & 0x3C) | (group[2] >> 6)],
            kBase64Alphabet[group[2] & 0x3F],
        };
        if (pos + 1 >= length)
            quad[2] = '=';
        if (pos + 2 >= length)
            quad[3] = '=';
        out.append(quad, 4);
    }
    return out;
}

std::optional<std::vector<uint8_t>> VkDecodeBase64(const std::string& text) {
    const size_t length = text.size();
    if (length == 0 || length % 4 != 0)
        return std::nullopt;
    std::vector<uint8_t> out;
    out.reserve(length * 3 / 4 + 3);
    for (size_t pos = 0; pos < length; pos += 4) {
        uint8_t i[4];
        for (size_t k = 0; k < 4; ++k)
            i[k] = kDecodeTable[static_cast<uint8_t>(text[pos + k])];
        const uint8_t bytes[3] = {
            static_cast<uint8_t>((i[0] << 2) | ((i[1] >> 4) & 0x0F)),
            static_cast<uint8_t>((i[1] << 4) | (i[2] >> 2)),
            static_cast<uint8_t>((i[2] << 6) | i[3]),
        };
        // Tested for every group, not only the last: a "=" in the middle shortens its group
        // and decoding carries on. Kept on purpose, stored data has always been read this way.
        size_t count = 3;
        if (i[2] == kPadIndex) {
            count = 1;
        } else if (i[3] == kPadIndex) {
            count = 2;
        }
        out.insert(out.end(), bytes, bytes + count);
    }
    return out;
}

std::optional<std::vector<uint8_t>> VkCryptInterWithIv(const std::vector<uint8_t>& data,
                                                       bool encrypt, const VkCipherKey& key,
                                                       const VkCipherIv& iv) {
    if (data.size() > static_cast<size_t>(INT_MAX) - 8)
        return std::nullopt;
    // Each thread keeps one context with the key schedule of the last key and direction:
    // loading a database deciphers three or more fields per record, and setting up the
    // Triple-DES key (and looking the cipher up in the provider) each time cost about a third
    // of the load. A call with the same key and direction only resets the IV and the padding
    // state, which gives exactly the bytes a fresh context gives.
    thread_local CachedCipher cached;
    if (!cached.ctx)
        cached.ctx.reset(EVP_CIPHER_CTX_new());
    if (!cached.ctx)
        return std::nullopt;
    bool ok;
    if (cached.ready && cached.encrypt == encrypt && cached.key == key) {
        ok = EVP_CipherInit_ex(cached.ctx.get(), nullptr, nullptr, nullptr, iv.data(),
                               encrypt ? 1 : 0) == 1;
    } else {
        cached.ready = false;
        ok = EVP_CipherInit_ex(cached.ctx.get(), EVP_des_ede3_cbc(), nullptr, key.data(), iv.data(),
                               encrypt ? 1 : 0) == 1;
        if (ok) {
            cached.ready = true;
            cached.encrypt = encrypt;
            cached.key = key;
        }
    }
    // One block of room past the input covers the padding block of enciphering.
    std::vector<uint8_t> out(data.size() + 8);
    int produced = 0, last = 0;
    ok = ok &&
         EVP_CipherUpdate(cached.ctx.get(), out.data(), &produced, data.data(),
                          static_cast<int>(data.size())) == 1 &&
         EVP_CipherFinal_ex(cached.ctx.get(), out.data() + produced, &last) == 1;
    if (!ok) {
        // Set up afresh next time rather than trust a context that failed half-way.
        cached.ready = false;
        // Bad padding or a partial block is an ordinary answer here; leave no trace in this
        // thread's OpenSSL error queue for the next caller to trip over.
        ERR_clear_error();
        return std::nullopt;
    }
    out.resize(static_cast<size_t>(produced) + static_cast<size_t>(last));
    return out;
}

std::optional<std::vector<uint8_t>> VkCryptInter(const std::vector<uint8_t>& data, bool encrypt,
                                                 const std::optional<std::vector<uint8_t>>& keyData,
                                                 int32_t reserved) {
    if (data.empty() || reserved != 0)
        return std::nullopt;
    VkCipherKey key =
        keyData ? vkCompleteCipherKey(keyData->data(), keyData->size()) : vkDefaultCipherKey();
    // The IV stays the default one even under a caller's key.
    return VkCryptInterWithIv(data, encrypt, key, vkDefaultCipherIv());
}

std::optional<std::string> VkCrypt(const std::string& text, bool encrypt,
                                   const std::optional<std::string>& keyString, int32_t reserved) {
    if (text.empty())
        return std::nullopt;
    std::optional<std::vector<uint8_t>> keyData;
    if (keyString)
        keyData.emplace(keyString->begin(), keyString->end());
    if (encrypt) {
        // Text is UTF-8 by contract; bytes that are not, or a zero byte, would encipher to a
        // field that can never be deciphered again, so refuse them now rather than lose them
        // later.
        const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
        if (!VkUtf8::isValid(text) || text.find('\0') != std::string::npos)
            return std::nullopt;
        auto cipher =
            VkCryptInter(std::vector<uint8_t>(bytes, bytes + text.size()), true, keyData, reserved);
        if (!cipher)
            return std::nullopt;
        return VkEncodeBase64(*cipher);
    }
    auto cipher = VkDecodeBase64(text);
    if (!cipher)
        return std::nullopt;
    auto plain = VkCryptInter(*cipher, false, keyData, reserved);
    if (!plain)
        return std::nullopt;
    // A zero byte would end the text where a C string ends it, so that one text could be
    // stored as many cipher texts, with anything hidden after the zero: none is a text.
    if (std::find(plain->begin(), plain->end(), uint8_t{0}) != plain->end())
        return std::nullopt;
    std::string result(reinterpret_cast<const char*>(plain->data()), plain->size());
    if (!VkUtf8::isValid(result))
        return std::nullopt;
    return result;
}

std::optional<std::string> vkEncryptString(const std::string& text) {
    return VkCrypt(text, true, std::nullopt, 0);
}

std::optional<std::string> vkDecryptString(const std::string& text) {
    return VkCrypt(text, false, std::nullopt, 0);
}
