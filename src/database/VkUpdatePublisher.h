#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/VkDate.h"
#include "platform/VkPlist.h"
#include "platform/VkResult.h"

// Writes an update folder that any static HTTP server can serve to VkAddTorjanItems:
// OUTDIR/velkora_soft_upgrade_files/trojanupdate/ with the enciphered manifest "version.xml",
// its Ed25519 signature "version.xml.sig" when a key is given, and the database files beside
// it.
class VkUpdatePublisher {
  public:
    // The largest serial published: the largest integer a JSON reader keeps exact, and far
    // enough below the integer's limit that a serial never wraps. Clients refuse every manifest
    // below the largest serial they took, so one out of range would end all later updates.
    static constexpr int64_t kMaxSerial = (int64_t{1} << 53) - 1;

    // One database of the manifest.
    struct Entry {
        std::string name;     // from the file's description
        std::string version;  // from the file's description
        std::string webpath;  // the file name inside the manifest's folder
        std::string sha256;   // lower-case hex of the file
        uint64_t size = 0;
    };
    struct Options {
        std::optional<VkDate> date;
        // Grows with every publish; 0 picks the current time, or one more than the serial of
        // the manifest already in the folder when that is larger; at most kMaxSerial.
        int64_t serial = 0;
        // PEM text of the Ed25519 private key; empty publishes unsigned.
        std::string privateKeyPem;
    };
    struct Published {
        std::vector<Entry> entries;
        int64_t serial = 0;
        std::string signer;  // fingerprint of the signing key, "" when unsigned
    };

    // The manifest as a property list: the serial (when not 0), one dictionary per entry
    // ("name", "version", "webpath", and "sha256" and "size" when the hash is not empty), then
    // the date when there is one.
    static VkPlist manifest(const std::vector<Entry>& entries, std::optional<VkDate> date,
                            int64_t serial = 0);
    // The serial of the manifest in an update folder, 0 when there is none.
    static int64_t publishedSerial(const std::string& outDir);
    // The manifest as the server serves it: XML, enciphered with the manifest cipher.
    static std::vector<uint8_t> manifestBody(const VkPlist& manifest);
    // The folder below outDir that holds the manifest and the databases.
    static std::string updateFolder(const std::string& outDir);

    // Checks every database (an existing signature database with a plain "NAME.sql" file name
    // as VkAddTorjanItems::isPlainWebPath takes it, a name and a version, no file name or
    // database name twice), copies them into the update folder and then writes the signature
    // and the manifest, so that a server never lists a file that is not there yet. Returns what
    // was published, or why nothing (or not everything) was written.
    static VkResult<Published> publish(const std::string& outDir,
                                       const std::vector<std::string>& databases,
                                       const Options& options);
};
