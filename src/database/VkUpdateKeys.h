#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The public keys an update manifest may be signed with: every "*.pub" file (an Ed25519 public
// key in PEM form) of the given folders, normally the one shipped in the resources and the
// administrator's. Two keys are trusted at once while a publisher switches to a new one.
class VkUpdateKeys {
  public:
    struct Key {
        std::string path;
        std::string pem;
        std::string fingerprint;
    };

    // Missing folders are no error; files that are not keys are left out and listed in
    // skipped() with the reason.
    static VkUpdateKeys load(const std::vector<std::string>& folders);

    const std::vector<Key>& keys() const { return keys_; }
    const std::vector<std::string>& skipped() const { return skipped_; }
    // The key whose signature of data `signature` is, if any.
    std::optional<Key> signerOf(const std::vector<uint8_t>& data,
                                const std::vector<uint8_t>& signature) const;

  private:
    std::vector<Key> keys_;
    std::vector<std::string> skipped_;
};
