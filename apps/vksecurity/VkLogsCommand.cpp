// `vksecurity logs`: the scan history.
#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

#include "VkCli.h"
#include "logs/VkFileMonLogsItem.h"
#include "logs/VkScanLogsOper.h"
#include "platform/VkNetClient.h"
#include "support/VkCliOutput.h"
#include "support/VkStringExtern.h"

namespace {

const char* scanKind(int32_t type) {
    switch (type) {
        case 0:
            return "quick";
        case 1:
            return "full";
        case 2:
            return "custom";
        default:
            return "other";
    }
}

const char* operation(int32_t op) {
    switch (op) {
        case 0:
            return "removed";
        case 1:
            return "trusted";
        case 2:
            return "found";
        default:
            return "other";
    }
}

std::string timeText(const std::optional<VkDate>& date) {
    // Not a number, infinite or past year 9999 (a forged record): no date to show, and a
    // cast to time_t would be undefined.
    constexpr double kLimit = 253402300800.0;
    if (!date || !(date->secondsSince1970 > -kLimit && date->secondsSince1970 < kLimit))
        return "unknown time";
    std::time_t t = static_cast<std::time_t>(date->secondsSince1970);
    std::tm local{};
    if (!::localtime_r(&t, &local))
        return "unknown time";
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
    return buf;
}

struct LogsOptions {
    bool clear = false;
    bool monitor = false;
    int64_t keepDays = -1;  // -1: not asked to change
};

// The file monitor's records (through the monitor service, or its records file when the
// service is not running).
void showMonitorLogs(VkCli& cli, const LogsOptions& options) {
    auto ctx = cli.context();
    if (!ctx->netClient) {
        vkCliFail(cli, "the file monitor is not available on this system");
        return;
    }
    if (options.clear) {
        if (!ctx->netClient->removeAllFileMonLogs()) {
            vkCliFail(cli, "the file monitor's records could not be deleted");
            return;
        }
        if (!cli.json)
            std::printf("The file monitor's records are deleted.\n");
        return;
    }
    VkFileMonLogsItem::Items items;
    if (auto bytes = ctx->netClient->fileMonLogs(); bytes && !bytes->empty()) {
        auto decoded = VkFileMonLogsItem::unarchiveItems(*bytes);
        if (!decoded) {
            vkCliFail(cli, "the file monitor's records cannot be read: " + decoded.error());
            return;
        }
        if (*decoded)
            items = **decoded;
    }
    if (cli.json) {
        nlohmann::json out = nlohmann::json::array();
        for (const auto& item : items) {
            nlohmann::json j = {{"name", item->trojanName().value_or("")}};
            vkJsonSetPath(j, "path", item->filePath().value_or(""));
            if (auto t = item->downLoadTime())
                j["downloadTime"] = t->secondsSince1970;
            if (auto t = item->logTime())
                j["logTime"] = t->secondsSince1970;
            if (auto p = item->processName())
                j["processName"] = *p;
            if (auto p = item->processPath())
                vkJsonSetPath(j, "processPath", *p);
            out.push_back(j);
        }
        std::printf("%s\n", vkJsonText(out, 2).c_str());
        return;
    }
    if (items.empty()) {
        std::printf("The file monitor has recorded nothing.\n");
        return;
    }
    for (const auto& item : items) {
        std::printf("%s  %s: %s%s%s\n", timeText(item->logTime()).c_str(),
                    vkCliText(item->filePath().value_or("?")).c_str(),
                    vkCliText(item->trojanName().value_or("?")).c_str(),
                    item->processName() ? " (written by " : "",
                    item->processName() ? (vkCliText(*item->processName()) + ")").c_str() : "");
    }
}

void showLogs(VkCli& cli, const LogsOptions& options) {
    if (options.monitor) {
        showMonitorLogs(cli, options);
        return;
    }
    auto context = cli.context();
    if (options.keepDays >= 0) {
        if (!context->userDefaults->setInteger(kLogsKeepDayKey, options.keepDays)) {
            vkCliFail(cli, "cannot store the setting in " + context->defaultsFile);
            return;
        }
        if (!cli.json)
            std::printf("The scan history keeps %lld day%s of scans.\n",
                        static_cast<long long>(options.keepDays), options.keepDays == 1 ? "" : "s");
        return;
    }
    auto logs = VkScanLogsOper::sharedOper();
    if (options.clear) {
        logs->removeAllLogs();
        if (!cli.json)
            std::printf("The scan history is empty now.\n");
        return;
    }
    // A history that cannot be read is not an empty one; the next write sets it aside.
    if (!logs->loadError().empty()) {
        vkCliFail(cli, "the scan history " + logs->logsFilePath() + " cannot be read (" +
                           logs->loadError() + ")");
        return;
    }
    const auto& nodes = logs->scanLogsArray();
    if (cli.json) {
        nlohmann::json out = nlohmann::json::array();
        for (const auto& node : nodes) {
            nlohmann::json items = nlohmann::json::array();
            for (const auto& item : node->scanLogsItems()) {
                nlohmann::json entry = {{"size", item->fileSize()},
                                        {"operation", operation(item->operType())},
                                        {"name", item->trojanName().value_or("")}};
                vkJsonSetPath(entry, "path", item->filePath());
                items.push_back(std::move(entry));
            }
            out.push_back({{"kind", scanKind(node->scanType())},
                           {"time", node->scanTime() ? node->scanTime()->secondsSince1970 : 0.0},
                           {"entries", items}});
        }
        std::printf("%s\n", vkJsonText(out, 2).c_str());
        return;
    }
    if (nodes.empty()) {
        std::printf("No scans recorded.\n");
        return;
    }
    for (const auto& node : nodes) {
        const auto& items = node->scanLogsItems();
        std::printf("%s  %-6s scan  %zu entr%s\n", timeText(node->scanTime()).c_str(),
                    scanKind(node->scanType()), items.size(), items.size() == 1 ? "y" : "ies");
        for (const auto& item : items) {
            std::printf("    %-7s %s (%s, %s)\n", operation(item->operType()),
                        vkCliText(item->filePath()).c_str(),
                        vkCliText(item->trojanName().value_or("no name")).c_str(),
                        stringFromFileSize(item->fileSize()).c_str());
        }
    }
}

}  // namespace

static VkCliCommand registration(40, [](CLI::App& app, VkCli& cli) {
    auto options = std::make_shared<LogsOptions>();
    auto* cmd = app.add_subcommand("logs", "Show the scan history or the file monitor's records");
    cmd->add_flag("--clear", options->clear,
                  "Delete the scan history (with --monitor: the monitor's records)");
    cmd->add_flag("--monitor", options->monitor, "Show the file monitor's records instead");
    cmd->add_option("--keep-days", options->keepDays,
                    "Keep this many days of scan history (stored; default 30)")
        ->check(CLI::Range(int64_t{0}, int64_t{36500}));
    cmd->callback([&cli, options] { showLogs(cli, *options); });
});
