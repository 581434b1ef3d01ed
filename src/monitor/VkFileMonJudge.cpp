#include "monitor/VkFileMonJudge.h"

#include <sys/stat.h>
#include <utility>

#include "database/VkSqliteManager.h"
#include "engine/VkHashCache.h"
#include "platform/VkContainedFs.h"

#ifdef __APPLE__
#include <sys/xattr.h>
#endif

namespace {

struct Origin {
    std::optional<std::string> processName;
    std::optional<std::string> processPath;
};

// Who downloaded the file, as far as the platform records it. macOS keeps the downloading
// program's name in the quarantine attribute; Linux keeps no such thing (browsers record only
// the URL), so the record goes without.
Origin originOf([[maybe_unused]] const std::string& path) {
    Origin origin;
#ifdef __APPLE__
    char value[1024];
    ssize_t n = ::getxattr(path.c_str(), "com.apple.quarantine", value, sizeof value - 1, 0,
                           XATTR_NOFOLLOW);
    if (n > 0)
        origin.processName = VkFileMonJudge::agentFromQuarantine(std::string(value, n));
#endif
    return origin;
}

// The identity of the file at path when it is reached from root without following any link
// below root, and path (as the kernel resolves it) names that same file; nullopt otherwise.
std::optional<std::pair<dev_t, ino_t>> reachedWithoutLinks(const std::string& root,
                                                           const std::string& path) {
    auto entry = VkContainedFs(root).openParent(path);
    if (!entry)
        return std::nullopt;
    auto inside = VkContainedFs::statEntry(*entry);
    struct stat named {};
    if (!inside || ::lstat(path.c_str(), &named) != 0 || inside->st_dev != named.st_dev ||
        inside->st_ino != named.st_ino)
        return std::nullopt;
    return std::make_pair(inside->st_dev, inside->st_ino);
}

}  // namespace

VkFileMonJudge::VkFileMonJudge(std::shared_ptr<VkContext> ctx)
    : ctx_(std::move(ctx)),
      scan_(ctx_->systemRoot, ctx_->dataFolder, ctx_->userDefaults, ctx_->pacing),
      records_(std::make_shared<const VkTorjanRecordList>()) {
    // Shared with the scans: a file the monitor judged is not read again by a scan, nor the
    // other way round, while it stands unchanged.
    scan_.setHashCache(std::make_shared<VkHashCache>(ctx_->dataPath(VkHashCache::kFileName)));
}

std::string VkFileMonJudge::databaseStamp() const {
    std::string stamp;
    for (const std::string& path : VkSqliteManager::contentFilesOfPath(ctx_->dataFolder)) {
        struct stat st {};
        stamp += path;
        if (::stat(path.c_str(), &st) == 0) {
#ifdef __APPLE__
            const timespec& mtime = st.st_mtimespec;
#else
            const timespec& mtime = st.st_mtim;
#endif
            stamp += ':' + std::to_string(st.st_dev) + ':' + std::to_string(st.st_ino) + ':' +
                     std::to_string(st.st_size) + ':' + std::to_string(mtime.tv_sec) + '.' +
                     std::to_string(mtime.tv_nsec);
        }
        stamp += '\n';
    }
    return stamp;
}

bool VkFileMonJudge::reloadIfChanged() {
    std::string stamp = databaseStamp();
    if (stamp_ && *stamp_ == stamp)
        return false;
    failed_.clear();
    records_ = VkTorjanRecordList::make(VkSqliteManager::loadAllRecords(ctx_, nullptr, &failed_));
    if (auto cache = scan_.hashCache())
        cache->prune();
    // A database written while it was being read changes its stamp again, and is read again
    // before the next file.
    stamp_ = std::move(stamp);
    return true;
}

std::shared_ptr<VkFileMonLogsItem> VkFileMonJudge::judge(const std::string& path, bool* unchanged,
                                                         const std::string& watchedRoot,
                                                         std::optional<VkNotExamined>* skipped) {
    if (unchanged)
        *unchanged = false;
    std::optional<VkNotExamined> ownSkipped;
    std::optional<VkNotExamined>& why = skipped ? *skipped : ownSkipped;
    why.reset();
    // New records may find what the old ones did not.
    if (reloadIfChanged())
        judged_.clear();
    std::optional<std::pair<dev_t, ino_t>> reached;
    if (!watchedRoot.empty()) {
        reached = reachedWithoutLinks(watchedRoot, path);
        if (!reached)
            return nullptr;  // no longer in the watched folder (or gone)
    }
    struct stat before {};
    bool known = ::lstat(path.c_str(), &before) == 0 && S_ISREG(before.st_mode);
#ifdef __APPLE__
    Seen seen{before.st_dev, before.st_ino, before.st_size, before.st_mtimespec,
              before.st_ctimespec};
#else
    Seen seen{before.st_dev, before.st_ino, before.st_size, before.st_mtim, before.st_ctim};
#endif
    auto same = [](const timespec& a, const timespec& b) {
        return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
    };
    if (known) {
        auto it = judged_.find(path);
        if (it != judged_.end() && it->second.dev == seen.dev && it->second.ino == seen.ino &&
            it->second.size == seen.size && same(it->second.mtime, seen.mtime) &&
            same(it->second.ctime, seen.ctime)) {
            if (unchanged)
                *unchanged = true;
            return nullptr;
        }
    }
    std::shared_ptr<VkTorjanResultItems> hit = scan_.checkTorjan(path, records_, &why);
    // Written at once: the monitor may run for days between two quiet moments.
    if (auto cache = scan_.hashCache())
        cache->flush();
    // Taken before judging: a change made while it was judged moves the times, and the file
    // is judged again when it is next seen.
    // What was not read whole is looked at again whenever it is seen.
    if (known && !why) {
        if (judged_.size() >= kMaxRemembered && !judged_.count(path))
            judged_.clear();
        judged_[path] = seen;
    }
    if (!hit)
        return nullptr;
    // Swapped while it was read: what was read may not be the file inside.
    if (reached && reachedWithoutLinks(watchedRoot, path) != reached)
        return nullptr;
    auto item = std::make_shared<VkFileMonLogsItem>();
    // A member of a downloaded archive is logged as ARCHIVE!MEMBER.
    item->setFilePath(hit->shownPath());
    item->setTrojanName(hit->displayName());
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
#ifdef __APPLE__
        const timespec& mtime = st.st_mtimespec;
#else
        const timespec& mtime = st.st_mtim;
#endif
        item->setDownLoadTime(VkDate{static_cast<double>(mtime.tv_sec) + mtime.tv_nsec / 1e9});
    } else {
        item->setDownLoadTime(ctx_->clock->date());
    }
    item->setLogTime(ctx_->clock->date());
    Origin origin = originOf(path);
    item->setProcessName(origin.processName);
    item->setProcessPath(origin.processPath);
    return item;
}

std::optional<std::string> VkFileMonJudge::agentFromQuarantine(const std::string& value) {
    size_t first = value.find(';');
    if (first == std::string::npos)
        return std::nullopt;
    size_t second = value.find(';', first + 1);
    if (second == std::string::npos)
        return std::nullopt;
    size_t third = value.find(';', second + 1);
    std::string agent = value.substr(
        second + 1, third == std::string::npos ? std::string::npos : third - second - 1);
    if (agent.empty())
        return std::nullopt;
    return agent;
}
