// `vksecurity scan`: custom, full and quick scans from the command line.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <signal.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "VkCli.h"
#include "center/VkScanSession.h"
#include "center/VkTorjanCenter.h"
#include "database/VkSqliteManager.h"
#include "engine/VkTorjanScan.h"
#include "logs/VkScanLogsOper.h"
#include "platform/VkFileUtil.h"
#include "remediation/VkKillTorjans.h"
#include "support/VkCliOutput.h"
#include "support/VkCrypt.h"
#include <fnmatch.h>

namespace {

std::atomic<bool> gInterrupted{false};

void onInterrupt(int) {
    gInterrupted.store(true);
}

struct ScanOptions {
    std::vector<std::string> paths;
    bool full = false;
    bool quick = false;
    bool pace = false;
    bool remove = false;
    bool quarantine = false;
    bool trust = false;
    unsigned jobs = 0;  // 0: one judging thread per core, at most four
    bool noCache = false;
    bool noArchives = false;
    std::vector<std::string> excludes;
    std::vector<std::string> excludeDirs;
    std::string fileList;
};

// The user's exclusions: a file whose name or path matches an --exclude glob, or that lies
// in a folder whose name or path matches an --exclude-dir glob, is left out of the walk.
VkTorjanScan::PathFilter exclusionFilter(const ScanOptions& options) {
    if (options.excludes.empty() && options.excludeDirs.empty())
        return {};
    auto matches = [](const std::vector<std::string>& globs, const std::string& path) {
        std::string name = VkFile::lastPathComponent(path);
        return std::any_of(globs.begin(), globs.end(), [&](const std::string& glob) {
            return ::fnmatch(glob.c_str(), name.c_str(), 0) == 0 ||
                   ::fnmatch(glob.c_str(), path.c_str(), 0) == 0;
        });
    };
    return
        [files = options.excludes, dirs = options.excludeDirs, matches](const std::string& path) {
            if (matches(files, path))
                return true;
            for (size_t slash = path.find('/', 1); slash != std::string::npos;
                 slash = path.find('/', slash + 1)) {
                if (matches(dirs, path.substr(0, slash)))
                    return true;
            }
            return false;
        };
}

// One path per line from the file, or from standard input for "-"; false when it cannot
// be read.
bool readFileList(const std::string& from, std::vector<std::string>& paths) {
    std::ifstream file;
    if (from != "-") {
        file.open(from);
        if (!file)
            return false;
    }
    std::istream& in = from == "-" ? std::cin : file;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            paths.push_back(line);
    }
    return !in.bad();
}

// Scan kinds as the scan history numbers them.
constexpr int32_t kQuickScan = VkScanSession::kQuickScan;
constexpr int32_t kFullScan = VkScanSession::kFullScan;
constexpr int32_t kCustomScan = VkScanSession::kCustomScan;

std::string elapsedText(double seconds) {
    long t = static_cast<long>(seconds);
    char buf[32];
    if (t < 3600) {
        std::snprintf(buf, sizeof buf, "%02ld:%02ld", t / 60, t % 60);
    } else {
        std::snprintf(buf, sizeof buf, "%ld:%02ld:%02ld", t / 3600, (t / 60) % 60, t % 60);
    }
    return buf;
}

int terminalWidth() {
    struct winsize ws {};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 20)
        return ws.ws_col;
    return 80;
}

// Receives the scan's reports on its threads; the main thread draws and prints.
class CliScanDelegate : public VkTorjanScanDelegate {
  public:
    CliScanDelegate(bool json, bool live) : json_(json), live_(live) {}

