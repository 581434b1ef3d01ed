#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/VkDate.h"
#include "platform/VkPlist.h"
#include "platform/VkResult.h"

// Writes an update folder that any static HTTP server can serve to VkAddTorjanItems:
// OUTDIR/velkora_soft_upgrade_files/trojanupdate/ with the enciphered manifest "version.xml"
// and the database files beside it.
class VkUpdatePublisher {
  public:
    // One database of the manifest.
    struct Entry {
        std::string name;     // from the file's description
        std::string version;  // from the file's description
        std::string webpath;  // the file name inside the manifest's folder
        std::string sha256;   // lower-case hex of the file
    };

    // The manifest as a property list: one dictionary per entry ("name", "version",
    // "webpath", and "sha256" when not empty), then the date when there is one.
    static VkPlist manifest(const std::vector<Entry>& entries, std::optional<VkDate> date);
    // The manifest as the server serves it: XML, enciphered with the manifest cipher.
    static std::vector<uint8_t> manifestBody(const VkPlist& manifest);
    // The folder below outDir that holds the manifest and the databases.
    static std::string updateFolder(const std::string& outDir);

    // Checks every database (an existing signature database with a plain "NAME.sql" file name
    // as VkAddTorjanItems::isPlainWebPath takes it, a name and a version, no file name or
    // database name twice), copies them into the update folder and then writes the manifest, so
    // that a server never lists a file that is not there yet. Returns the manifest's entries, or
    // why nothing (or not everything) was written.
    static VkResult<std::vector<Entry>> publish(const std::string& outDir,
                                                const std::vector<std::string>& databases,
                                                std::optional<VkDate> date);
};
