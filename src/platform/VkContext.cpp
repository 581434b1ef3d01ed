#include "platform/VkContext.h"

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <pwd.h>
#include <unistd.h>

#include "platform/VkFileUtil.h"
#include "platform/VkInstallLayout.h"

namespace {

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? std::string(v) : std::string();
}

struct UserInfo {
    std::string login;
    std::string home;
};

UserInfo effectiveUser() {
    UserInfo info;
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::string buf(size > 0 ? static_cast<size_t>(size) : 16384, '\0');
    struct passwd pw {};
    struct passwd* found = nullptr;
    if (::getpwuid_r(::geteuid(), &pw, buf.data(), buf.size(), &found) == 0 && found) {
        info.login = found->pw_name ? found->pw_name : "";
        info.home = found->pw_dir ? found->pw_dir : "";
    }
    if (info.login.empty())
        info.login = env("USER");
    if (info.home.empty())
        info.home = env("HOME");
    return info;
}

std::string findResourceFolder() {
    if (std::string v = env("VK_RESOURCE_DIR"); !v.empty())
        return v;
    return VkInstallLayout::current().resourceFolder();
}

std::mutex& defaultMutex() {
    static std::mutex m;
    return m;
}

std::shared_ptr<VkContext>& defaultSlot() {
    static std::shared_ptr<VkContext> slot;
    return slot;
}

}  // namespace

std::shared_ptr<VkContext> VkContext::create(const VkContextOptions& options) {
    auto ctx = std::make_shared<VkContext>();
    UserInfo user = effectiveUser();

    std::string root = options.systemRoot.empty() ? env("VK_SYSTEM_ROOT") : options.systemRoot;
    if (root.empty())
        root = "/";
    if (root.size() > 1 && root.back() == '/')
        root.pop_back();
    ctx->systemRoot = root;

    ctx->loginName = options.userName.empty() ? user.login : options.userName;
    if (!options.homeDirectory.empty()) {
        ctx->homeDirectory = options.homeDirectory;
    } else if (root == "/" && options.userName.empty()) {
        ctx->homeDirectory = user.home;
    } else {
        // Another volume (or another user): that system's own home, never ours.
        ctx->homeDirectory = "/Users/" + ctx->loginName;
    }

    std::string dataFolder = options.dataFolder.empty() ? env("VK_DATA_DIR") : options.dataFolder;
    if (dataFolder.empty()) {
#ifdef __APPLE__
        dataFolder = "/Users/" + user.login + "/Library/Application Support/Velkora";
#else
        std::string xdg = xdgFolder("XDG_DATA_HOME");
        std::string base = xdg.empty() ? VkFile::join(user.home, ".local/share") : xdg;
        // A fresh account may have no data home yet; the base folder is made owner-only by
        // whoever writes first. Our own folder below it is still made only when installing,
        // and a home that does not exist (a system account's) is not made up either.
        if (!xdg.empty() || VkFile::exists(user.home))
            VkFile::createDirectory(base, true, 0700);
        dataFolder = VkFile::join(base, "Velkora");
#endif
    }
    // Records (quarantine list, logs) keep full paths: never store them relative.
    if (!dataFolder.empty() && dataFolder[0] != '/') {
        std::error_code ec;
        auto absolute = std::filesystem::absolute(dataFolder, ec);
        if (!ec)
            dataFolder = absolute.lexically_normal().string();
    }
    ctx->dataFolder = dataFolder;

    std::string defaults =
        options.defaultsFile.empty() ? env("VK_DEFAULTS_FILE") : options.defaultsFile;
    if (defaults.empty()) {
#ifdef __APPLE__
        defaults = VkFile::join(user.home, "Library/Preferences/com.velkora.VkSecurity.plist");
#else
        std::string xdg = xdgFolder("XDG_CONFIG_HOME");
        defaults = VkFile::join(xdg.empty() ? VkFile::join(user.home, ".config") : xdg,
                                "Velkora/VkSecurity.plist");
#endif
    }
    ctx->defaultsFile = defaults;
    ctx->resourceFolder =
        options.resourceFolder.empty() ? findResourceFolder() : options.resourceFolder;
    if (std::string keys = env("VK_UPDATE_KEYS_DIR"); !keys.empty())
        ctx->updateKeysFolder = keys;

    ctx->clock = std::make_shared<VkSystemClock>();
    ctx->mainQueue = std::make_shared<VkRunLoopMainQueue>(ctx->clock);
    ctx->notificationCenter = std::make_shared<VkNotificationCenter>();
    ctx->userDefaults = std::make_shared<VkUserDefaults>(ctx->defaultsFile);
    // The environment first, then the setting, then the vendor's server.
    if (std::string server = env("VK_UPDATE_SERVER"); !server.empty())
        ctx->updateServer = server;
    else if (auto setting = ctx->userDefaults->stringForKey("UpdateServer");
             setting && !setting->empty())
        ctx->updateServer = *setting;
    ctx->coreFunction = std::make_shared<VkSystemCoreFunction>(ctx->systemRoot, ctx->dataFolder,
                                                               ctx->homeDirectory);
    ctx->systemLog = std::make_shared<VkSystemLog>();
    ctx->processList = std::make_shared<VkSystemProcessList>();
    ctx->localizer =
        std::make_shared<VkLocalizer>(ctx->resourceFolder, VkLocalizer::languageFromEnvironment());
    ctx->pacing = std::make_shared<VkPacing>();
    return ctx;
}

