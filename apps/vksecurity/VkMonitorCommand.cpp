#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "VkCli.h"
#include "database/VkAddTorjanItems.h"
#include "database/VkSqliteManager.h"
#include "monitor/VkFileMonService.h"
#include "monitor/VkFileMonStore.h"
#include "monitor/VkMonitorConfig.h"
#include "monitor/VkServiceNetClient.h"
#include "platform/VkFileUtil.h"
#include "support/VkCliOutput.h"

// `vksecurity monitor`: the file monitor. Without options it runs the service in the
// foreground (systemd's user unit and the panel's switch both run it this way).
namespace {

// "Not running" for --status, as service managers report it.
constexpr int kExitNotRunning = 3;
// A foreground monitor that finds another one running: the user unit names this code in
// RestartPreventExitStatus=, so systemd does not start it again and again.
constexpr int kExitAlreadyRunning = 4;

// systemd hands the journal over as stdout and says so in JOURNAL_STREAM ("dev:inode"); the
// system log reaches the journal already, so the lines are not printed a second time.
bool stdoutIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    unsigned long long dev = 0, ino = 0;
    struct stat st {};
    return stream && std::sscanf(stream, "%llu:%llu", &dev, &ino) == 2 &&
           ::fstat(STDOUT_FILENO, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
}

void failAlreadyRunning(VkCli& cli, const std::string& dataFolder) {
    std::optional<pid_t> pid = VkFileMonService::runningPid(dataFolder);
    vkCliFail(cli, "the file monitor is already running for " + dataFolder +
                       (pid && *pid > 0 ? " (pid " + std::to_string(*pid) + ")" : "") +
                       " (see --status)");
    cli.exitCode = kExitAlreadyRunning;
}

std::atomic<VkFileMonService*> runningService{nullptr};

void stopOnSignal(int) {
    if (VkFileMonService* service = runningService.load())
        service->requestStop();
}

struct MonitorOptions {
    std::vector<std::string> watch;
    std::vector<std::string> unwatch;
    double settle = 0;
    bool status = false;
    bool start = false;
    bool stop = false;
};

std::vector<std::string> stringsOf(const VkPlist* list) {
    std::vector<std::string> strings;
    if (list && list->asArray()) {
        for (const VkPlist& entry : *list->asArray()) {
            if (const std::string* s = entry.asString())
                strings.push_back(*s);
        }
    }
    return strings;
}

int64_t numberOf(const VkPlist& dict, const char* key) {
    const VkPlist* value = dict.get(key);
    return value ? value->asInt64().value_or(0) : 0;
}

void printStatus(VkCli& cli, VkServiceNetClient& client, const VkMonitorConfig& config,
                 const std::string& dataFolder) {
    auto status = client.status();
    if (!status) {
        auto records = client.currentRecords();
        std::vector<std::string> saved = config.savedWatchFolders();
        if (cli.json) {
            nlohmann::json j = {{"running", false}, {"records", records ? records->size() : 0}};
            vkJsonSetPath(j, "dataFolder", dataFolder);
            vkJsonSetPath(j, "downloadFolder", VkMonitorConfig::downloadFolder());
            vkJsonSetPaths(j, "addedFolders", saved);
            std::printf("%s\n", vkJsonText(j, 2).c_str());
        } else {
            std::printf("file monitor:  not running\n");
            std::printf("data folder:   %s\n", vkCliText(dataFolder).c_str());
            std::printf("download dir:  %s\n",
                        vkCliText(VkMonitorConfig::downloadFolder()).c_str());
            for (size_t i = 0; i < saved.size(); ++i)
                std::printf("%s%s\n", i == 0 ? "added folders: " : "               ",
                            vkCliText(saved[i]).c_str());
            if (records)
                std::printf("records:       %zu\n", records->size());
        }
        cli.exitCode = kExitNotRunning;
        return;
    }
    const VkPlist& s = *status;
    std::vector<std::string> wanted = stringsOf(s.get("WatchFolders"));
    std::vector<std::string> watching = stringsOf(s.get("Watching"));
    const std::string* version = s.getString("Version");
    // Folders below the watched ones that the monitor could not watch, files it could not
    // read whole and signature databases it could not read, each with the reason.
    auto pathsAndReasons = [&s](const char* key) {
        std::vector<std::pair<std::string, std::string>> list;
        if (const VkPlist* array = s.get(key); array && array->asArray()) {
            for (const VkPlist& entry : *array->asArray()) {
                const std::string* path = entry.getString("Path");
                const std::string* reason = entry.getString("Reason");
                if (path)
                    list.emplace_back(*path, reason ? *reason : "");
            }
        }
        return list;
    };
    const auto unwatched = pathsAndReasons("UnwatchedFolders");
    const auto notExamined = pathsAndReasons("NotExaminedFiles");
    const auto failedDatabases = pathsAndReasons("FailedDatabases");
    int64_t unwatchedCount = numberOf(s, "Unwatched");
    if (cli.json) {
        nlohmann::json j = {{"running", true},
                            {"pid", numberOf(s, "Pid")},
                            {"version", version ? *version : ""},
                            {"records", numberOf(s, "Records")},
                            {"signatures", numberOf(s, "Signatures")},
                            {"judged", numberOf(s, "Judged")},
                            {"infected", numberOf(s, "Infected")},
                            {"waiting", numberOf(s, "Waiting")},
                            {"queued", numberOf(s, "Queued")},
                            {"backlog", numberOf(s, "Backlog")},
                            {"unchanged", numberOf(s, "Unchanged")}};
        vkJsonSetPath(j, "dataFolder", dataFolder);
        vkJsonSetPaths(j, "watchFolders", wanted);
        vkJsonSetPaths(j, "watching", watching);
        auto jsonList = [](const std::vector<std::pair<std::string, std::string>>& list) {
            nlohmann::json array = nlohmann::json::array();
            for (const auto& [path, reason] : list) {
                nlohmann::json entry = {{"reason", reason}};
                vkJsonSetPath(entry, "path", path);
                array.push_back(entry);
            }
            return array;
        };
        j["unwatched"] = unwatchedCount;
        j["unwatchedFolders"] = jsonList(unwatched);
        j["notExamined"] = numberOf(s, "NotExamined");
        j["notExaminedFiles"] = jsonList(notExamined);
        j["failedDatabases"] = jsonList(failedDatabases);
        std::printf("%s\n", vkJsonText(j, 2).c_str());
        return;
    }
    std::printf("file monitor:  running (pid %lld, version %s)\n",
                static_cast<long long>(numberOf(s, "Pid")),
                version ? vkCliText(*version).c_str() : "?");
    std::printf("data folder:   %s\n", vkCliText(dataFolder).c_str());
    for (size_t i = 0; i < wanted.size(); ++i) {
        bool active = std::find(watching.begin(), watching.end(), wanted[i]) != watching.end();
        std::printf("%s%s%s\n", i == 0 ? "watching:      " : "               ",
                    vkCliText(wanted[i]).c_str(), active ? "" : " (not found yet)");
    }
    // A heading line, then the paths with their reasons, and "..." when more were counted.
    auto printList = [](const std::string& heading,
                        const std::vector<std::pair<std::string, std::string>>& list,
                        int64_t count) {
        std::printf("%s\n", heading.c_str());
        for (const auto& [path, reason] : list)
            std::printf("               %s (%s)\n", vkCliText(path).c_str(),
                        vkCliText(reason).c_str());
        if (count > static_cast<int64_t>(list.size()))
            std::printf("               ...\n");
    };
    auto plural = [](int64_t n, const char* word) {
        return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
    };
    if (unwatchedCount > 0) {
        printList("not watched:   " + plural(unwatchedCount, "folder") +
                      " below these (and all below them): files arriving there are not judged",
                  unwatched, unwatchedCount);
    }
    std::printf("records:       %lld\n", static_cast<long long>(numberOf(s, "Records")));
    std::printf("signatures:    %lld\n", static_cast<long long>(numberOf(s, "Signatures")));
    if (!failedDatabases.empty()) {
        printList("not read:      " +
                      plural(static_cast<int64_t>(failedDatabases.size()), "signature database") +
                      ": files are judged without all of their records",
                  failedDatabases, 0);
    }
    std::printf("judged:        %lld files since start, %lld infected\n",
                static_cast<long long>(numberOf(s, "Judged")),
                static_cast<long long>(numberOf(s, "Infected")));
    if (int64_t count = numberOf(s, "NotExamined"); count > 0) {
        printList("not examined:  " + plural(count, "file") +
                      " could not be read whole, not known to be clean (latest last)",
                  notExamined, count);
    }
    std::printf("waiting:       %lld settling, %lld to judge\n",
                static_cast<long long>(numberOf(s, "Waiting")),
                static_cast<long long>(numberOf(s, "Queued")));
}

// A folder named on the command line, as the monitor keeps it.
VkResult<std::string> folderArgument(const std::string& given, bool mustExist) {
    std::string folder = VkMonitorConfig::normalizeFolder(given);
    bool isDirectory = false;
    if (mustExist && (!VkFile::exists(folder, &isDirectory) || !isDirectory))
        return VkError{"not a folder: " + given};
    return folder;
}

void runMonitor(VkCli& cli, const MonitorOptions& options) {
    // Started in the background, stderr is a pipe the starter closes once the service
    // answers; a later message must not end the service.
    std::signal(SIGPIPE, SIG_IGN);
    auto ctx = cli.context();
    VkServiceNetClient client(ctx->dataFolder, ctx->defaultsFile, nullptr);
    VkMonitorConfig config(*ctx);

    if (options.status) {
        printStatus(cli, client, config, ctx->dataFolder);
        return;
    }
    if (options.stop) {
        if (!client.isRunning() && !VkFileMonService::runningPid(ctx->dataFolder)) {
            std::printf("the file monitor is not running\n");
            return;
        }
        auto stopped = client.stop();
        if (!stopped)
            return vkCliFail(cli, stopped.error());
        std::printf("file monitor stopped\n");
        return;
    }

    bool running = client.isRunning();
    // Changes go to a running monitor at once; without one they are stored for its next
    // start, and nothing is started unless --start asks for it.
    bool changes = options.settle != 0 || !options.watch.empty() || !options.unwatch.empty();
    const char* later = running ? "" : " (from the file monitor's next start; it is not running)";
    if (options.settle != 0) {
        if (auto set = config.setSettleSeconds(options.settle); !set)
            return vkCliFail(cli, set.error());
        std::printf("settle time %g s%s\n", options.settle,
                    running ? " (from the file monitor's next start)" : later);
    }
    for (const std::string& given : options.unwatch) {
        auto folder = folderArgument(given, false);
        auto forgotten =
            running ? client.removeWatchFolder(*folder) : config.removeWatchFolder(*folder);
        if (!forgotten)
            return vkCliFail(cli, forgotten.error());
        std::printf("no longer watching %s%s\n", vkCliText(*folder).c_str(), later);
    }
    for (const std::string& given : options.watch) {
        auto folder = folderArgument(given, true);
        if (!folder)
            return vkCliFail(cli, folder.error());
        std::string data = VkMonitorConfig::normalizeFolder(ctx->dataFolder);
        if (*folder == data || folder->rfind(data + "/", 0) == 0)
            return vkCliFail(cli, "the data folder cannot be watched: " + *folder);
        // The service that runs takes the folder over; there is no second one.
        auto watched = running ? client.addWatchFolder(*folder) : config.addWatchFolder(*folder);
        if (!watched)
            return vkCliFail(cli, watched.error());
        std::printf("watching %s%s\n", vkCliText(*folder).c_str(), later);
    }
    if (options.start) {
        if (running) {
            std::optional<pid_t> pid = VkFileMonService::runningPid(ctx->dataFolder);
            std::printf("the file monitor is already running%s\n",
                        pid && *pid > 0 ? (" (pid " + std::to_string(*pid) + ")").c_str() : "");
            return;
        }
        auto started = client.start();
        if (!started)
            return vkCliFail(cli, started.error());
        std::printf("file monitor running\n");
        return;
    }
    if (changes)
        return;
    if (running)
        return failAlreadyRunning(cli, ctx->dataFolder);

    VkFileMonServiceOptions serviceOptions;
    serviceOptions.watchFolders.push_back(VkMonitorConfig::downloadFolder());
    for (const std::string& folder : config.savedWatchFolders())
        serviceOptions.watchFolders.push_back(folder);
    serviceOptions.settleSeconds = config.settleSeconds();
    if (!stdoutIsJournal()) {
        serviceOptions.report = [](const std::string& line) {
            // The lines name the files the monitor judged.
            std::printf("%s\n", vkCliText(line).c_str());
            std::fflush(stdout);
        };
    }
    // As the scan center does: the packaged databases go in first, then staged updates.
    VkAddTorjanItems(ctx).copyToLocalPath();
    // A monitor without signatures would call every file clean; refusing makes the
    // service manager see a failure instead.
    if (VkSqliteManager::loadAllRecords(ctx).empty()) {
        return vkCliFail(cli, "no signatures loaded from " + ctx->dataFolder +
                                  ": the file monitor does not start without them (run "
                                  "`vksecurity update`, or check that the folder is writable)");
    }
    VkFileMonService service(ctx, serviceOptions);
    if (auto started = service.start(); !started) {
        if (VkFileMonService::runningPid(ctx->dataFolder))
            return failAlreadyRunning(cli, ctx->dataFolder);
        return vkCliFail(cli, started.error());
    }
    runningService.store(&service);
    std::signal(SIGINT, stopOnSignal);
    std::signal(SIGTERM, stopOnSignal);
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    service.run();
    runningService.store(nullptr);
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

}  // namespace

static VkCliCommand registration(600, [](CLI::App& app, VkCli& cli) {
    auto options = std::make_shared<MonitorOptions>();
    auto* cmd = app.add_subcommand(
        "monitor",
        "Run the file monitor in the foreground: judge every new file in the download folder "
        "(and the folders added with --watch) and record the infected ones");
    cmd->add_option("--watch", options->watch,
                    "Also watch this folder; it is remembered for later starts and handed to "
                    "a monitor that is already running")
        ->type_name("DIR");
    cmd->add_option("--unwatch", options->unwatch, "Stop watching a folder added with --watch")
        ->type_name("DIR");
    cmd->add_option("--settle", options->settle,
                    "Seconds a complete file must stay unchanged before it is judged "
                    "(remembered; default 1)")
        ->type_name("SECONDS")
        ->check(CLI::Validator(
            [](std::string& text) {
                double seconds = 0;
                bool ok =
                    CLI::detail::lexical_cast(text, seconds) && seconds > 0 && seconds <= 3600;
                return ok ? std::string()
                          : "the settle time must be more than 0 and at most 3600 seconds";
            },
            "", ""));
    auto* status = cmd->add_flag(
        "--status", options->status,
        "Tell whether the monitor runs, what it watches and how many records it keeps (exit "
        "code 3 when it is not running)");
    auto* start = cmd->add_flag("--start", options->start,
                                "Start the monitor in the background, as the panel's switch does "
                                "(says so when it already runs)");
    auto* stop = cmd->add_flag("--stop", options->stop, "Stop the running monitor");
    start->excludes(stop);
    status->excludes(start)->excludes(stop);
    cmd->footer(
        "Without --start, --stop or --status the monitor runs in the foreground, unless "
        "--watch, --unwatch or --settle only change a setting. Exit codes: 0 done, 2 an error, "
        "3 not running (--status), 4 another monitor already runs for this data folder.");
    cmd->callback([&cli, options] { runMonitor(cli, *options); });
});
