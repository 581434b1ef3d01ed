#pragma once

#include <string>
#include <vector>

// Archives made in memory with libarchive's writer, for tests, benchmarks and fuzz seeds.
struct VkTestMember {
    std::string name;
    std::string data;
};

// format: "zip", "7zip", "ustar", "cpio" (newc), "xar"; filter: "", "gzip", "xz", "bzip2".
// options are libarchive writer options ("zip:compression=store", "zip:encryption=...");
// a passphrase encrypts where the format can. Empty on failure.
std::string vkMakeArchive(const std::string& format, const std::string& filter,
                          const std::vector<VkTestMember>& members, const std::string& options = {},
                          const std::string& passphrase = {});
// A single gzip stream of data.
std::string vkGzip(const std::string& data);
// data wrapped as pbzx: one xz chunk per chunkSize bytes.
std::string vkPbzx(const std::string& data, size_t chunkSize);
