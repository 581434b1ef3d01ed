#include <cstdio>

#include <nlohmann/json.hpp>

#include "VkSig.h"
#include "support/VkCliOutput.h"

// `vksig info DB [--json]`: name, version and counts of a signature database.
static VkSigCommand registration(60, [](CLI::App& app, VkSigCli& cli) {
    struct Options {
        std::string path;
        bool json = false;
    };
    auto o = std::make_shared<Options>();
    auto* cmd = app.add_subcommand("info", "Show the name, version and size of a database");
    cmd->add_option("DB", o->path, "Signature database (.sql)")->required();
    cmd->add_flag("--json", o->json, "Machine-readable output");
    cmd->callback([o, &cli] {
        auto opened = vkSigOpenExisting(o->path);
        if (!opened)
            return vkSigFail(cli, opened.error());
        VkSqliteManager& manager = **opened;
        auto info = manager.currentDataBaseInfo();
        size_t withHead = 0;
        size_t withKill = 0;
        for (const auto& item : manager.TorjanItemArray()) {
            withHead += item->headeCode().has_value();
            withKill += item->killArray().has_value();
        }
        std::string name = info && info->name() ? *info->name() : "";
        std::string version = info && info->version() ? *info->version() : "";
        if (o->json) {
            nlohmann::json out = {
                {"name", info && info->name() ? nlohmann::json(name) : nullptr},
                {"version", info && info->version() ? nlohmann::json(version) : nullptr},
                {"records", manager.TorjanItemArray().size()},
                {"recordsWithHeadCode", withHead},
                {"recordsWithKillList", withKill},
                {"killEntriesDropped", manager.droppedKillEntries()}};
            vkJsonSetPath(out, "path", o->path);
            std::printf("%s\n", vkJsonText(out, 2).c_str());
            return;
        }
        std::printf("file:      %s\n", vkCliText(o->path).c_str());
        std::printf("name:      %s\n", info ? vkCliText(name).c_str() : "(no description)");
        std::printf("version:   %s\n", info ? vkCliText(version).c_str() : "(no description)");
        std::printf("records:   %zu (%zu with a head code, %zu with a kill list)\n",
                    manager.TorjanItemArray().size(), withHead, withKill);
        if (manager.droppedKillEntries() > 0)
            std::printf("dropped:   %zu malformed kill-list entries (see vksig verify)\n",
                        manager.droppedKillEntries());
    });
});
