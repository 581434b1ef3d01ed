#include "support/VkSignature.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/VkTestBytes.h"
#include "support/VkCrypt.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string pem(const char* label, const std::string& derHex) {
    return std::string("-----BEGIN ") + label + "-----\n" + VkEncodeBase64(vkFromHex(derHex)) +
           "\n-----END " + label + "-----\n";
}

// The first test vector of RFC 8032 (section 7.1): a known key, the empty message and its
// signature, wrapped in the PKCS#8 and SubjectPublicKeyInfo headers for Ed25519.
const std::string kSeedHex = "9d61b19deffd5a60ba844af492ec2cc44449c5697b326919703bac031cae7f60";
const std::string kPublicHex = "d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a";
const std::string kSignatureHex =
    "e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e06522490155"
    "5fb8821590a33bacc61e39701cf9b46bd25bf5f0595bbe24655141438e7a100b";
const std::string kPrivatePem = pem("PRIVATE KEY", "302e020100300506032b657004220420" + kSeedHex);
const std::string kPublicPem = pem("PUBLIC KEY", "302a300506032b6570032100" + kPublicHex);

// A P-256 public key: valid PEM, wrong algorithm.
const std::string kEcPublicPem =
    "-----BEGIN PUBLIC KEY-----\n"
    "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAE9xrYBQ76OXbOylc+C/jntZ4EKe0G\n"
    "msHJufgVjgcLuybe1wmeCtNNVymYRDn6U1Vr4e5smS5bgx0mnfn/W93qzQ==\n"
    "-----END PUBLIC KEY-----\n";

TEST(VkSignatureTest, KnownAnswerAndRoundTrip) {
    auto signature = VkSignature::sign(kPrivatePem, nullptr, 0);
    ASSERT_TRUE(signature.ok()) << signature.error();
    EXPECT_EQ(*signature, vkFromHex(kSignatureHex));
    EXPECT_TRUE(VkSignature::verify(kPublicPem, nullptr, 0, vkFromHex(kSignatureHex)));
    auto derived = VkSignature::publicKeyOf(kPrivatePem);
    ASSERT_TRUE(derived.ok());
    EXPECT_EQ(*derived, kPublicPem);

    auto pair = VkSignature::generateKeyPair();
    ASSERT_TRUE(pair.ok());
    EXPECT_NE(*VkSignature::fingerprint(pair->publicPem), *VkSignature::fingerprint(kPublicPem));
}

// Whatever arrives from the server or a key folder: each answers "does not verify", never
// aborts and never accepts.
TEST(VkSignatureTest, HostileKeysAndSignaturesNeverVerify) {
    const Bytes good = vkFromHex(kSignatureHex);
    Bytes flipped = good, longer = good;
    flipped[10] ^= 1;
    longer.push_back(0);
    const uint8_t message[] = {'x'};
    struct Case {
        const char* name;
        std::string key;
        Bytes signature;
        bool withMessage;
    };
    const Case cases[] = {
        {"other message", kPublicPem, good, true},
        {"flipped signature bit", kPublicPem, flipped, false},
        {"63 bytes", kPublicPem, Bytes(good.begin(), good.end() - 1), false},
        {"65 bytes", kPublicPem, longer, false},
        {"empty signature", kPublicPem, {}, false},
        {"garbage key", "-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n", good,
         false},
        {"empty key", "", good, false},
        {"private key as public", kPrivatePem, good, false},
        {"P-256 key", kEcPublicPem, good, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(VkSignature::verify(c.key, c.withMessage ? message : nullptr,
                                         c.withMessage ? 1 : 0, c.signature));
    }
    EXPECT_FALSE(VkSignature::fingerprint(kEcPublicPem).ok());
    EXPECT_FALSE(VkSignature::fingerprint("not a key").ok());
    EXPECT_FALSE(VkSignature::sign("not a key", nullptr, 0).ok());
}

}  // namespace
