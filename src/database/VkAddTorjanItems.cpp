#include "database/VkAddTorjanItems.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <utility>

#include "database/VkManifestCipher.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHashValue.h"

namespace {

// The file name as one URL path segment: unreserved characters and the sub-delimiters that a
// path may hold stay, everything else (blanks, "%", "?", "#", non-ASCII bytes) is escaped.
std::string urlPathSegment(const std::string& name) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : name) {
        if (std::isalnum(c) || std::string_view("-._~!$&'()*+,;=:@").find(static_cast<char>(c)) !=
                                   std::string_view::npos) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0x0F]);
        }
    }
    return out;
}

std::string lowerCase(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// A name for a download in progress: beside its target, never taken for a database (it does
// not end in ".sql"), and unique to this process and call.
std::string partialName(const std::string& webpath) {
    static std::atomic<unsigned> counter{0};
    return "." + webpath + ".part." + std::to_string(::getpid()) + "." +
           std::to_string(counter.fetch_add(1));
}

std::string stringMember(const VkPlist& dictionary, const char* key) {
    const std::string* value = dictionary.getString(key);
    return value ? *value : std::string();
}

}  // namespace

VkAddTorjanItems::VkAddTorjanItems(std::shared_ptr<VkContext> ctx,
                                   std::shared_ptr<VkHttpClient> http)
    : ctx_(std::move(ctx)),
      http_(http ? std::move(http) : std::make_shared<VkCurlHttpClient>()),
      pacing_(ctx_->pacing ? ctx_->pacing : std::make_shared<VkPacing>()),
      sqliteManager_(ctx_) {
    installPackagedFiles();
}

VkAddTorjanItems::~VkAddTorjanItems() {
    stopUpdateNotification();
}

void VkAddTorjanItems::installPackagedFiles() {
    std::vector<std::string> packaged =
        VkSqliteManager::contentFilesOfPath(VkFile::join(ctx_->resourceFolder, "trojanDB"));
    if (packaged.empty())
        return;
    bool isDirectory = false;
    if (!VkFile::exists(ctx_->dataFolder, &isDirectory) || !isDirectory) {
        // Without missing parents, as the system has always done: a data folder in a place
        // that does not exist is not ours to make up.
        if (!VkFile::createDirectory(ctx_->dataFolder, false))
            return;
    }
    std::lock_guard lock(sqliteMutex_);
    for (const std::string& source : packaged) {
        std::string target = ctx_->dataPath(VkFile::lastPathComponent(source));
        if (VkFile::existsNoFollow(target)) {
            auto installed = sqliteManager_.dataBaseForPath(target);
            auto bundled = sqliteManager_.dataBaseForPath(source);
            // An unreadable file compares as the same version: the installed one stays.
            if (!installed || !bundled || installed->compareVersion(*bundled) >= 0)
                continue;
            VkFile::removeTree(target);
        }
        VkFile::copyFile(source, target);
    }
}

