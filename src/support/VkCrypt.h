#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The string cipher of signature records and of the trust list: Triple-DES in CBC mode with
// PKCS#7 padding under one fixed default key, the cipher text written with the system's own
// Base64 coder. Every failure is a nil result. Any thread may call: each thread keeps its own
// cipher context, so nothing is shared.

using VkCipherKey = std::array<uint8_t, 24>;
using VkCipherIv = std::array<uint8_t, 8>;

// The fixed default key shared by every enciphered field the system reads or writes.
VkCipherKey vkDefaultCipherKey();
// The IV of the string cipher: always the first 8 bytes of the default key.
VkCipherIv vkDefaultCipherIv();
// A caller key completed from the default key: empty keeps the default, 1..24 bytes overwrite
// only its first bytes, 25 or more bytes give their first 24.
VkCipherKey vkCompleteCipherKey(const uint8_t* keyBytes, size_t length);

// Base64 text of the data in the system's alphabet, without line breaks; "" for no data.
std::string VkEncodeBase64(const std::vector<uint8_t>& data);
// Bytes of Base64 text decoded leniently (unknown characters decode to garbage, a "=" shortens
// its group and decoding goes on); nil when the text is empty or its length is not a multiple
// of 4.
std::optional<std::vector<uint8_t>> VkDecodeBase64(const std::string& text);

// Triple-DES CBC/PKCS#7 under the completed key (default key when keyData is nil or empty) and
// the default IV; nil for empty data, reserved != 0 or any cipher failure.
std::optional<std::vector<uint8_t>> VkCryptInter(
    const std::vector<uint8_t>& data, bool encrypt,
    const std::optional<std::vector<uint8_t>>& keyData = std::nullopt, int32_t reserved = 0);
// Triple-DES CBC/PKCS#7 with an explicit key and IV (for ciphers that carry their own IV);
// nil on any cipher failure.
std::optional<std::vector<uint8_t>> VkCryptInterWithIv(const std::vector<uint8_t>& data,
                                                       bool encrypt, const VkCipherKey& key,
                                                       const VkCipherIv& iv);

// Enciphers UTF-8 text to Base64 text, or deciphers Base64 text back to the text;
// keyString's UTF-8 bytes are the key. Nil for empty text, undecodable Base64, a cipher
// failure, and for text or plain bytes that are not UTF-8 or hold a zero byte.
std::optional<std::string> VkCrypt(const std::string& text, bool encrypt,
                                   const std::optional<std::string>& keyString = std::nullopt,
                                   int32_t reserved = 0);

// VkCrypt of the text under the default key, enciphering.
std::optional<std::string> vkEncryptString(const std::string& text);
// VkCrypt of the text under the default key, deciphering.
std::optional<std::string> vkDecryptString(const std::string& text);
