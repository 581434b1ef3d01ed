#include "database/VkAddTorjanItems.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "database/VkManifestCipher.h"
#include "database/VkUpdateKeys.h"
#include "platform/VkFileLock.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHashValue.h"
#include "support/VkSignature.h"

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

// The process in a partial download's name (".NAME.sql.part.PID.N"); nothing for other names.
std::optional<long> partialOwner(const std::string& name) {
    static constexpr std::string_view kInfix = ".sql.part.";
    size_t at = name.rfind(kInfix);
    if (name.empty() || name.front() != '.' || at == std::string::npos)
        return std::nullopt;
    const char* digits = name.c_str() + at + kInfix.size();
    char* end = nullptr;
    long pid = std::strtol(digits, &end, 10);
    if (end == digits || *end != '.' || pid <= 0 || end[1] == '\0' ||
        std::string_view(end + 1).find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    return pid;
}

std::string stringMember(const VkPlist& dictionary, const char* key) {
    const std::string* value = dictionary.getString(key);
    return value ? *value : std::string();
}

std::optional<VkUpdateChecksum> expectedOf(const VkPlist& element) {
    const std::string* sha = element.getString("sha256");
    const VkPlist* size = element.get("size");
    if (!sha || sha->size() != 64 || !size || size->type() != VkPlist::Type::Integer)
        return std::nullopt;
    std::string hex = lowerCase(*sha);
    if (hex.find_first_not_of("0123456789abcdef") != std::string::npos)
        return std::nullopt;
    auto bytes = size->asInt64();
    if (!bytes || *bytes < 0 || static_cast<uint64_t>(*bytes) > VkAddTorjanItems::kMaxDatabaseBytes)
        return std::nullopt;
    return VkUpdateChecksum{hex, static_cast<uint64_t>(*bytes)};
}

// Why a file is not the one expected, or nothing when it is.
std::optional<std::string> mismatchOf(const std::string& path, const VkUpdateChecksum& expected) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return "not a regular file";
    if (static_cast<uint64_t>(status.st_size) != expected.size)
        return std::to_string(status.st_size) + " bytes instead of " +
               std::to_string(expected.size);
    // One byte more than expected is asked for: a file that grew since is no longer a match.
    auto digest = VkHashValue::hashFile(path, expected.size + 1, 2);
    if (!digest || *digest != expected.sha256)
        return "SHA-256 " + digest.value_or("?") + " instead of " + expected.sha256;
    return std::nullopt;
}

// The manifest's serial: its first integer element. Clients that do not know it skip it, as
// they skip every element that is not a dictionary.
std::optional<int64_t> serialOf(const VkPlist::Array& manifest) {
    for (const VkPlist& element : manifest) {
        if (element.type() == VkPlist::Type::Integer)
            return element.asInt64();
    }
    return std::nullopt;
}

}  // namespace

struct VkAddTorjanItems::Manifest {
    VkPlist::Array elements;
    std::vector<uint8_t> body;       // as served
    std::vector<uint8_t> signature;  // empty when taken unsigned
    std::optional<int64_t> serial;
};

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

bool VkAddTorjanItems::allowsUnsigned() const {
    return allowUnsigned_ ||
           (ctx_->userDefaults && ctx_->userDefaults->boolForKey(kAllowUnsignedKey));
}

std::vector<std::string> VkAddTorjanItems::updateKeyFolders() const {
    return {VkFile::join(ctx_->resourceFolder, "updatekeys"), ctx_->updateKeysFolder};
}

int64_t VkAddTorjanItems::lastSerial() const {
    auto text = VkFile::readAll(ctx_->dataPath(kSerialFileName), 64);
    if (!text)
        return 0;
    char* end = nullptr;
    long long serial = std::strtoll(text->c_str(), &end, 10);
    return end != text->c_str() && serial > 0 ? serial : 0;
}

