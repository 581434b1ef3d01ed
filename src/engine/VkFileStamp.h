#pragma once

#include <cstdint>
#include <ctime>
#include <sys/stat.h>

// Who a file or folder is and how it stands: device, inode, size, and the modification and
// status-change times in nanoseconds. Two equal stamps of one path mean the kernel noted no
// change in between: the status-change time is set by the kernel at every change (contents,
// entries, times, owner, links), save stores through a shared mapping into a page not yet
// written back (see VkHashCache), and only a change of the system clock can forge it.
struct VkFileStamp {
    uint64_t device = 0;
    uint64_t inode = 0;
    uint64_t size = 0;
    int64_t mtime = 0;
    int64_t ctime = 0;

    static VkFileStamp of(const struct stat& st) {
#ifdef __APPLE__
        const timespec &modified = st.st_mtimespec, &changed = st.st_ctimespec;
#else
        const timespec &modified = st.st_mtim, &changed = st.st_ctim;
#endif
        return {static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino),
                static_cast<uint64_t>(st.st_size), nanoseconds(modified), nanoseconds(changed)};
    }
    bool operator==(const VkFileStamp&) const = default;

    static int64_t nanoseconds(const timespec& t) {
        return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
    }
};
