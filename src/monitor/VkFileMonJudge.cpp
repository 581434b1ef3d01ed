#include "monitor/VkFileMonJudge.h"

#include <sys/stat.h>
#include <utility>

#include "database/VkSqliteManager.h"

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

}  // namespace

VkFileMonJudge::VkFileMonJudge(std::shared_ptr<VkContext> ctx)
    : ctx_(std::move(ctx)),
      scan_(ctx_->systemRoot, ctx_->dataFolder, ctx_->userDefaults, ctx_->pacing),
      records_(std::make_shared<const VkTorjanRecordList>()) {}

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
    records_ = VkTorjanRecordList::make(VkSqliteManager::loadAllRecords(ctx_));
    // A database written while it was being read changes its stamp again, and is read again
    // before the next file.
    stamp_ = std::move(stamp);
    return true;
}

std::shared_ptr<VkFileMonLogsItem> VkFileMonJudge::judge(const std::string& path) {
    reloadIfChanged();
    std::shared_ptr<VkTorjanResultItems> hit = scan_.checkTorjan(path, records_);
    if (!hit)
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
