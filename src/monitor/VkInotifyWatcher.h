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
// entries), added for subfolders as they appear. Bounded: at most kMaxWatches folders (and
// the kernel's own limit, fs.inotify.max_user_watches) and kMaxDepth levels below a watched
// folder; a folder past a bound is handed out as Unwatched. Events are read in chunks of
// kReadBytes.
class VkInotifyWatcher : public VkFileWatcher {
  public:
    static constexpr size_t kMaxWatches = 8192;
    static constexpr int kMaxDepth = 32;
    static constexpr size_t kReadBytes = 64 * 1024;

    // The bounds may be lowered (tests); they are never raised past the constants.
    static VkResult<std::unique_ptr<VkInotifyWatcher>> create(size_t maxWatches = kMaxWatches,
                                                              int maxDepth = kMaxDepth);

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

    VkInotifyWatcher(VkFd fd, size_t maxWatches, int maxDepth)
        : fd_(std::move(fd)), maxWatches_(maxWatches), maxDepth_(maxDepth) {}
    // False with refusal_ saying why (empty when the folder is simply gone).
    bool watchOne(const std::string& path, bool followLink, int depth);
    void refuse(const std::string& path, const std::string& reason);
    void watchTree(const std::string& path, int depth);
    void forgetWatch(int wd);
    void forgetBelow(const std::string& path, bool andItself);
    void readEvents();

    VkFd fd_;
    size_t maxWatches_;
    int maxDepth_;
    std::string refusal_;
    std::vector<std::string> roots_;
    std::map<int, Watch> byWd_;
    std::map<std::string, int> byPath_;
    std::deque<VkFileEvent> events_;
};

#endif
