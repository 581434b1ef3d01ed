#include "VkCli.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <pwd.h>
#include <unistd.h>
#include <vector>

#include "center/VkServices.h"
#include "platform/VkFileUtil.h"
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

namespace {

// `--json` works anywhere on the line; each command lists it in its own help too.
void addJsonFlag(CLI::App& command, VkCli& cli) {
    if (!command.get_option_no_throw("--json"))
        command.add_flag("--json", cli.json, "Machine-readable output");
    for (CLI::App* sub : command.get_subcommands([](CLI::App*) { return true; }))
        addJsonFlag(*sub, cli);
}

bool systemHasUser(const std::string& name) {
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::string buf(size > 0 ? static_cast<size_t>(size) : 16384, '\0');
    struct passwd pw {};
    struct passwd* found = nullptr;
    return ::getpwnam_r(name.c_str(), &pw, buf.data(), buf.size(), &found) == 0 && found;
}

}  // namespace

void VkCliCommand::setupAll(CLI::App& app, VkCli& cli) {
    auto& commands = registry();
    std::stable_sort(commands.begin(), commands.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& [order, setup] : commands)
        setup(app, cli);
    for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; }))
        addJsonFlag(*command, cli);
    // Before any command runs: a user the inspected system does not have would make every
    // command look at a home that is not there and report it clean.
    app.parse_complete_callback([&cli] {
        if (cli.userName.empty())
            return;
        auto ctx = cli.context();
        bool isDirectory = false;
        bool home = VkFile::exists(ctx->resolve(ctx->homeDirectory), &isDirectory) && isDirectory;
        if (!home && !(ctx->systemRoot == "/" && systemHasUser(cli.userName)))
            throw CLI::ValidationError("--user", "the inspected system has no user \"" +
                                                     cli.userName + "\" (no home folder " +
                                                     ctx->homeDirectory + ")");
    });
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
