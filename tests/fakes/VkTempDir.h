#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>

// A fresh folder under the system's temporary folder, removed with everything in it
// when the object goes away.
class VkTempDir {
  public:
    VkTempDir() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/vktest.XXXXXX";
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~VkTempDir() {
        namespace fs = std::filesystem;
        std::error_code ec;
        // Restore permissions that a test may have taken away, so that cleanup succeeds.
        for (auto it = fs::recursive_directory_iterator(
                 path_, fs::directory_options::skip_permission_denied, ec);
             !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
            if (it->is_directory(ec) && !it->is_symlink(ec))
                fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
        }
        fs::remove_all(path_, ec);
    }
    VkTempDir(const VkTempDir&) = delete;
    VkTempDir& operator=(const VkTempDir&) = delete;

    const std::string& path() const { return path_; }
    // path() joined with a relative path.
    std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }
    // Writes a file (creating parent folders) and returns its full path.
    std::string write(const std::string& relative, const std::string& contents) const {
        std::filesystem::path p = *this / relative;
        std::filesystem::create_directories(p.parent_path());
        std::ofstream out(p, std::ios::binary | std::ios::trunc);
        out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
        return p.string();
    }
    // Creates a folder (with parents) and returns its full path.
    std::string mkdir(const std::string& relative) const {
        std::filesystem::create_directories(*this / relative);
        return *this / relative;
    }
    // Every path below the folder with its size (links listed, never followed), to show
    // that an operation touched nothing.
    std::map<std::string, uintmax_t> snapshot() const {
        std::map<std::string, uintmax_t> out;
        std::error_code ec;
        for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
            bool file = it->is_regular_file(ec) && !it->is_symlink(ec);
            out[it->path().string()] = file ? it->file_size(ec) : 0;
        }
        return out;
    }

  private:
    std::string path_;
};
