#pragma once

#include <cstdint>
#include <map>
#include <string>

// A fresh folder under the system's temporary folder, removed with everything in it
// when the object goes away.
class VkTempDir {
  public:
    VkTempDir();
    ~VkTempDir();
    VkTempDir(const VkTempDir&) = delete;
    VkTempDir& operator=(const VkTempDir&) = delete;

    const std::string& path() const { return path_; }
    // path() joined with a relative path.
    std::string operator/(const std::string& relative) const;
    // Writes a file (creating parent folders) and returns its full path.
    std::string write(const std::string& relative, const std::string& contents) const;
    // Creates a folder (with parents) and returns its full path.
    std::string mkdir(const std::string& relative) const;
    // Every path below the folder with its size (links listed, never followed), to show
    // that an operation touched nothing.
    std::map<std::string, uintmax_t> snapshot() const;

  private:
    std::string path_;
};
