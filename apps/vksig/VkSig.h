#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "database/VkSqliteManager.h"
#include "engine/VkTorjanItem.h"
#include "platform/VkResult.h"

// Exit codes: done, problems found (verify), error (bad arguments, unreadable files, a file
// that is not a signature database).
constexpr int kSigExitOk = 0;
constexpr int kSigExitProblems = 1;
constexpr int kSigExitError = 2;

// What the chosen command decided.
struct VkSigCli {
    int exitCode = kSigExitOk;
};

// Each command registers itself from its own file:
//   static VkSigCommand registration(10, [](CLI::App& app, VkSigCli& cli) { ... });
// `order` sorts the commands in the help text.
class VkSigCommand {
  public:
    using Setup = std::function<void(CLI::App& app, VkSigCli& cli)>;
    VkSigCommand(int order, Setup setup);

    static void setupAll(CLI::App& app, VkSigCli& cli);
};

// Prints "vksig: message" to standard error (escaped: it may quote names read from files) and
// sets the error exit code.
void vkSigFail(VkSigCli& cli, const std::string& message);

// An existing signature database, checked read-only first (a foreign SQLite file would
// otherwise get our tables), then opened with its records and description loaded.
VkResult<std::unique_ptr<VkSqliteManager>> vkSigOpenExisting(const std::string& path);

// The hash text of an MD5 given on the command line or in a hash list: 32 hex digits, any
// case, stored in lower case as the scanner computes it. nullopt when it is not one.
std::optional<std::string> vkSigHashText(const std::string& text);

// A kill entry from "d:FOLDER:NAME" (delete FOLDER/NAME) or "k:PROCESS" (kill every process
// of that name).
VkResult<VkKillEntry> vkSigParseKill(const std::string& spec);

// A copy of a stored record with its text fields deciphered.
std::shared_ptr<VkTorjanItem> vkSigDeciphered(const VkTorjanItem& stored);
