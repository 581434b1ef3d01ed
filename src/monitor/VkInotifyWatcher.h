#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

#include "monitor/VkFileWatcher.h"
#include "platform/VkHandle.h"

#ifdef __linux__

// The Linux watcher: one inotify watch per folder (the kernel reports only a folder's own
// entries), added for subfolders as they appear. Bounded: at most kMaxWatches folders and
// kMaxDepth levels below a watched folder; events are read in chunks of kReadBytes.
class VkInotifyWatcher : public VkFileWatcher {
  public:
    static constexpr size_t kMaxWatches = 8192;
    static constexpr int kMaxDepth = 32;
    static constexpr size_t kReadBytes = 64 * 1024;

    static VkResult<std::unique_ptr<VkInotifyWatcher>> create();

    VkResult<void> addFolder(const std::string& folder) override;
    void removeFolder(const std::string& folder) override;
    std::vector<std::string> folders() const override;
    int fd() const override { return fd_.get(); }
    std::optional<VkFileEvent> nextEvent() override;
    bool hasBuffered() const override { return !events_.empty(); }

    // Number of folders watched, subfolders included.
    size_t watchCount() const { return byWd_.size(); }

  private:
    struct Watch {
        std::string path;
        dev_t dev = 0;
        ino_t ino = 0;
        int depth = 0;  // levels below the folder given to addFolder
    };

    explicit VkInotifyWatcher(VkFd fd) : fd_(std::move(fd)) {}
    bool watchOne(const std::string& path, bool followLink, int depth);
    void watchTree(const std::string& path, int depth);
    void forgetWatch(int wd);
    void forgetBelow(const std::string& path, bool andItself);
    void readEvents();

    VkFd fd_;
    std::vector<std::string> roots_;
    std::map<int, Watch> byWd_;
    std::map<std::string, int> byPath_;
    std::deque<VkFileEvent> events_;
};

#endif