    void addTorjanPath(const std::shared_ptr<VkTorjanResultItems>& item) override {
        std::lock_guard lock(mutex_);
        clearLineLocked();
        std::string path = item->path().value_or("");
        std::string name = item->displayName().value_or("unknown");
        std::optional<std::string> member = item->member();
        if (json_) {
            nlohmann::json j = {{"type", "finding"},
                                {"name", name},
                                {"special", item->spec()},
                                {"size", item->fileSize()}};
            vkJsonSetPath(j, "path", path);
            if (member)
                vkJsonSetPath(j, "member", *member);
            if (auto hash = item->hashCode())
                j["hash"] = *hash;
            std::printf("%s\n", vkJsonText(j).c_str());
        } else {
            // A member of an archive is shown as ARCHIVE!MEMBER.
            std::printf("%s: %s FOUND\n", vkCliText(item->shownPath()).c_str(),
                        vkCliText(name).c_str());
        }
        std::fflush(stdout);
        findings_.push_back(item);
    }

    // Each on its own line as other scanners write it, `PATH: REASON ERROR`, on stderr so
    // that the findings on stdout stay a clean list; in JSON an object of its own.
    void scanNotExamined(const VkNotExamined& skipped) override {
        std::lock_guard lock(mutex_);
        clearLineLocked();
        if (json_) {
            nlohmann::json j = {{"type", "notExamined"}, {"reason", skipped.reasonText()}};
            vkJsonSetPath(j, "path", skipped.path);
            if (!skipped.member.empty())
                vkJsonSetPath(j, "member", skipped.member);
            std::printf("%s\n", vkJsonText(j).c_str());
            std::fflush(stdout);
        } else {
            std::string shown =
                skipped.member.empty() ? skipped.path : skipped.path + "!" + skipped.member;
            std::fprintf(stderr, "%s: %s ERROR\n", vkCliText(shown).c_str(),
                         vkCliText(skipped.reasonText()).c_str());
        }
        ++notExamined_;
    }

    bool scanTorjanProcess(float progress, const std::optional<std::string>& item) override {
        std::lock_guard lock(mutex_);
        // The line is drawn at once when the count becomes known, not at the next tick: a
        // short scan would otherwise show "listing" for a good part of its run.
        if (item && (progress_ == 0.01f || entries_ == 0) && progress != 0.01f) {
            countNews_ = true;
            cv_.notify_all();
        }
        progress_ = progress;
        if (item) {
            ++entries_;
            current_ = *item;
        } else {
            ended_ = true;
            cv_.notify_all();
        }
        return false;
    }

    // Waits up to `seconds` for the end report; true when it came.
    bool waitForEnd(double seconds) {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, std::chrono::duration<double>(seconds),
                     [&] { return ended_ || countNews_; });
        countNews_ = false;
        return ended_;
    }

    void drawProgress(double elapsed, uint64_t judged, bool quick) {
        if (!live_)
            return;
        std::lock_guard lock(mutex_);
        char head[96];
        if (quick) {
            std::snprintf(head, sizeof head, "[%3d%%] built-in detectors  %s  ",
                          static_cast<int>(progress_ * 100), elapsedText(elapsed).c_str());
        } else if (progress_ == 0.01f || entries_ == 0) {
            std::snprintf(head, sizeof head, "[listing] %llu files  %s  ",
                          static_cast<unsigned long long>(judged), elapsedText(elapsed).c_str());
        } else {
            std::snprintf(head, sizeof head, "[%3d%%] %llu files  %s  ",
                          static_cast<int>(progress_ * 100),
                          static_cast<unsigned long long>(judged), elapsedText(elapsed).c_str());
        }
        std::string line = head;
        int width = terminalWidth() - 1;
        std::string path = vkCliText(current_);
        int room = width - static_cast<int>(line.size());
        if (room > 4 && static_cast<int>(path.size()) > room) {
            path = "..." + path.substr(path.size() - static_cast<size_t>(room - 3));
        } else if (room <= 4) {
            path.clear();
        }
        line += path;
        if (static_cast<int>(line.size()) > width)
            line.resize(static_cast<size_t>(width));
        std::fprintf(stderr, "\r%-*s", width, line.c_str());
        std::fflush(stderr);
        drawn_ = true;
    }

    void clearLine() {
        std::lock_guard lock(mutex_);
        clearLineLocked();
    }

    size_t findingCount() {
        std::lock_guard lock(mutex_);
        return findings_.size();
    }
    std::vector<std::shared_ptr<VkTorjanResultItems>> findings() {
        std::lock_guard lock(mutex_);
        return findings_;
    }
    uint64_t entries() {
        std::lock_guard lock(mutex_);
        return entries_;
    }
    uint64_t notExamined() {
        std::lock_guard lock(mutex_);
        return notExamined_;
    }

  private:
    void clearLineLocked() {
        if (!drawn_)
            return;
        std::fprintf(stderr, "\r%*s\r", terminalWidth() - 1, "");
        drawn_ = false;
    }

    const bool json_;
    const bool live_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::shared_ptr<VkTorjanResultItems>> findings_;
    float progress_ = 0;
    uint64_t entries_ = 0;
    uint64_t notExamined_ = 0;
    std::string current_;
    bool ended_ = false;
    bool countNews_ = false;
    bool drawn_ = false;
};