std::optional<VkAddTorjanItems::Manifest> VkAddTorjanItems::fetchManifest(VkUpdateReport& report) {
    auto fail = [&report](VkUpdateReport::Failure failure, std::string error) {
        report.failure = failure;
        report.error = std::move(error);
        return std::nullopt;
    };
    Manifest manifest;
    auto body = http_->get(report.manifestUrl, kMaxManifestBytes, &stopLoop_);
    if (!body.ok())
        return fail(VkUpdateReport::Failure::Fetch, body.error());
    manifest.body = std::move(*body);

    // The signature is checked before a byte of the manifest is deciphered or read.
    const std::string signatureUrl = report.manifestUrl + ".sig";
    auto signature = http_->get(signatureUrl, kMaxSignatureBytes, &stopLoop_);
    if (signature.ok()) {
        VkUpdateKeys keys = VkUpdateKeys::load(updateKeyFolders());
        for (const std::string& skipped : keys.skipped())
            ctx_->systemLog->log("[VkUpdate] not a trusted key: " + skipped);
        if (keys.keys().empty())
            return fail(VkUpdateReport::Failure::BadSignature, "no trusted update key (*.pub) in " +
                                                                   updateKeyFolders()[0] + " or " +
                                                                   ctx_->updateKeysFolder);
        if (signature->size() != VkSignature::kSignatureBytes)
            return fail(VkUpdateReport::Failure::BadSignature,
                        signatureUrl + ": " + std::to_string(signature->size()) +
                            " bytes, not an Ed25519 signature (" +
                            std::to_string(VkSignature::kSignatureBytes) + " bytes)");
        auto signer = keys.signerOf(manifest.body, *signature);
        if (!signer)
            return fail(VkUpdateReport::Failure::BadSignature,
                        "the manifest's signature was made by none of the " +
                            std::to_string(keys.keys().size()) +
                            " trusted key(s): the manifest or its signature was changed, or "
                            "the key is not trusted here");
        report.signer = signer->fingerprint;
        report.signerKeyPath = signer->path;
        manifest.signature = std::move(*signature);
    } else if (!allowsUnsigned()) {
        return fail(VkUpdateReport::Failure::Unsigned,
                    "no signature for the manifest (" + signature.error() +
                        "); unsigned updates are refused unless \"" + kAllowUnsignedKey +
                        "\" is set or --allow-unsigned is given");
    }

    auto plain = VkManifestCipher::decrypt(manifest.body);
    if (!plain)
        return fail(VkUpdateReport::Failure::Decipher,
                    report.manifestUrl + ": the manifest does not decipher");
    auto elements = arrayWithContentsOfData(*plain);
    if (!elements)
        return fail(VkUpdateReport::Failure::Parse,
                    report.manifestUrl + ": the manifest is not a property-list array");
    manifest.elements = std::move(*elements);
    manifest.serial = serialOf(manifest.elements);
    report.serial = manifest.serial;
    if (!manifest.signature.empty()) {
        if (!manifest.serial || *manifest.serial <= 0)
            return fail(VkUpdateReport::Failure::Parse,
                        report.manifestUrl + ": a signed manifest must carry its serial");
        // An older signed manifest may list databases since withdrawn: never go back to one.
        if (int64_t last = lastSerial(); *manifest.serial < last)
            return fail(VkUpdateReport::Failure::Rollback,
                        "the manifest's serial " + std::to_string(*manifest.serial) +
                            " is older than the last one accepted (" + std::to_string(last) +
                            "): an old manifest replayed");
    }
    return manifest;
}

void VkAddTorjanItems::keepSignedManifest(const Manifest& manifest) {
    std::string folder = stagingFolder();
    if (!VkFile::exists(folder))
        return;
    VkFile::writeAtomically(VkFile::join(folder, kManifestName), manifest.body.data(),
                            manifest.body.size(), 0600);
    VkFile::writeAtomically(VkFile::join(folder, kSignatureName), manifest.signature.data(),
                            manifest.signature.size(), 0600);
}

void VkAddTorjanItems::removeStalePartials(bool lockHeld) {
    std::string folder = stagingFolder();
    auto names = VkFile::listDirectory(folder);
    if (!names.ok())
        return;
    for (const std::string& name : *names) {
        auto pid = partialOwner(name);
        if (!pid)
            continue;
        // Without the lock another check may be writing it: only a dead writer's file goes.
        if (!lockHeld && (::kill(static_cast<pid_t>(*pid), 0) == 0 || errno != ESRCH))
            continue;
        ::unlink(VkFile::join(folder, name).c_str());
    }
}

