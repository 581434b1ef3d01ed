#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

// The file reference of a path: here a path handle that the folder-icon code can use. The
// path is absolute with every link resolved; device and inode name the file it was made for.
struct VkFileRef {
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
};

// Size text of every list: "N Byte" up to 999, then KB, MB and GB with one decimal, switching
// unit at 1000 while dividing by 1024.
std::string stringFromFileSize(uint64_t size);

// Fills ref for the file or folder at path. A missing path gives false and creates nothing,
// unless createFileIfNecessary: then an empty file is written atomically first (and stays even
// when the reference cannot be made). True only when the reference was made.
bool getFSRef(const std::string& path, VkFileRef* ref, bool createFileIfNecessary);