// A failure names what was done all the same (`done`): a removal that partly failed may
// have deleted files already.
void printOutcome(VkCli& cli, const std::string& path, const char* action, bool ok,
                  const std::string& text, const std::vector<std::string>& done = {}) {
    if (cli.json) {
        nlohmann::json j = {{"type", "action"}, {"action", action}, {"ok", ok}};
        vkJsonSetPath(j, "path", path);
        j[ok ? "outcome" : "reason"] = text;
        if (!ok)
            j["done"] = done;
        std::printf("%s\n", vkJsonText(j).c_str());
    } else if (ok) {
        std::printf("%s: %s\n", vkCliText(path).c_str(), vkCliText(text).c_str());
    } else {
        std::string doneText;
        for (const auto& part : done)
            doneText += (doneText.empty() ? "; done: " : "; ") + part;
        std::printf("%s: NOT %s (%s)%s\n", vkCliText(path).c_str(), action, vkCliText(text).c_str(),
                    vkCliText(doneText).c_str());
    }
}

// What removal really did to one finding, in words, and whether anything failed: only a
// refusal, a deletion or edit that did not happen, or a process that would not end fails.
struct RemovalVerdict {
    bool ok = true;
    bool fileGone = false;          // deleted or cleaned in place: the history may say "removed"
    std::string text;               // what was done, or when anything failed what failed
    std::vector<std::string> done;  // what was done even so, when anything failed
};

RemovalVerdict verdictOf(const VkKillOutcome& outcome) {
    RemovalVerdict verdict;
    std::vector<std::string> done;
    std::vector<std::string> failed;
    const std::string path = outcome.result->path().value_or("");
    bool fileRemoved = false;
    bool fileEdited = false;
    for (const auto& d : outcome.deletions) {
        if (d.editedInPlace) {
            fileEdited = fileEdited || d.path == path;
            done.push_back(d.path == path ? "edited in place" : "edited " + d.path);
        } else if (d.removed) {
            fileRemoved = fileRemoved || d.path == path;
            done.push_back(d.path == path ? "removed" : "removed " + d.path);
        } else {
            failed.push_back(d.path + ": " + d.reason);
        }
    }
    size_t killed = 0;
    for (const auto& k : outcome.kills) {
        if (k.ended)
            ++killed;
        else
            failed.push_back("process " + std::to_string(k.pid) + " (" + k.name + "): " + k.reason);
    }
    if (killed > 0)
        done.push_back("killed " + std::to_string(killed) + " process" + (killed == 1 ? "" : "es"));
    if (!outcome.special && outcome.deletions.empty() && outcome.kills.empty())
        done.push_back("no matching process");
    bool remains = VkFile::existsNoFollow(path);
    if (outcome.special && remains && !fileEdited && failed.empty())
        failed.push_back("left in place by the built-in detector's clean-up");
    else if (remains && !fileEdited && !fileRemoved && failed.empty())
        done.push_back("file left in place");
    else if (!remains && !fileRemoved && !fileEdited)
        done.push_back("removed");  // by a clean-up that answered for other paths only
    verdict.ok = failed.empty();
    verdict.fileGone = verdict.ok && (fileRemoved || fileEdited || !remains);
    const std::vector<std::string>& parts = verdict.ok ? done : failed;
    for (const auto& part : parts)
        verdict.text += (verdict.text.empty() ? "" : "; ") + part;
    if (!verdict.ok)
        verdict.done = std::move(done);
    return verdict;
}

