#pragma once

// The command-line conventions vksecurity and vksig share: every error names the program,
// a command that does not exist is called unknown, no arguments at all print the help on
// stderr with the usage exit code, and "Usage:" shows the program's name rather than the
// path it was started by.

#include <cstdio>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace vkcli {

// The command path ("trust", "quarantine restore") of the deepest command chosen on the
// command line, and the first word left over there when that command has commands of its
// own: the name the user took for a command.
inline std::optional<std::string> unknownCommand(CLI::App& app) {
    CLI::App* at = &app;
    std::string path;
    while (!at->get_subcommands().empty()) {
        at = at->get_subcommands().front();
        path += (path.empty() ? "" : " ") + at->get_name();
    }
    bool hasCommands = !at->get_subcommands([](CLI::App*) { return true; }).empty();
    if (!hasCommands)
        return std::nullopt;
    // A word the command does not take may have fallen through to the commands above.
    for (const std::string& word : app.remaining(true)) {
        if (!word.empty() && word[0] != '-')
            return path.empty() ? word : path + " " + word;
    }
    return std::nullopt;
}

// Parses the command line; the commands run from their callbacks meanwhile. Returns the
// exit code when parsing itself ended the run (help, version, a usage error), else nullopt.
// `app` must have been made with the program's name.
inline std::optional<int> parse(CLI::App& app, int argc, char** argv, int usageExit) {
    const std::string name = app.get_name();
    app.failure_message([name](const CLI::App*, const CLI::Error& e) {
        return name + ": " + e.what() + "\nRun with --help for more information.\n";
    });
    if (argc <= 1) {
        std::fputs(app.help().c_str(), stderr);
        return usageExit;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() != 0) {
            if (auto unknown = unknownCommand(app)) {
                std::fprintf(stderr,
                             "%s: unknown command: %s\nRun with --help for more information.\n",
                             name.c_str(), unknown->c_str());
                return usageExit;
            }
        }
        return app.exit(e) == 0 ? 0 : usageExit;
    }
    return std::nullopt;
}

}  // namespace vkcli
