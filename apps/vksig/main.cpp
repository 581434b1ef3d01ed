#include <clocale>
#include <cstdio>

#include <CLI/CLI.hpp>

#include "VkSig.h"

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    CLI::App app{"vksig: builds and inspects signature databases"};
    app.set_version_flag("--version", std::string("vksig ") + VK_VERSION);
    app.require_subcommand(1, 1);

    VkSigCli cli;
    VkSigCommand::setupAll(app, cli);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int code = app.exit(e);
        return code == 0 ? kSigExitOk : kSigExitError;
    }
    return cli.exitCode;
}