// The findings grouped by the file they were found in, in the order met: members of one
// archive are one file to act on.
std::vector<std::vector<std::shared_ptr<VkTorjanResultItems>>> byFile(
    const std::vector<std::shared_ptr<VkTorjanResultItems>>& findings) {
    std::vector<std::vector<std::shared_ptr<VkTorjanResultItems>>> files;
    std::map<std::string, size_t> index;
    for (const auto& item : findings) {
        auto [at, added] = index.try_emplace(item->path().value_or(""), files.size());
        if (added)
            files.emplace_back();
        files[at->second].push_back(item);
    }
    return files;
}

// Carries out the clean step the user asked for, once per file found (an archive with
// several members found is one file); false when any file could not be dealt with.
bool cleanFindings(VkCli& cli, const ScanOptions& options, VkTorjanCenter& center,
                   VkScanLogsOper& logs,
                   const std::vector<std::shared_ptr<VkTorjanResultItems>>& findings) {
    bool allDone = true;
    if (options.trust) {
        std::vector<std::shared_ptr<VkTorjanResultItems>> trusted;
        for (const auto& members : byFile(findings)) {
            const auto& item = members.front();
            std::string path = item->path().value_or("");
            // The list holds enciphered text; a name the cipher cannot take would be stored
            // as an entry that never matches and cannot be removed.
            if (!vkEncryptString(path) || !item->hashCode() ||
                !vkEncryptString(*item->hashCode())) {
                allDone = false;
                printOutcome(cli, path, "trusted", false,
                             "the trust list cannot hold this path (it is not UTF-8 text)");
                continue;
            }
            // The entry binds the file's path and hash, the same for all its members.
            if (!center.addTrustFile(item)) {
                allDone = false;
                printOutcome(cli, path, "trusted", false,
                             "the trust list could not be written (" +
                                 cli.context()->userDefaults->path() +
                                 " would be too large, or cannot be written)");
                continue;
            }
            trusted.insert(trusted.end(), members.begin(), members.end());
            printOutcome(cli, path, "trusted", true, "trusted");
        }
        if (!trusted.empty())
            logs.addScanLogsItems(trusted, 1);
    } else if (options.quarantine) {
        for (const auto& members : byFile(findings)) {
            bool ok = center.addQuarantineItem(members.front());
            allDone = allDone && ok;
            printOutcome(cli, members.front()->path().value_or(""), "quarantined", ok,
                         ok ? "quarantined" : "the file could not be moved into the quarantine");
        }
    } else if (options.remove) {
        // Every finding's removal runs (each record's own instructions), the outcome is told
        // per file.
        VkKillReport report = center.killTorjans().killTorjanItemAndWait(findings);
        if (!report.completed) {
            vkCliFail(cli, "removal did not run: the process list could not be read");
            return false;
        }
        struct FileOutcome {
            std::string path;
            std::optional<RemovalVerdict> verdict;
            std::vector<std::shared_ptr<VkTorjanResultItems>> members;
        };
        std::vector<FileOutcome> files;
        std::map<std::string, size_t> index;
        for (const auto& outcome : report.outcomes) {
            if (!outcome.result)
                continue;
            std::string path = outcome.result->path().value_or("");
            auto [at, added] = index.try_emplace(path, files.size());
            if (added)
                files.push_back({path, std::nullopt, {}});
            FileOutcome& file = files[at->second];
            file.members.push_back(outcome.result);
            // A file an earlier finding of it removed is not missed by the next one.
            VkKillOutcome rest = outcome;
            if (file.verdict && file.verdict->fileGone) {
                std::erase_if(rest.deletions,
                              [&](const VkCleanOutcome& d) { return d.path == path; });
            }
            RemovalVerdict verdict = verdictOf(rest);
            // What failed is told first, then what removed the file.
            if (!file.verdict || (file.verdict->ok && !verdict.ok) ||
                (file.verdict->ok && verdict.ok && verdict.fileGone && !file.verdict->fileGone))
                file.verdict = std::move(verdict);
        }
        std::vector<std::shared_ptr<VkTorjanResultItems>> removed;
        for (const auto& file : files) {
            // A file left in place stays "found" in the history, never "removed".
            if (file.verdict->fileGone)
                removed.insert(removed.end(), file.members.begin(), file.members.end());
            allDone = allDone && file.verdict->ok;
            printOutcome(cli, file.path, "removed", file.verdict->ok, file.verdict->text,
                         file.verdict->done);
        }
        if (!removed.empty())
            logs.addScanLogsItems(removed, 0);
        // The detectors' clean-up also takes what no finding names (a file a launch item
        // named that could not be examined, their caches): each is told.
        for (const auto& other : report.otherDeletions) {
            bool ok = other.removed || other.editedInPlace;
            allDone = allDone && ok;
            printOutcome(cli, other.path, "removed", ok,
                         ok ? (other.editedInPlace ? "edited in place" : "removed") : other.reason);
        }
    }
    return allDone;
}

