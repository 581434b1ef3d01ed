#include <clocale>
#include <cstdio>

#include <CLI/CLI.hpp>

#include "VkCli.h"
#include "VkCliApp.h"
#include "database/VkSqliteManager.h"
#include "support/VkCliOutput.h"

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    // Names and messages follow the user's locale; numbers are always written with a
    // point, so that output reads the same everywhere and JSON stays JSON.
    std::setlocale(LC_NUMERIC, "C");
    // The store's complaints about a database file are messages for the user, never part
    // of the output (JSON included).
    VkSqliteManager::setErrorSink([](const std::string& message) {
        std::fprintf(stderr, "vksecurity: errorMsg %s\n", vkCliText(message).c_str());
    });
    CLI::App app{"vksecurity: finds, removes and quarantines known Mac trojans", "vksecurity"};
    app.set_version_flag("--version", std::string("vksecurity ") + VK_VERSION);
    app.require_subcommand(0, 1);
    app.fallthrough();

    VkCli cli;
    app.add_option("--root", cli.systemRoot,
                   "Inspect the system below this folder (a mounted Mac volume or a test tree)")
        ->check(CLI::ExistingDirectory);
    app.add_option("--data-dir", cli.dataFolder,
                   "Folder of signature databases, logs and quarantine (default: VK_DATA_DIR, "
                   "else the user's data folder)");
    app.add_option("--user", cli.userName, "Login name of the inspected system's user");
    app.add_option("--home", cli.homeDirectory, "Home folder of the inspected system's user");
    app.add_flag("--json", cli.json, "Machine-readable output");

    VkCliCommand::setupAll(app, cli);

    if (auto exitCode = vkcli::parse(app, argc, argv, kExitError))
        return *exitCode;
    if (app.get_subcommands().empty()) {
        // Options alone (`vksecurity --json`) name no command.
        std::fputs(app.help().c_str(), stderr);
        return kExitError;
    }
    return cli.exitCode;
}
