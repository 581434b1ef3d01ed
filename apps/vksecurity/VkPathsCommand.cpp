#include <cstdio>

#include <nlohmann/json.hpp>

#include "VkCli.h"

// `vksecurity paths`: shows the folders and settings this program would use.
static VkCliCommand registration(900, [](CLI::App& app, VkCli& cli) {
    auto* cmd = app.add_subcommand("paths", "Show the folders and settings in use");
    cmd->callback([&cli] {
        auto ctx = cli.context();
        if (cli.json) {
            nlohmann::json j = {
                {"systemRoot", ctx->systemRoot},       {"loginName", ctx->loginName},
                {"homeDirectory", ctx->homeDirectory}, {"dataFolder", ctx->dataFolder},
                {"defaultsFile", ctx->defaultsFile},   {"resourceFolder", ctx->resourceFolder},
                {"updateServer", ctx->updateServer}};
            std::printf("%s\n", j.dump(2).c_str());
            return;
        }
        std::printf("system root:      %s\n", ctx->systemRoot.c_str());
        std::printf("user:             %s (home %s)\n", ctx->loginName.c_str(),
                    ctx->homeDirectory.c_str());
        std::printf("data folder:      %s\n", ctx->dataFolder.c_str());
        std::printf("defaults file:    %s\n", ctx->defaultsFile.c_str());
        std::printf("resources:        %s\n", ctx->resourceFolder.c_str());
        std::printf("update server:    %s\n", ctx->updateServer.c_str());
    });
});