// Why a scan had no signatures to judge with, with what the user can do about it.
std::string noSignaturesMessage(const VkContext& ctx) {
    std::string folder = ctx.dataFolder;
    bool isDir = false;
    if (!VkFile::exists(folder, &isDir) || !isDir) {
        return "no signatures loaded from " + folder +
               ": the folder does not exist and could not be created (choose a writable one "
               "with --data-dir)";
    }
    if (VkSqliteManager::contentFilesOfPath(folder).empty()) {
        return "no signatures loaded from " + folder +
               ": it holds no signature database and the packaged one could not be installed "
               "(run `vksecurity update`, or check that the folder is writable)";
    }
    return "no signatures loaded from " + folder +
           ": its databases hold no readable records (check them with `vksig verify`)";
}

void runScan(VkCli& cli, const ScanOptions& options) {
    if ((options.remove ? 1 : 0) + (options.quarantine ? 1 : 0) + (options.trust ? 1 : 0) > 1) {
        vkCliFail(cli, "choose one of --remove, --quarantine, --trust");
        return;
    }
    std::vector<std::string> listed = options.paths;
    if (!options.fileList.empty() && !readFileList(options.fileList, listed)) {
        vkCliFail(cli, "cannot read the file list " + options.fileList);
        return;
    }
    if (!options.fileList.empty() && listed.empty()) {
        vkCliFail(cli, "the file list names no path: " + options.fileList);
        return;
    }
    int modes = (options.full ? 1 : 0) + (options.quick ? 1 : 0) + (listed.empty() ? 0 : 1);
    if (modes != 1) {
        vkCliFail(cli, "scan needs exactly one of: PATH..., --full, --quick");
        return;
    }
    auto ctx = cli.context();
    if (bool isDir = false; !VkFile::exists(ctx->systemRoot, &isDir) || !isDir) {
        vkCliFail(cli, "the system root is not a folder: " + ctx->systemRoot);
        return;
    }
    std::vector<std::string> paths;
    for (const auto& p : listed) {
        // Absolute and lexically normal, so that results, logs and the trust list name the
        // files as a full scan reaches them.
        std::string path = vkCliAbsolutePath(p);
        if (!VkFile::existsNoFollow(path)) {
            vkCliFail(cli, "no such file or folder: " + p);
            return;
        }
        paths.push_back(path);
    }
    bool live = !cli.json && ::isatty(STDERR_FILENO);
    auto delegate = std::make_shared<CliScanDelegate>(cli.json, live);
    // Making the center installs the packaged databases into the data folder if needed.
    auto center = VkTorjanCenter::shareCenter();
    if (!options.quick) {
        bool isDir = false;
        if (VkFile::exists(ctx->dataFolder, &isDir) && isDir &&
            !VkFile::listDirectory(ctx->dataFolder)) {
            vkCliFail(cli, "cannot read the signature database folder " + ctx->dataFolder);
            return;
        }
        // A walk without signatures would call every file clean.
        if (VkSqliteManager(ctx).dataBasePaths().empty()) {
            vkCliFail(cli, noSignaturesMessage(*ctx));
            return;
        }
    }

    VkTorjanScan& scanner = center->trjanScan();
    scanner.setPaceScans(options.pace);
    scanner.setJobs(options.jobs);
    if (options.noCache)
        scanner.setHashCache(nullptr);  // every file read afresh, nothing kept
    scanner.setJudgeArchives(!options.noArchives);
    scanner.setPathFilter(exclusionFilter(options));

    struct sigaction sa {};
    sa.sa_handler = onInterrupt;
    ::sigemptyset(&sa.sa_mask);
    struct sigaction oldInt {
    }, oldTerm{};
    ::sigaction(SIGINT, &sa, &oldInt);
    ::sigaction(SIGTERM, &sa, &oldTerm);

    auto start = std::chrono::steady_clock::now();
    auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    const char* kind = options.quick ? "quick" : (options.full ? "full" : "custom");
    if (options.quick) {
        center->startQuickScan(delegate);
    } else if (options.full) {
        center->startScan(delegate);
    } else {
        center->startScan(paths, delegate);
    }
    bool interrupted = false;
    while (!delegate->waitForEnd(0.1)) {
        delegate->drawProgress(elapsed(), scanner.filesJudged(), options.quick);
        if (gInterrupted.load() && !interrupted) {
            interrupted = true;
            delegate->clearLine();
            std::fprintf(stderr, "vksecurity: stopping the scan...\n");
            scanner.stopCurrentScan();
        }
    }
    scanner.stopCurrentScan();
    delegate->clearLine();
    ::sigaction(SIGINT, &oldInt, nullptr);
    ::sigaction(SIGTERM, &oldTerm, nullptr);
    interrupted = interrupted || gInterrupted.load();

    double seconds = elapsed();
    size_t found = delegate->findingCount();
    auto findings = delegate->findings();
    auto logs = VkScanLogsOper::sharedOper();
    if (!interrupted) {
        // Recorded as the panel records a finished scan; a stopped scan leaves no trace.
        int32_t scanType = options.quick ? kQuickScan : (options.full ? kFullScan : kCustomScan);
        VkScanSession(logs, ctx->userDefaults, ctx->clock).recordFinishedScan(scanType, findings);
    }
    bool cleaned = true;
    if (!findings.empty() && (options.remove || options.quarantine || options.trust)) {
        cleaned = cleanFindings(cli, options, *center, *logs, findings);
        // A changed operation waits for the next write of the history; this process ends
        // here, so write now.
        logs->saveFileMonToDisk();
    }
    uint64_t notExamined = delegate->notExamined();
    size_t signatures = 0;
    std::vector<std::string> databases;
    for (const auto& [path, count] : center->lastLoadedDatabases()) {
        signatures += count;
        databases.push_back(VkFile::lastPathComponent(path));
    }
    // Loaded by the walk itself; a walk that had none examined nothing.
    bool noSignatures = !options.quick && signatures == 0 && !interrupted;
    // A database read in part (damaged, locked, a view, a link) was told as it failed; the
    // files were judged without all of its records, so the scan is not complete.
    size_t failedDatabases = options.quick ? 0 : center->lastFailedDatabases().size();
    if (cli.json) {
        nlohmann::json j = {{"type", "summary"},
                            {"scan", kind},
                            {"filesJudged", scanner.filesJudged()},
                            {"entries", delegate->entries()},
                            {"findings", found},
                            {"notExamined", notExamined},
                            {"archiveMembers", scanner.archiveMembers()},
                            {"archiveMembersDecompressed", scanner.archiveMembersDecompressed()},
                            {"seconds", seconds},
                            {"interrupted", interrupted}};
        if (!options.quick) {
            j["signatures"] = signatures;
            j["databases"] = nlohmann::json::array();
            for (const auto& name : databases)
                j["databases"].push_back(vkCliText(name));
        }
        std::printf("%s\n", vkJsonText(j).c_str());
    } else {
        std::printf("\n----------- SCAN SUMMARY -----------\n");
        std::printf("Scan:          %s%s\n", kind, interrupted ? " (interrupted)" : "");
        if (!options.quick) {
            std::string names;
            for (const auto& name : databases)
                names += (names.empty() ? "" : ", ") + vkCliText(name);
            std::printf("Signatures:    %zu%s%s%s\n", signatures, names.empty() ? "" : " (",
                        names.c_str(), names.empty() ? "" : ")");
            std::printf("Files judged:  %llu\n",
                        static_cast<unsigned long long>(scanner.filesJudged()));
        }
        // A quick scan names what its detectors could not read, when there is any.
        if (!options.quick || notExamined > 0)
            std::printf("Not examined:  %llu\n", static_cast<unsigned long long>(notExamined));
        std::printf("Findings:      %zu\n", found);
        std::printf("Time:          %s (%.2f s)\n", elapsedText(seconds).c_str(), seconds);
    }
    std::fflush(stdout);
    if (noSignatures)
        vkCliFail(cli, noSignaturesMessage(*ctx));
    if (failedDatabases > 0)
        std::fprintf(stderr, "vksecurity: %zu signature database(s) not read (see above)\n",
                     failedDatabases);
    if (interrupted) {
        // Whatever was found: the files the scan did not reach are vouched for by nobody.
        cli.exitCode = kExitInterrupted;
    } else if (!cleaned || notExamined > 0 || noSignatures || failedDatabases > 0) {
        cli.exitCode = kExitError;
    } else if (found > 0) {
        cli.exitCode = kExitFound;
    } else {
        cli.exitCode = kExitClean;
    }
}

}  // namespace

