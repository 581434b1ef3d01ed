#include <clocale>
#include <cstdio>

#include <CLI/CLI.hpp>

#include "VkCliApp.h"
#include "VkSig.h"

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    CLI::App app{"vksig: builds and inspects signature databases", "vksig"};
    app.set_version_flag("--version", std::string("vksig ") + VK_VERSION);
    app.require_subcommand(1, 1);

    VkSigCli cli;
    VkSigCommand::setupAll(app, cli);

    if (auto exitCode = vkcli::parse(app, argc, argv, kSigExitError))
        return *exitCode;
    return cli.exitCode;
}
