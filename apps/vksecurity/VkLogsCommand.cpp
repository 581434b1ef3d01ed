// `vksecurity logs`: the scan history.
#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

#include "VkCli.h"
#include "logs/VkScanLogsOper.h"
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
    if (!date)
        return "unknown time";
    std::time_t t = static_cast<std::time_t>(date->secondsSince1970);
    std::tm local{};
    ::localtime_r(&t, &local);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
    return buf;
}

struct LogsOptions {
    bool clear = false;
};

void showLogs(VkCli& cli, const LogsOptions& options) {
    cli.context();
    auto logs = VkScanLogsOper::sharedOper();
    if (options.clear) {
        logs->removeAllLogs();
        if (!cli.json)
            std::printf("The scan history is empty now.\n");
        return;
    }
    const auto& nodes = logs->scanLogsArray();
    if (cli.json) {
        nlohmann::json out = nlohmann::json::array();
        for (const auto& node : nodes) {
            nlohmann::json items = nlohmann::json::array();
            for (const auto& item : node->scanLogsItems()) {
                items.push_back({{"path", item->filePath()},
                                 {"size", item->fileSize()},
                                 {"operation", operation(item->operType())},
                                 {"name", item->trojanName().value_or("")}});
            }
            out.push_back({{"kind", scanKind(node->scanType())},
                           {"time", node->scanTime() ? node->scanTime()->secondsSince1970 : 0.0},
                           {"entries", items}});
        }
        std::printf("%s\n",
                    out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
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
                        item->filePath().c_str(), item->trojanName().value_or("no name").c_str(),
                        stringFromFileSize(item->fileSize()).c_str());
        }
    }
}

}  // namespace

static VkCliCommand registration(40, [](CLI::App& app, VkCli& cli) {
    auto options = std::make_shared<LogsOptions>();
    auto* cmd = app.add_subcommand("logs", "Show the scan history");
    cmd->add_flag("--clear", options->clear, "Delete the scan history");
    cmd->callback([&cli, options] { showLogs(cli, *options); });
});