static VkCliCommand registration(10, [](CLI::App& app, VkCli& cli) {
    auto options = std::make_shared<ScanOptions>();
    auto* cmd = app.add_subcommand(
        "scan", "Scan files and folders, the whole disk, or run the built-in detectors");
    cmd->add_option("paths", options->paths, "Files and folders to scan (a custom scan)");
    cmd->add_flag("--full", options->full, "Scan every top-level folder of the system root");
    cmd->add_flag("--quick", options->quick,
                  "Run only the built-in detectors for persistent trojans");
    cmd->add_flag("--pace", options->pace,
                  "Scan gently, pausing briefly before each file, as the panel does");
    cmd->add_flag("--remove", options->remove,
                  "Remove what was found (carry out each signature's removal instructions)");
    cmd->add_flag("--quarantine", options->quarantine, "Move what was found into the quarantine");
    cmd->add_flag("--trust", options->trust, "Add what was found to the trust list");
    cmd->add_option("--jobs", options->jobs,
                    "Threads that judge files (default: one per core, at most 4; --pace uses 1)")
        ->check(CLI::Range(1, 64));
    cmd->add_flag("--no-cache", options->noCache,
                  "Read every file afresh: use no kept hashes and keep none (forensic scans)");
    cmd->add_flag("--no-archives", options->noArchives,
                  "Do not look inside archives and installer packages");
    cmd->add_option("--exclude", options->excludes,
                    "Leave out files whose name or path matches GLOB (repeatable)")
        ->allow_extra_args(false);
    cmd->add_option("--exclude-dir", options->excludeDirs,
                    "Leave out folders whose name or path matches GLOB (repeatable)")
        ->allow_extra_args(false);
    cmd->add_option("--file-list", options->fileList,
                    "Scan the paths listed in FILE, one a line (- reads standard input)");
    cmd->footer(
        "Exit codes: 0 nothing found, 1 something found, 2 an error: a path that could not be "
        "examined, no signatures, or a file that could not be removed, quarantined or "
        "trusted; 130 interrupted.");
    cmd->callback([&cli, options] { runScan(cli, *options); });
});
