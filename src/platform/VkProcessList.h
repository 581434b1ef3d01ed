#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The running processes: ids and short names.
class VkProcessList {
  public:
    virtual ~VkProcessList() = default;
    // Every process id, or nullopt when the listing fails.
    virtual std::optional<std::vector<int32_t>> listPids() = 0;
    // The short name of one process (as the kernel keeps it), or nullopt.
    virtual std::optional<std::string> processName(int32_t pid) = 0;
};

// Linux: /proc/<pid>/comm. macOS: libproc.
class VkSystemProcessList : public VkProcessList {
  public:
    std::optional<std::vector<int32_t>> listPids() override;
    std::optional<std::string> processName(int32_t pid) override;
};
