#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "platform/VkContext.h"

// Exit codes of every command: clean, something found, error; a scan stopped by a signal
// ends as the shell's convention for SIGINT has it.
constexpr int kExitClean = 0;
constexpr int kExitFound = 1;
constexpr int kExitError = 2;
constexpr int kExitInterrupted = 130;

// Days of scan history a host keeps; the command line registers this default, the panel
// host passes its own.
constexpr const char* kLogsKeepDayKey = "LogsKeepDay";
constexpr int64_t kDefaultLogsKeepDays = 30;

// Options shared by every command, and what the chosen command decided.
struct VkCli {
    std::string systemRoot;
    std::string dataFolder;
    std::string userName;
    std::string homeDirectory;
    bool json = false;
    int exitCode = kExitClean;

    // Builds the context from the options (once) and makes it the process-wide default.
    std::shared_ptr<VkContext> context();

  private:
    std::shared_ptr<VkContext> context_;
};

// Each command registers itself from its own file:
//   static VkCliCommand registration("paths", [](CLI::App& app, VkCli& cli) { ... });
// `order` sorts the commands in the help text.
class VkCliCommand {
  public:
    using Setup = std::function<void(CLI::App& app, VkCli& cli)>;
    VkCliCommand(int order, Setup setup);

    static void setupAll(CLI::App& app, VkCli& cli);
};

// Prints an error message for the user (escaped: it may quote names read from files) and
// sets the error exit code.
void vkCliFail(VkCli& cli, const std::string& message);

// A path named on the command line made absolute (from the working folder) and lexically
// normal ("." and empty components dropped, "a/.." folded), so that it names the file as
// a full scan reaches it. Links are not resolved.
std::string vkCliAbsolutePath(const std::string& path);
