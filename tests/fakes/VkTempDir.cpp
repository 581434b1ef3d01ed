#include "fakes/VkTempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

VkTempDir::VkTempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/vktest.XXXXXX";
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

VkTempDir::~VkTempDir() {
    std::error_code ec;
    // Restore permissions that a test may have taken away, so that cleanup succeeds.
    for (auto it = std::filesystem::recursive_directory_iterator(
             path_, std::filesystem::directory_options::skip_permission_denied, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec)) {
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ec);
        }
    }
    std::filesystem::remove_all(path_, ec);
}

std::string VkTempDir::operator/(const std::string& relative) const {
    return path_ + "/" + relative;
}

std::string VkTempDir::write(const std::string& relative, const std::string& contents) const {
    std::filesystem::path p = *this / relative;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    return p.string();
}

std::string VkTempDir::mkdir(const std::string& relative) const {
    std::filesystem::path p = *this / relative;
    std::filesystem::create_directories(p);
    return p.string();
}

std::map<std::string, uintmax_t> VkTempDir::snapshot() const {
    std::map<std::string, uintmax_t> out;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        bool file = it->is_regular_file(ec) && !it->is_symlink(ec);
        out[it->path().string()] = file ? it->file_size(ec) : 0;
    }
    return out;
}
