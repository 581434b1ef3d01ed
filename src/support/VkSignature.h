#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/VkResult.h"

// Ed25519 signatures of published files (OpenSSL). Keys travel as PEM text: the private key as
// PKCS#8 ("BEGIN PRIVATE KEY"), the public key as SubjectPublicKeyInfo ("BEGIN PUBLIC KEY"),
// so that `openssl pkey` reads and writes the same files. A signature is the raw 64 bytes.
namespace VkSignature {

constexpr size_t kSignatureBytes = 64;

struct KeyPair {
    std::string privatePem;
    std::string publicPem;
};

VkResult<KeyPair> generateKeyPair();
// The signature of data under an Ed25519 private key.
VkResult<std::vector<uint8_t>> sign(const std::string& privatePem, const uint8_t* data,
                                    size_t size);
// The public key that belongs to a private key.
VkResult<std::string> publicKeyOf(const std::string& privatePem);
// Whether `signature` is this public key's signature of data. A key that is not Ed25519, a
// signature of the wrong length or any OpenSSL failure answers false.
bool verify(const std::string& publicPem, const uint8_t* data, size_t size,
            const std::vector<uint8_t>& signature);
// A short name for a public key: the first 16 hex digits of the SHA-256 of its 32 raw bytes;
// an error for text that is not an Ed25519 public key.
VkResult<std::string> fingerprint(const std::string& publicPem);

}  // namespace VkSignature
