// `vksecurity scan`: custom, full and quick scans from the command line.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <signal.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "VkCli.h"
#include "database/VkSqliteManager.h"
#include "center/VkScanSession.h"
#include "center/VkTorjanCenter.h"
#include "engine/VkTorjanScan.h"
#include "logs/VkScanLogsOper.h"
#include "platform/VkFileUtil.h"
#include "remediation/VkKillTorjans.h"
#include "support/VkCliOutput.h"

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
};

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
        if (json_) {
            nlohmann::json j = {{"type", "finding"},
                                {"name", name},
                                {"special", item->spec()},
                                {"size", item->fileSize()}};
            vkJsonSetPath(j, "path", path);
            if (auto hash = item->hashCode())
                j["hash"] = *hash;
            std::printf("%s\n", vkJsonText(j).c_str());
        } else {
            std::printf("%s: %s FOUND\n", vkCliText(path).c_str(), vkCliText(name).c_str());
        }
        std::fflush(stdout);
        findings_.push_back(item);
    }

    bool scanTorjanProcess(float progress, const std::optional<std::string>& item) override {
        std::lock_guard lock(mutex_);
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
        return cv_.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return ended_; });
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
    std::string current_;
    bool ended_ = false;
    bool drawn_ = false;
};

void printOutcome(VkCli& cli, const std::string& path, const char* action, bool ok,
                  const std::string& reason) {
    if (cli.json) {
        nlohmann::json j = {{"type", "action"}, {"action", action}, {"ok", ok}};
        vkJsonSetPath(j, "path", path);
        if (!ok)
            j["reason"] = reason;
        std::printf("%s\n", vkJsonText(j).c_str());
    } else if (ok) {
        std::printf("%s: %s\n", vkCliText(path).c_str(), action);
    } else {
        std::printf("%s: NOT %s (%s)\n", vkCliText(path).c_str(), action,
                    vkCliText(reason).c_str());
    }
}

// Carries out the clean step the user asked for on every finding; false when any file
// could not be dealt with.
bool cleanFindings(VkCli& cli, const ScanOptions& options, VkTorjanCenter& center,
                   VkScanLogsOper& logs,
                   const std::vector<std::shared_ptr<VkTorjanResultItems>>& findings) {
    bool allDone = true;
    if (options.trust) {
        for (const auto& item : findings) {
            center.addTrustFile(item);
            logs.addScanLogsItem(item, 1);
            printOutcome(cli, item->path().value_or(""), "trusted", true, "");
        }
    } else if (options.quarantine) {
        for (const auto& item : findings) {
            bool ok = center.addQuarantineItem(item);
            allDone = allDone && ok;
            printOutcome(cli, item->path().value_or(""), "quarantined", ok,
                         "the file could not be moved into the quarantine");
        }
    } else if (options.remove) {
        VkKillReport report = center.killTorjans().killTorjanItemAndWait(findings);
        if (!report.completed) {
            vkCliFail(cli, "removal did not run: the process list could not be read");
            return false;
        }
        for (const auto& outcome : report.outcomes) {
            std::string path = outcome.result->path().value_or("");
            bool ok = true;
            std::string reason;
            // Every refusal and failure is named, each with its reason.
            auto because = [&](const std::string& why) {
                ok = false;
                reason += (reason.empty() ? "" : "; ") + why;
            };
            for (const auto& d : outcome.deletions) {
                if (!d.removed)
                    because(d.path + ": " + d.reason);
            }
            if (outcome.special && outcome.specialFileRemains && reason.empty())
                because("left in place by the built-in detector's clean-up");
            for (const auto& k : outcome.kills) {
                if (!k.ended)
                    because("process " + std::to_string(k.pid) + " (" + k.name + "): " + k.reason);
            }
            if (ok)
                logs.addScanLogsItem(outcome.result, 0);
            allDone = allDone && ok;
            printOutcome(cli, path, "removed", ok, reason);
        }
    }
    return allDone;
}

void runScan(VkCli& cli, const ScanOptions& options) {
    if ((options.remove ? 1 : 0) + (options.quarantine ? 1 : 0) + (options.trust ? 1 : 0) > 1) {
        vkCliFail(cli, "choose one of --remove, --quarantine, --trust");
        return;
    }
    int modes = (options.full ? 1 : 0) + (options.quick ? 1 : 0) + (options.paths.empty() ? 0 : 1);
    if (modes != 1) {
        vkCliFail(cli, "scan needs exactly one of: PATH..., --full, --quick");
        return;
    }
    auto ctx = cli.context();
    std::vector<std::string> paths;
    for (const auto& p : options.paths) {
        if (!VkFile::existsNoFollow(p)) {
            vkCliFail(cli, "no such file or folder: " + p);
            return;
        }
        // Absolute paths, so that results and logs name the files unambiguously.
        paths.push_back(p[0] == '/' ? p
                                    : VkFile::join(std::filesystem::current_path().string(), p));
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
        if (VkSqliteManager(ctx).dataBasePaths().empty()) {
            std::fprintf(stderr,
                         "vksecurity: warning: no signature databases in %s; only the built-in "
                         "detectors can find anything (run `vksecurity update`)\n",
                         vkCliText(ctx->dataFolder).c_str());
        }
    }

    VkTorjanScan& scanner = center->trjanScan();
    scanner.setPaceScans(options.pace);

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
    if (cli.json) {
        nlohmann::json j = {{"type", "summary"},
                            {"scan", kind},
                            {"filesJudged", scanner.filesJudged()},
                            {"entries", delegate->entries()},
                            {"findings", found},
                            {"seconds", seconds},
                            {"interrupted", interrupted}};
        std::printf("%s\n", j.dump().c_str());
    } else {
        std::printf("\n----------- SCAN SUMMARY -----------\n");
        std::printf("Scan:          %s%s\n", kind, interrupted ? " (interrupted)" : "");
        if (!options.quick) {
            std::printf("Files judged:  %llu\n",
                        static_cast<unsigned long long>(scanner.filesJudged()));
        }
        std::printf("Findings:      %zu\n", found);
        std::printf("Time:          %s (%.2f s)\n", elapsedText(seconds).c_str(), seconds);
    }
    if (!cleaned) {
        cli.exitCode = kExitError;
    } else if (found > 0) {
        cli.exitCode = kExitFound;
    } else if (interrupted) {
        // An interrupted scan cannot vouch for the files it did not reach.
        cli.exitCode = kExitError;
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
    cmd->footer(
        "Exit codes: 0 nothing found, 1 something found, 2 error, interrupted, or a file that "
        "could not be removed, quarantined or trusted.");
    cmd->callback([&cli, options] { runScan(cli, *options); });
});
