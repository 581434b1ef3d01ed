#pragma once

#include <memory>
#include <string>

#include "platform/VkClock.h"
#include "platform/VkCoreFunction.h"
#include "platform/VkInspectedSystem.h"
#include "platform/VkLocalizer.h"
#include "platform/VkMainQueue.h"
#include "platform/VkNotificationCenter.h"
#include "platform/VkPacing.h"
#include "platform/VkProcessList.h"
#include "platform/VkSystemLog.h"
#include "platform/VkUserDefaults.h"

class VkNetClient;
class VkHostReporter;

// Choices that a program may make when it builds its context (command-line options).
struct VkContextOptions {
    std::string systemRoot;      // "" = environment or "/"
    std::string dataFolder;      // "" = VK_DATA_DIR or the platform's default
    std::string defaultsFile;    // "" = VK_DEFAULTS_FILE or the platform's default
    std::string userName;        // "" = the effective user
    std::string homeDirectory;   // "" = derived (see VkContext::homeDirectory)
    std::string resourceFolder;  // "" = VK_RESOURCE_DIR or found beside the program
};

// Every machine-dependent input in one place. Subsystems take a context in their
// constructors; the process-wide default is built from the environment, tests build
// their own in a temporary folder.
//
// Paths of the inspected system (what "~" expands to, program paths read from its files)
// are kept apart from paths on this machine: only when a file is touched is an inspected
// path resolved under systemRoot with resolve().
struct VkContext {
    std::string systemRoot = "/";
    std::string loginName;
    // The inspected system's home: this user's home for the root "/", else
    // "/Users/<login>" inside the inspected system.
    std::string homeDirectory;
    // This machine's folder for databases, "temp", "Logs", "trojan_Quarantine".
    std::string dataFolder;
    std::string defaultsFile;
    std::string resourceFolder;
    std::string updateServer = "https://update.velkora.com";
    // Public keys an administrator adds to the ones shipped in resourceFolder/"updatekeys":
    // an update manifest must be signed by one of them.
    std::string updateKeysFolder = "/etc/vksecurity/update-keys";

    std::shared_ptr<VkClock> clock;
    std::shared_ptr<VkMainQueue> mainQueue;
    std::shared_ptr<VkNotificationCenter> notificationCenter;
    std::shared_ptr<VkUserDefaults> userDefaults;
    std::shared_ptr<VkCoreFunction> coreFunction;
    std::shared_ptr<VkSystemLog> systemLog;
    std::shared_ptr<VkProcessList> processList;
    std::shared_ptr<VkLocalizer> localizer;
    std::shared_ptr<VkPacing> pacing;
    std::shared_ptr<VkNetClient> netClient;
    std::shared_ptr<VkHostReporter> hostReporter;

    // Builds a context from the environment and the options, with the real services of
    // this floor; the file monitor's client is added by the programs' composition root
    // (center/VkServices), since the monitor lives above.
    static std::shared_ptr<VkContext> create(const VkContextOptions& options = {});
    // A context rooted in `folder` for tests: system root folder/root, data folder
    // folder/data, defaults folder/defaults.plist, home "/Users/<login>", a manual clock
    // and a run-loop main queue on it, a captured log and real file operations.
    static std::shared_ptr<VkContext> forTesting(const std::string& folder);

    // An XDG base folder from the environment (XDG_CONFIG_HOME, XDG_RUNTIME_DIR, ...): the
    // value when it is an absolute path, else "" (the XDG rules say a relative one is to be
    // ignored, as if unset).
    static std::string xdgFolder(const char* variable);

    // The process-wide context (built from the environment on first use).
    static std::shared_ptr<VkContext> defaultContext();
    // Replaces the process-wide context; call before any shared instance is made.
    static void setDefaultContext(std::shared_ptr<VkContext> context);

    // The root and home above, for classes that need only those.
    VkInspectedSystem inspectedSystem() const { return {systemRoot, homeDirectory}; }
    // An absolute path of the inspected system as a path on this machine.
    std::string resolve(const std::string& inspectedPath) const;
    // Expands a leading "~" or "~/" to the inspected system's home; other paths unchanged.
    std::string expandTilde(const std::string& path) const;
    // dataFolder joined with a component.
    std::string dataPath(const std::string& component) const;
};
