#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "VkCli.h"
#include "database/VkSqliteManager.h"
#include "platform/VkFileUtil.h"
#include "support/VkCliOutput.h"

namespace {

struct Listed {
    std::string path;
    std::optional<std::string> name;
    std::optional<std::string> version;
    bool readable = false;
    std::string problem;  // why it is not readable, when it is a file that failed to read
};

// Every page is checked: a listing must not vouch for a file a scan would read in part.
std::vector<Listed> describe(const std::vector<std::string>& paths, size_t& failed) {
    std::vector<Listed> out;
    for (const auto& path : paths) {
        Listed item{path, std::nullopt, std::nullopt, false, {}};
        auto info = VkSqliteManager::checkedInfoForPath(path);
        if (!info) {
            item.problem = info.error();
            ++failed;
        } else if (*info) {
            item.readable = true;
            item.name = (*info)->name();
            item.version = (*info)->version();
        }
        out.push_back(std::move(item));
    }
    return out;
}

nlohmann::json toJson(const std::vector<Listed>& list) {
    nlohmann::json out = nlohmann::json::array();
    for (const auto& item : list) {
        nlohmann::json j = {{"name", item.name ? nlohmann::json(*item.name) : nullptr},
                            {"version", item.version ? nlohmann::json(*item.version) : nullptr},
                            {"readable", item.readable}};
        if (!item.problem.empty())
            j["problem"] = vkCliText(item.problem);
        vkJsonSetPath(j, "path", item.path);
        vkJsonSetPath(j, "file", VkFile::lastPathComponent(item.path));
        out.push_back(std::move(j));
    }
    return out;
}

void print(const char* title, const std::string& folder, const std::vector<Listed>& list) {
    std::printf("%s (%s):\n", title, vkCliText(folder).c_str());
    if (list.empty())
        std::printf("  (none)\n");
    for (const auto& item : list) {
        std::string file = vkCliText(VkFile::lastPathComponent(item.path));
        if (!item.readable)
            std::printf("  %-24s (not a readable signature database%s%s)\n", file.c_str(),
                        item.problem.empty() ? "" : ": ", vkCliText(item.problem).c_str());
        else
            std::printf("  %-24s %s %s\n", file.c_str(), vkCliText(item.name.value_or("?")).c_str(),
                        vkCliText(item.version.value_or("?")).c_str());
    }
}

}  // namespace

// `vksecurity db`: the installed, staged and packaged signature databases with their names
// and versions.
static VkCliCommand registration(510, [](CLI::App& app, VkCli& cli) {
    auto* cmd = app.add_subcommand(
        "db", "List the installed, staged (downloaded, not yet installed) and packaged databases");
    cmd->callback([&cli] {
        auto ctx = cli.context();
        // An unreadable folder would list as empty, as if nothing were installed.
        bool isDirectory = false;
        if (VkFile::exists(ctx->dataFolder, &isDirectory) &&
            (!isDirectory || !VkFile::listDirectory(ctx->dataFolder)))
            return vkCliFail(cli, "cannot read the signature database folder " + ctx->dataFolder);
        VkSqliteManager store(ctx);
        std::string packagedFolder = VkFile::join(ctx->resourceFolder, "trojanDB");
        size_t failed = 0;
        auto installed = describe(store.dataBasePaths(), failed);
        auto staged = describe(store.dataBaseTempPaths(), failed);
        auto packaged = describe(VkSqliteManager::contentFilesOfPath(packagedFolder), failed);
        // A file that cannot be read is an error, as it is to a scan.
        if (failed > 0)
            cli.exitCode = kExitError;
        if (cli.json) {
            nlohmann::json out = {{"installed", toJson(installed)},
                                  {"staged", toJson(staged)},
                                  {"packaged", toJson(packaged)}};
            vkJsonSetPath(out, "dataFolder", ctx->dataFolder);
            std::printf("%s\n", vkJsonText(out, 2).c_str());
            return;
        }
        print("installed", ctx->dataFolder, installed);
        print("staged", ctx->dataPath("temp"), staged);
        print("packaged", packagedFolder, packaged);
    });
});
