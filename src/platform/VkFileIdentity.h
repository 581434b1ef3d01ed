#pragma once

#include <cstdint>
#include <sys/stat.h>

// Who a file is on this machine: its device and inode.
struct VkFileIdentity {
    uint64_t device = 0;
    uint64_t inode = 0;

    static VkFileIdentity of(const struct stat& st) {
        return {static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)};
    }
    bool operator==(const VkFileIdentity&) const = default;
};
