#include "remediation/VkQuarantineFileManager.h"

#include <algorithm>
#include <ctime>
#include <sys/stat.h>

#include "platform/VkFileUtil.h"

namespace {

// The localised medium time of `seconds` ("3:04:05 PM" or "15:04:05"), with ":" made
// "." so that it can stand in a file name.
std::string fileNameTime(double seconds) {
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm local{};
    ::localtime_r(&t, &local);
    char buf[64] = {};
    if (std::strftime(buf, sizeof buf, "%X", &local) == 0)
        return "";
    std::string text = buf;
    std::replace(text.begin(), text.end(), ':', '.');
    return text;
}

}  // namespace

VkQuarantineFileManager::VkQuarantineFileManager(std::shared_ptr<VkContext> context)
    : context_(std::move(context)) {
    std::string folder = quarantineFolder();
    bool isDir = false;
    if (!VkFile::exists(folder, &isDir) || !isDir) {
        // Created without parents, as the store has always done. The custom Finder icon
        // of the original has no counterpart here and is left out.
        ::mkdir(folder.c_str(), 0700);
    }
    // Quarantined files are malware: nobody but the owner may read them. Only a real
    // folder is tightened; a link's target is left alone.
    struct stat st {};
    if (::lstat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & 07777) != 0700)
        ::chmod(folder.c_str(), 0700);

    auto list = VkPlist::readFile(infoListPath(), 64u << 20);
    if (list && list->asArray()) {
        for (const auto& element : *list->asArray()) {
            if (!element.isDictionary())
                continue;
            quarantineItemArray_.push_back(std::make_shared<VkQuarantineFileItem>(element));
        }
    }
}

std::shared_ptr<VkQuarantineFileManager> VkQuarantineFileManager::shareManager() {
    static std::shared_ptr<VkQuarantineFileManager> shared =
        std::make_shared<VkQuarantineFileManager>(VkContext::defaultContext());
    return shared;
}

std::string VkQuarantineFileManager::quarantineFolder() const {
    return context_->dataPath("trojan_Quarantine");
}

std::string VkQuarantineFileManager::infoListPath() const {
    return VkFile::join(quarantineFolder(), "info.list");
}

std::string VkQuarantineFileManager::candidatePathFor(const std::string& originalPath) const {
    std::string last = VkFile::lastPathComponent(originalPath);
    std::string base = VkFile::deletingPathExtension(last);
    std::string ext = VkFile::pathExtension(last);
    std::string folder = quarantineFolder();
    std::string name = base;
    for (int n = 0;; ++n) {
        // A name without an extension gets no trailing ".".
        std::string candidate = VkFile::join(folder, ext.empty() ? name : name + "." + ext);
        if (!VkFile::existsNoFollow(candidate))
            return candidate;
        // Rebuilt from the base each time, with the time read afresh on every pass.
        std::string time = fileNameTime(context_->clock->now());
        name = n == 0 ? base + " " + time : base + " " + time + " " + std::to_string(n);
    }
}

bool VkQuarantineFileManager::addItem(const std::shared_ptr<VkQuarantineFileItem>& item) {
    if (!item || !item->originalPath())
        return false;
    std::string candidate = candidatePathFor(*item->originalPath());
    if (!context_->coreFunction->moveFileItem(*item->originalPath(), candidate))
        return false;
    item->setFilePath(candidate);
    quarantineItemArray_.push_back(item);
    saveQuarantineInfoList();
    return true;
}

bool VkQuarantineFileManager::holdsFile(const std::string& path) const {
    for (const auto& part : VkFile::components(path)) {
        if (part == "..")
            return false;
    }
    std::string name = VkFile::lastPathComponent(path);
    return !name.empty() && name != "." && name != "info.list" &&
           VkFile::deletingLastPathComponent(path) == quarantineFolder();
}

bool VkQuarantineFileManager::recoverItem(const std::shared_ptr<VkQuarantineFileItem>& item) {
    if (!item || !item->filePath() || !item->originalPath())
        return false;
    // "info.list" is plain text in the user's folder: a record naming a file elsewhere is
    // never acted on.
    if (!holdsFile(*item->filePath()))
        return false;
    if (!context_->coreFunction->moveFileItem(*item->filePath(), *item->originalPath())) {
        return false;
    }
    std::erase(quarantineItemArray_, item);
    saveQuarantineInfoList();
    return true;
}

bool VkQuarantineFileManager::removeItem(const std::shared_ptr<VkQuarantineFileItem>& item) {
    if (!item)
        return false;
    std::erase(quarantineItemArray_, item);
    bool removed = false;
    if (item->filePath() && holdsFile(*item->filePath())) {
        auto outcome = context_->coreFunction->startClean({*item->filePath()}, false, nullptr);
        removed = !outcome.empty() && outcome[0].removed;
    }
    saveQuarantineInfoList();
    return removed;
}

void VkQuarantineFileManager::removeAllItem() {
    quarantineItemArray_.clear();
    saveQuarantineInfoList();
}

bool VkQuarantineFileManager::saveQuarantineInfoList() {
    VkPlist::Array list;
    list.reserve(quarantineItemArray_.size());
    for (const auto& item : quarantineItemArray_)
        list.push_back(item->convertToDict());
    // Written to a temporary file and renamed over the old list: there is never a moment
    // without a list on disk.
    auto bytes = VkPlist(std::move(list)).toXml();
    return VkFile::writeAtomically(infoListPath(), bytes, 0600).ok();
}
