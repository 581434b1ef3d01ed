#include <cstdio>

#include "VkSig.h"
#include "platform/VkFileUtil.h"
#include "support/VkCliOutput.h"

// `vksig create DB --name N --version V`: a new, empty signature database.
static VkSigCommand registration(10, [](CLI::App& app, VkSigCli& cli) {
    struct Options {
        std::string path;
        std::string name;
        std::string version;
    };
    auto options = std::make_shared<Options>();
    auto* cmd = app.add_subcommand("create", "Create an empty signature database");
    cmd->add_option("DB", options->path, "Database file to create (name ending in .sql)")
        ->required();
    cmd->add_option("--name", options->name,
                    "Database name (files with one name are versions "
                    "of one database)")
        ->required();
    cmd->add_option("--version", options->version,
                    "Database version, e.g. 1.0 (compared "
                    "numerically: 1.10 is newer than 1.9)")
        ->required();
    cmd->callback([options, &cli] {
        if (VkFile::pathExtension(options->path) != "sql")
            return vkSigFail(cli, options->path + ": the file name must end in \".sql\"");
        if (options->name.empty() || options->version.empty())
            return vkSigFail(cli, "--name and --version must not be empty");
        if (VkFile::existsNoFollow(options->path))
            return vkSigFail(cli, options->path + ": already exists");
        std::string folder = VkFile::deletingLastPathComponent(options->path);
        bool isDirectory = false;
        if (!folder.empty() && (!VkFile::exists(folder, &isDirectory) || !isDirectory))
            return vkSigFail(cli, folder + ": no such folder");

        VkSqliteManager manager(std::make_shared<VkContext>());
        manager.openDataBase(options->path);
        bool described =
            manager.isOpen() && manager.addDataBaseInfo(std::make_shared<VkDataBaseInfo>(
                                    options->name, options->version));
        manager.closeDataBase();
        if (!described) {
            VkFile::removeTree(options->path);
            return vkSigFail(cli, options->path + ": cannot be created");
        }
        std::printf("created %s: %s %s\n", vkCliText(options->path).c_str(),
                    vkCliText(options->name).c_str(), vkCliText(options->version).c_str());
    });
});
