#include "support/VkSignature.h"

#include <array>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "platform/VkHandle.h"

namespace {

using Key = VkHandle<EVP_PKEY, EVP_PKEY_free>;
using Bio = VkHandle<BIO, BIO_free_all>;
using MdContext = VkHandle<EVP_MD_CTX, EVP_MD_CTX_free>;

// OpenSSL's reason for the last failure, and its queue emptied for the next call.
std::string opensslError(const std::string& what) {
    unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0)
        return what;
    std::array<char, 256> text{};
    ERR_error_string_n(code, text.data(), text.size());
    return what + " (" + text.data() + ")";
}

Bio memoryOf(const std::string& text) {
    // Bounded by the caller's file limits; PEM keys are a few hundred bytes.
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::string textOf(BIO* bio) {
    char* data = nullptr;
    long length = BIO_get_mem_data(bio, &data);
    return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

bool isEd25519(const Key& key) {
    return key && EVP_PKEY_get_id(key.get()) == EVP_PKEY_ED25519;
}

Key readPublic(const std::string& pem) {
    Bio bio = memoryOf(pem);
    Key key(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    return isEd25519(key) ? std::move(key) : Key();
}

Key readPrivate(const std::string& pem) {
    Bio bio = memoryOf(pem);
    // No passphrase callback: an encrypted key fails instead of prompting on the terminal.
    Key key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, const_cast<char*>(""))
                : nullptr);
    ERR_clear_error();
    return isEd25519(key) ? std::move(key) : Key();
}

VkResult<std::string> publicPemOf(EVP_PKEY* key) {
    Bio out(BIO_new(BIO_s_mem()));
    if (!out || PEM_write_bio_PUBKEY(out.get(), key) != 1)
        return VkError{opensslError("cannot write the public key")};
    return textOf(out.get());
}

}  // namespace

namespace VkSignature {

VkResult<KeyPair> generateKeyPair() {
    Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    if (!key)
        return VkError{opensslError("cannot make an Ed25519 key")};
    Bio out(BIO_new(BIO_s_mem()));
    if (!out ||
        PEM_write_bio_PrivateKey(out.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
        return VkError{opensslError("cannot write the private key")};
    auto publicPem = publicPemOf(key.get());
    if (!publicPem)
        return VkError{publicPem.error()};
    return KeyPair{textOf(out.get()), *publicPem};
}

VkResult<std::vector<uint8_t>> sign(const std::string& privatePem, const uint8_t* data,
                                    size_t size) {
    Key key = readPrivate(privatePem);
    if (!key)
        return VkError{"not an unencrypted Ed25519 private key in PEM form"};
    MdContext context(EVP_MD_CTX_new());
    std::vector<uint8_t> signature(kSignatureBytes);
    size_t length = signature.size();
    // Ed25519 signs the message itself: no digest is named.
    if (!context || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
        EVP_DigestSign(context.get(), signature.data(), &length, data, size) != 1 ||
        length != kSignatureBytes)
        return VkError{opensslError("cannot sign")};
    return signature;
}

VkResult<std::string> publicKeyOf(const std::string& privatePem) {
    Key key = readPrivate(privatePem);
    if (!key)
        return VkError{"not an unencrypted Ed25519 private key in PEM form"};
    return publicPemOf(key.get());
}

bool verify(const std::string& publicPem, const uint8_t* data, size_t size,
            const std::vector<uint8_t>& signature) {
    if (signature.size() != kSignatureBytes)
        return false;
    Key key = readPublic(publicPem);
    if (!key)
        return false;
    MdContext context(EVP_MD_CTX_new());
    bool good =
        context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
        EVP_DigestVerify(context.get(), signature.data(), signature.size(), data, size) == 1;
    ERR_clear_error();
    return good;
}

VkResult<std::string> fingerprint(const std::string& publicPem) {
    Key key = readPublic(publicPem);
    if (!key)
        return VkError{"not an Ed25519 public key in PEM form"};
    std::array<uint8_t, 32> raw{};
    size_t length = raw.size();
    std::array<uint8_t, 32> digest{};
    unsigned int digestLength = 0;
    if (EVP_PKEY_get_raw_public_key(key.get(), raw.data(), &length) != 1 ||
        EVP_Digest(raw.data(), length, digest.data(), &digestLength, EVP_sha256(), nullptr) != 1)
        return VkError{opensslError("cannot read the public key")};
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < 8; ++i) {
        text.push_back(kHex[digest[i] >> 4]);
        text.push_back(kHex[digest[i] & 0x0F]);
    }
    return text;
}

}  // namespace VkSignature
