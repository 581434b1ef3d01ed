#include "VkCli.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "center/VkServices.h"
#include "support/VkCliOutput.h"

namespace {

std::vector<std::pair<int, VkCliCommand::Setup>>& registry() {
    static std::vector<std::pair<int, VkCliCommand::Setup>> commands;
    return commands;
}

}  // namespace

std::shared_ptr<VkContext> VkCli::context() {
    if (!context_) {
        VkContextOptions options;
        options.systemRoot = systemRoot;
        options.dataFolder = dataFolder;
        options.userName = userName;
        options.homeDirectory = homeDirectory;
        context_ = VkServices::createContext(options);
        // The command line is a host like the panel's: the scan history keeps this many
        // days unless the user stored another number (`vksecurity logs --keep-days N`).
        context_->userDefaults->registerDefaults(
            {{kLogsKeepDayKey, VkPlist::integer(kDefaultLogsKeepDays)}});
        VkContext::setDefaultContext(context_);
        // The settings start afresh when their file cannot be read; the file is kept aside.
        if (context_->userDefaults) {
            if (std::string aside = context_->userDefaults->quarantinedCopy(); !aside.empty()) {
                std::fprintf(stderr,
                             "vksecurity: warning: the settings file %s cannot be read; it was "
                             "moved to %s and the settings start afresh\n",
                             context_->defaultsFile.c_str(), aside.c_str());
            }
        }
    }
    return context_;
}

VkCliCommand::VkCliCommand(int order, Setup setup) {
    registry().emplace_back(order, std::move(setup));
}

void VkCliCommand::setupAll(CLI::App& app, VkCli& cli) {
    auto& commands = registry();
    std::stable_sort(commands.begin(), commands.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& [order, setup] : commands)
        setup(app, cli);
}

void vkCliFail(VkCli& cli, const std::string& message) {
    std::fprintf(stderr, "vksecurity: %s\n", vkCliText(message).c_str());
    cli.exitCode = kExitError;
}

std::string vkCliAbsolutePath(const std::string& path) {
    std::filesystem::path p(path);
    if (p.is_relative()) {
        std::error_code ec;
        p = std::filesystem::current_path(ec) / p;
    }
    std::string normal = p.lexically_normal().string();
    while (normal.size() > 1 && normal.back() == '/')
        normal.pop_back();
    return normal;
}
