#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The running processes: ids and names.
class VkProcessList {
  public:
    virtual ~VkProcessList() = default;
    // Every process id, or nullopt when the listing fails.
    virtual std::optional<std::vector<int32_t>> listPids() = 0;
    // The short name of one process (as the kernel keeps it), or nullopt.
    virtual std::optional<std::string> processName(int32_t pid) = 0;
    // Every name the process goes by: the kernel's short name, which may be cut (15 bytes
    // on Linux, 16 on the Mac), and the full name of its executable. Empty when gone.
    virtual std::vector<std::string> processNames(int32_t pid) {
        auto name = processName(pid);
        return name ? std::vector<std::string>{*name} : std::vector<std::string>{};
    }
};

// Linux: /proc/<pid>/comm, exe and cmdline. macOS: libproc.
class VkSystemProcessList : public VkProcessList {
  public:
    std::optional<std::vector<int32_t>> listPids() override;
    std::optional<std::string> processName(int32_t pid) override;
    std::vector<std::string> processNames(int32_t pid) override;
};
