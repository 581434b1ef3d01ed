#include <CLI/CLI.hpp>

#include <cstdio>

int main(int argc, char** argv) {
    CLI::App app{"vksecurity: finds, removes and quarantines known Mac trojans"};
    app.set_version_flag("--version", std::string("vksecurity 0.1.0"));
    app.require_subcommand(0, 1);
    CLI11_PARSE(app, argc, argv);
    if (app.get_subcommands().empty()) {
        std::fputs(app.help().c_str(), stdout);
    }
    return 0;
}