bool VkAddTorjanItems::isPlainWebPath(const std::string& webpath) {
    // A whitelist rather than a list of dangers: the name becomes a URL segment and a file
    // name in the staging folder, and only "*.sql" files there are ever applied.
    static constexpr std::string_view kSuffix = ".sql";
    if (webpath.size() <= kSuffix.size() || webpath.size() > 255 || webpath.front() == '.' ||
        webpath.compare(webpath.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0 ||
        webpath.find("..") != std::string::npos) {
        return false;
    }
    for (unsigned char c : webpath) {
        if (!std::isalnum(c) && c != '.' && c != '-' && c != '_' && c != '+')
            return false;
    }
    return true;
}

std::optional<VkPlist::Array> VkAddTorjanItems::arrayWithContentsOfData(
    const std::vector<uint8_t>& data) {
    auto parsed = VkPlist::parse(data.data(), data.size());
    if (!parsed.ok() || !parsed->isArray())
        return std::nullopt;
    return *parsed->asArray();
}

std::string VkAddTorjanItems::serverBase() const {
    std::string base = ctx_->updateServer;
    while (!base.empty() && base.back() == '/')
        base.pop_back();
    return base;
}

std::string VkAddTorjanItems::manifestUrl() const {
    return serverBase() + kManifestFolder + kManifestName;
}

std::string VkAddTorjanItems::stagingFolder() const {
    return ctx_->dataPath("temp");
}

std::optional<VkDate> VkAddTorjanItems::updateDate() const {
    std::lock_guard lock(stateMutex_);
    return updateDate_;
}

VkUpdateReport VkAddTorjanItems::checkUpdateOnce() {
    std::lock_guard checking(checkMutex_);
    VkUpdateReport report;
    report.manifestUrl = manifestUrl();

    std::optional<VkPlist::Array> manifest;
    auto body = http_->get(report.manifestUrl, kMaxManifestBytes, &stopLoop_);
    if (!body.ok()) {
        report.failure = VkUpdateReport::Failure::Fetch;
        report.error = body.error();
    } else if (auto plain = VkManifestCipher::decrypt(*body); !plain) {
        report.failure = VkUpdateReport::Failure::Decipher;
        report.error = report.manifestUrl + ": the manifest does not decipher";
    } else if (manifest = arrayWithContentsOfData(*plain); !manifest) {
        report.failure = VkUpdateReport::Failure::Parse;
        report.error = report.manifestUrl + ": the manifest is not a property-list array";
    }
    report.success = manifest.has_value();
    updateSuccess_ = report.success;
    if (!manifest || manifest->empty())
        return report;

    struct Known {
        std::string name;
        std::shared_ptr<VkDataBaseInfo> info;
    };
    std::vector<Known> known;
    {
        std::lock_guard lock(sqliteMutex_);
        // Staged files first: a file staged but not yet applied counts as known, so it is not
        // fetched again unless the manifest has a newer one.
        std::vector<std::string> paths = sqliteManager_.dataBaseTempPaths();
        for (std::string& path : sqliteManager_.dataBasePaths())
            paths.push_back(std::move(path));
        for (const std::string& path : paths) {
            if (auto info = sqliteManager_.dataBaseForPath(path))
                known.push_back({info->name().value_or(""), info});
        }
    }

    // Set once for the whole manifest and never reset between entries: an entry without a
    // local namesake inherits what the entries before it left. Kept on purpose: it is how
    // the update has always decided, and the server's manifests are written for it.
    bool found = false;
    bool newer = false;
    const std::string folderUrl = serverBase() + kManifestFolder;
    for (const VkPlist& element : *manifest) {
        if (!element.isDictionary())
            continue;
        VkUpdateReport::Entry entry;
        const std::string* name = element.getString("name");
        entry.name = name ? *name : std::string();
        entry.version = stringMember(element, "version");
        entry.webpath = stringMember(element, "webpath");
        const VkPlist* version = element.get("version");
        VkDataBaseInfo offered(entry.name, version && version->isString()
                                               ? std::optional<std::string>(entry.version)
                                               : std::nullopt);
        for (const Known& local : known) {
            if (!name || local.name != *name || !local.info->name())
                continue;
            found = true;
            // The last namesake in the list decides.
            newer = offered.compareVersion(*local.info) > 0;
            entry.localVersion = local.info->version();
        }
        if (found && !newer) {
            entry.action = VkUpdateReport::Action::NotNewer;
            report.entries.push_back(std::move(entry));
            continue;
        }
        if (!isPlainWebPath(entry.webpath)) {
            entry.action = VkUpdateReport::Action::BadWebPath;
            report.entries.push_back(std::move(entry));
            continue;
        }
        stageDownload(folderUrl + urlPathSegment(entry.webpath), element, entry);
        report.entries.push_back(std::move(entry));
    }
    // Only a date in the last place counts; otherwise the previous date stays.
    if (manifest->back().isDate()) {
        report.manifestDate = manifest->back().asDate();
        std::lock_guard lock(stateMutex_);
        updateDate_ = report.manifestDate;
    }
    return report;
}

void VkAddTorjanItems::stageDownload(const std::string& url, const VkPlist& element,
                                     VkUpdateReport::Entry& entry) {
    std::string folder = stagingFolder();
    if (!VkFile::createDirectory(folder, true)) {
        entry.action = VkUpdateReport::Action::WriteFailed;
        entry.detail = folder + ": cannot be created";
        return;
    }
    // Streamed into a file of its own beside the target and renamed into place once whole and
    // checked: the scan center may apply staged files while this loop writes, and must never
    // move half a database; nor is a database ever held whole in memory.
    std::string partial = VkFile::join(folder, partialName(entry.webpath));
    auto file = http_->download(url, partial, kMaxDatabaseBytes, &stopLoop_);
    if (!file.ok()) {
        entry.action = VkUpdateReport::Action::DownloadFailed;
        entry.detail = file.error();
        return;
    }
    if (const VkPlist* sha = element.get("sha256")) {
        auto digest = VkHashValue::hashFile(partial, *file, 2);
        const std::string* expected = sha->asString();
        if (!digest || !expected || lowerCase(*expected) != *digest) {
            ::unlink(partial.c_str());
            entry.action = VkUpdateReport::Action::ChecksumMismatch;
            entry.detail = "SHA-256 " + digest.value_or("?") + " instead of " +
                           (expected ? *expected : std::string("(not a string)"));
            return;
        }
    }
    std::string target = VkFile::join(folder, entry.webpath);
    if (std::rename(partial.c_str(), target.c_str()) != 0) {
        entry.action = VkUpdateReport::Action::WriteFailed;
        entry.detail = target + ": cannot be replaced: " + std::strerror(errno);
        ::unlink(partial.c_str());
        return;
    }
    entry.action = VkUpdateReport::Action::Downloaded;
    entry.stagedPath = target;
}

void VkAddTorjanItems::tellWaitingDelegate() {
    std::shared_ptr<VkAddTorjanDelegate> delegate;
    std::optional<VkDate> date;
    {
        std::lock_guard lock(stateMutex_);
        if (!torjanDelegate_)
            return;
        delegate = std::exchange(torjanDelegate_, nullptr);
        date = updateDate_;
        // Cleared before the call, not after: a request made while the delegate runs must
        // not be lost.
        isContinueLoop_ = false;
    }
    delegate->updateTrojanData(updateSuccess_.load(), date);
}

void VkAddTorjanItems::waitForRequest() {
    const uint64_t limit = updateSuccess_ ? kSuccessWaitTicks : kFailureWaitTicks;
    // Kept exactly as the system waits: without a pending request only a stop ends the wait
    // (the next check comes when a caller asks, not by the clock), and the limit merely holds
    // a request back for one more tick when the count equals it.
    while (true) {
        if (isContinueLoop_ && loopCount_ != limit)
            break;
        pacing_->sleepSeconds(sleepTime_.load());
        ++loopCount_;
        if (stopLoop_)
            break;
    }
    loopCount_ = 0;
}

void VkAddTorjanItems::checkDataBaseLoop() {
    if (stopLoop_)
        return;
    while (true) {
        checkUpdateOnce();
        tellWaitingDelegate();
        waitForRequest();
        if (stopLoop_)
            return;
    }
}

void VkAddTorjanItems::startUpdateNotification(double tickSeconds) {
    sleepTime_ = tickSeconds;
    std::lock_guard lock(threadMutex_);
    if (loopThread_.joinable() || stopLoop_)
        return;
    loopThread_ = std::thread([this] { checkDataBaseLoop(); });
}

void VkAddTorjanItems::stopUpdateNotification() {
    stopLoop_ = true;
    {
        std::lock_guard lock(threadMutex_);
        // A loop that was never started counts as finished.
        if (loopThread_.joinable()) {
            if (loopThread_.get_id() == std::this_thread::get_id())
                loopThread_.detach();  // asked from a delegate call on the loop itself
            else
                loopThread_.join();
        }
    }
    std::lock_guard lock(stateMutex_);
    torjanDelegate_.reset();
}

void VkAddTorjanItems::startUpdate(std::shared_ptr<VkAddTorjanDelegate> delegate) {
    if (!delegate)
        return;
    bool threadExists = false;
    {
        std::lock_guard lock(threadMutex_);
        threadExists = loopThread_.joinable();
    }
    if (stopLoop_) {
        // The loop never runs again on this instance; leaving the caller waiting forever
        // would help nobody.
        delegate->updateTrojanData(false, updateDate());
        return;
    }
    if (!threadExists) {
        {
            std::lock_guard lock(stateMutex_);
            torjanDelegate_ = std::move(delegate);
        }
        startUpdateNotification(kDefaultTickSeconds);
        return;
    }
    uint64_t count = loopCount_;
    if (count >= 1 && count <= 9 && updateSuccess_) {
        delegate->updateTrojanData(true, updateDate());
        return;
    }
    std::lock_guard lock(stateMutex_);
    // Stored before the flag is raised, so the check that the flag starts finds it.
    torjanDelegate_ = std::move(delegate);
    isContinueLoop_ = true;
}

std::vector<std::string> VkAddTorjanItems::copyToLocalPath() {
    std::vector<std::string> installed;
    std::string folder = stagingFolder();
    auto names = VkFile::listDirectory(folder);
    if (!names.ok())
        return installed;
    for (const std::string& name : *names) {
        std::string staged = VkFile::join(folder, name);
        if (staged.size() < 4 || staged.compare(staged.size() - 4, 4, ".sql") != 0)
            continue;
        std::string target = ctx_->dataPath(VkFile::lastPathComponent(staged));
        if (VkFile::existsNoFollow(target) && !VkFile::removeTree(target).ok())
            continue;  // both files stay as they are
        if (std::rename(staged.c_str(), target.c_str()) == 0)
            installed.push_back(target);
    }
    return installed;
}

bool VkAddTorjanItems::addItemByPath(const std::string& path) {
    // The whole of the path is appended, not only its last component: an absolute path lands
    // in a nested folder of that shape (and fails when it does not exist). This is the
    // system's own rule, kept deliberately: only a bare file name ends up beside the other
    // databases.
    std::string target = VkFile::join(ctx_->dataFolder, path);
    std::lock_guard lock(sqliteMutex_);
    for (const std::string& installed : sqliteManager_.dataBasePaths()) {
        if (installed != target)
            continue;
        auto current = sqliteManager_.dataBaseForPath(target);
        auto offered = sqliteManager_.dataBaseForPath(path);
        bool currentIsNewer = current && offered && current->compareVersion(*offered) > 0;
        if (!currentIsNewer)
            return false;
        break;
    }
    // Copying never overwrites, so an existing database is never replaced here.
    return VkFile::copyFile(path, target).ok();
}