VkUpdateReport VkAddTorjanItems::checkUpdateOnce() {
    std::lock_guard checking(checkMutex_);
    VkUpdateReport report;
    report.manifestUrl = manifestUrl();

    // Another process (the panel's loop, the timer's run, a second command) may be checking
    // this data folder: a slower check with an older manifest would write its serial and
    // databases over the newer ones. Checks take turns, from the serial comparison to the
    // serial written, and a stop ends the wait.
    std::optional<VkFileLock> updateLock;
    while (updateLock.emplace(ctx_->dataPath(kLockName), VkFileLock::Mode::Try),
           updateLock->busy()) {
        if (stopLoop_) {
            report.failure = VkUpdateReport::Failure::Fetch;
            report.error = "stopped while another update of " + ctx_->dataFolder + " ran";
            updateSuccess_ = false;
            return report;
        }
        pacing_->sleepSeconds(kLockPollSeconds);
    }
    // A check that was killed or interrupted leaves its partial download behind.
    removeStalePartials(updateLock->held());

    std::optional<Manifest> fetched = fetchManifest(report);
    report.success = fetched.has_value();
    updateSuccess_ = report.success;
    if (!fetched || fetched->elements.empty())
        return report;
    const VkPlist::Array* manifest = &fetched->elements;
    const bool signedManifest = !fetched->signature.empty();

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
        if (signedManifest && !expectedOf(element)) {
            entry.action = VkUpdateReport::Action::Unverifiable;
            report.entries.push_back(std::move(entry));
            continue;
        }
        stageDownload(folderUrl + urlPathSegment(entry.webpath), element, signedManifest, entry);
        report.entries.push_back(std::move(entry));
    }
    // A manifest whose server delivers other files than it lists is not taken as the last
    // one: its serial is not recorded and it vouches for nothing staged.
    std::string notTaken;  // why a signed manifest is not kept
    std::string mismatched;
    for (const auto& e : report.entries) {
        if (e.action == VkUpdateReport::Action::ChecksumMismatch)
            mismatched += (mismatched.empty() ? "" : ", ") + e.webpath;
    }
    // The serial on disk is read again before this one is written, so that it never goes
    // down, even where no lock file could be made and another process took a newer one.
    const int64_t last = signedManifest ? lastSerial() : 0;
    if (!mismatched.empty())
        notTaken = mismatched + " not being the file it lists";
    else if (signedManifest && *fetched->serial < last)
        notTaken = "a newer manifest (serial " + std::to_string(last) + ") was taken meanwhile";
    if (signedManifest && !notTaken.empty()) {
        // Its verified downloads are vouched for by nothing kept: removed here, with the
        // reason, rather than later as if the staging folder had been tampered with.
        for (auto& e : report.entries) {
            if (e.action != VkUpdateReport::Action::Downloaded)
                continue;
            ::unlink(e.stagedPath.c_str());
            e.action = VkUpdateReport::Action::NotTaken;
            e.detail = "verified, but removed: the manifest (serial " +
                       std::to_string(fetched->serial.value_or(0)) + ") was not taken, " + notTaken;
            e.stagedPath.clear();
        }
    }
    if (signedManifest && notTaken.empty()) {
        keepSignedManifest(*fetched);
        VkFile::writeAtomically(ctx_->dataPath(kSerialFileName), std::to_string(*fetched->serial),
                                0600);
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
                                     bool signedManifest, VkUpdateReport::Entry& entry) {
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
    std::optional<VkUpdateChecksum> expected = expectedOf(element);
    auto file =
        http_->download(url, partial, expected ? expected->size : kMaxDatabaseBytes, &stopLoop_);
    if (!file.ok()) {
        entry.action = VkUpdateReport::Action::DownloadFailed;
        entry.detail = file.error();
        return;
    }
    // A signed entry always has its hash and size; an unsigned one may give a hash alone, which
    // is then checked against what arrived (a hash that is no string never matches).
    if (!expected && element.get("sha256")) {
        const std::string* sha = element.getString("sha256");
        expected = VkUpdateChecksum{sha ? lowerCase(*sha) : "(not a string)", *file};
    }
    if (auto mismatch = expected ? mismatchOf(partial, *expected) : std::nullopt) {
        ::unlink(partial.c_str());
        entry.action = VkUpdateReport::Action::ChecksumMismatch;
        entry.detail = (signedManifest ? "not the signed file: " : "") + *mismatch;
        return;
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

std::optional<std::map<std::string, VkUpdateChecksum>> VkAddTorjanItems::signedStagedFiles() const {
    std::string folder = stagingFolder();
    auto body = VkFile::readAll(VkFile::join(folder, kManifestName), kMaxManifestBytes);
    auto signature = VkFile::readAll(VkFile::join(folder, kSignatureName), kMaxSignatureBytes);
    if (!body || !signature)
        return std::nullopt;
    std::vector<uint8_t> bytes(body->begin(), body->end());
    VkUpdateKeys keys = VkUpdateKeys::load(updateKeyFolders());
    if (!keys.signerOf(bytes, std::vector<uint8_t>(signature->begin(), signature->end())))
        return std::nullopt;
    auto plain = VkManifestCipher::decrypt(bytes);
    auto elements = plain ? arrayWithContentsOfData(*plain) : std::nullopt;
    // Only the manifest last accepted vouches: an older one, put back, could bring back a
    // database that was withdrawn since.
    if (!elements || serialOf(*elements) != lastSerial())
        return std::nullopt;
    std::map<std::string, VkUpdateChecksum> files;
    for (const VkPlist& element : *elements) {
        std::string webpath = element.isDictionary() ? stringMember(element, "webpath") : "";
        if (auto expected = expectedOf(element); expected && isPlainWebPath(webpath))
            files[webpath] = *expected;
    }
    return files;
}

std::vector<std::string> VkAddTorjanItems::copyToLocalPath(std::vector<std::string>* refused) {
    std::vector<std::string> installed;
    std::string folder = stagingFolder();
    auto names = VkFile::listDirectory(folder);
    if (!names.ok())
        return installed;
    auto refuse = [&](const std::string& path, const std::string& reason) {
        ctx_->systemLog->log("[VkUpdate] not installed " + path + ": " + reason);
        if (refused)
            refused->push_back(path + ": " + reason);
    };
    std::optional<std::map<std::string, VkUpdateChecksum>> vouched;
    std::optional<VkFileLock> updateLock;
    for (const std::string& name : *names) {
        std::string staged = VkFile::join(folder, name);
        if (staged.size() < 4 || staged.compare(staged.size() - 4, 4, ".sql") != 0)
            continue;
        if (!updateLock) {
            // A check holding the lock may have staged files of a manifest it has not kept
            // yet: against the kept one they would look swapped. Left for a later call.
            updateLock.emplace(ctx_->dataPath(kLockName), VkFileLock::Mode::Try);
            if (updateLock->busy()) {
                refuse(folder, "left as it is for now: an update is running");
                return installed;
            }
            vouched = signedStagedFiles();
        }
        const VkUpdateChecksum* listed = nullptr;
        if (vouched) {
            if (auto it = vouched->find(name); it != vouched->end())
                listed = &it->second;
        }
        if (listed) {
            if (auto mismatch = mismatchOf(staged, *listed)) {
                // Not what was downloaded and checked: someone changed the staging folder.
                ::unlink(staged.c_str());
                refuse(staged, "deleted, not the file the signed manifest lists: " + *mismatch);
                continue;
            }
        } else if (!allowsUnsigned()) {
            refuse(staged, "no signed manifest vouches for it (left in the staging folder)");
            continue;
        }
        std::string target = ctx_->dataPath(VkFile::lastPathComponent(staged));
        // rename(2) replaces a file in one step, so the old database stays until the new one
        // is in place; only a folder in the way has to go first.
        struct stat status {};
        if (::lstat(target.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
            !VkFile::removeTree(target).ok()) {
            refuse(staged,
                   "a folder that cannot be removed is in its place (left in the "
                   "staging folder)");
            continue;
        }
        if (std::rename(staged.c_str(), target.c_str()) != 0) {
            refuse(staged, "cannot be moved to " + target + ": " + std::strerror(errno) +
                               " (the installed database stays; left in the staging folder)");
            continue;
        }
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