std::shared_ptr<VkContext> VkContext::forTesting(const std::string& folder) {
    auto ctx = std::make_shared<VkContext>();
    ctx->systemRoot = VkFile::join(folder, "root");
    VkFile::createDirectory(ctx->systemRoot, true);
    ctx->loginName = "tester";
    ctx->homeDirectory = "/Users/tester";
    ctx->dataFolder = VkFile::join(folder, "data");
    ctx->defaultsFile = VkFile::join(folder, "defaults.plist");
    ctx->resourceFolder = VkFile::join(folder, "resources");
    ctx->updateServer = "http://127.0.0.1:9";
    ctx->updateKeysFolder = VkFile::join(folder, "update-keys");
    auto clock = std::make_shared<VkManualClock>();
    ctx->clock = clock;
    ctx->mainQueue = std::make_shared<VkRunLoopMainQueue>(clock);
    ctx->notificationCenter = std::make_shared<VkNotificationCenter>();
    ctx->userDefaults = std::make_shared<VkUserDefaults>(ctx->defaultsFile);
    ctx->coreFunction = std::make_shared<VkSystemCoreFunction>(ctx->systemRoot, ctx->dataFolder,
                                                               ctx->homeDirectory);
    ctx->systemLog = std::make_shared<VkCapturedLog>();
    ctx->processList = std::make_shared<VkSystemProcessList>();
    ctx->localizer = std::make_shared<VkLocalizer>();
    ctx->pacing = std::make_shared<VkPacing>();
    return ctx;
}

std::string VkContext::xdgFolder(const char* variable) {
    std::string value = env(variable);
    return !value.empty() && value[0] == '/' ? value : std::string();
}

std::shared_ptr<VkContext> VkContext::defaultContext() {
    std::lock_guard lock(defaultMutex());
    auto& slot = defaultSlot();
    if (!slot)
        slot = create();
    return slot;
}

void VkContext::setDefaultContext(std::shared_ptr<VkContext> context) {
    std::lock_guard lock(defaultMutex());
    defaultSlot() = std::move(context);
}

std::string VkContext::resolve(const std::string& inspectedPath) const {
    return inspectedSystem().resolve(inspectedPath);
}

std::string VkContext::expandTilde(const std::string& path) const {
    return inspectedSystem().expandTilde(path);
}

std::string VkContext::dataPath(const std::string& component) const {
    return VkFile::join(dataFolder, component);
}
