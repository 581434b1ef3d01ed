#include <cstdio>

#include <nlohmann/json.hpp>

#include "VkCli.h"
#include "monitor/VkMonitorConfig.h"
#include "support/VkCliOutput.h"

// `vksecurity paths`: shows the folders and settings this program would use.
static VkCliCommand registration(900, [](CLI::App& app, VkCli& cli) {
    auto* cmd = app.add_subcommand("paths", "Show the folders and settings in use");
    cmd->callback([&cli] {
        auto ctx = cli.context();
        if (cli.json) {
            nlohmann::json j = {{"loginName", ctx->loginName}, {"updateServer", ctx->updateServer}};
            vkJsonSetPath(j, "systemRoot", ctx->systemRoot);
            vkJsonSetPath(j, "homeDirectory", ctx->homeDirectory);
            vkJsonSetPath(j, "dataFolder", ctx->dataFolder);
            vkJsonSetPath(j, "defaultsFile", ctx->defaultsFile);
            vkJsonSetPath(j, "resourceFolder", ctx->resourceFolder);
            vkJsonSetPath(j, "updateKeysFolder", ctx->updateKeysFolder);
            vkJsonSetPath(j, "monitorSettings", VkMonitorConfig(*ctx).path());
            vkJsonSetPath(j, "monitorSocket", VkMonitorConfig::socketPath(ctx->dataFolder));
            std::printf("%s\n", vkJsonText(j, 2).c_str());
            return;
        }
        std::printf("system root:      %s\n", vkCliText(ctx->systemRoot).c_str());
        std::printf("user:             %s (home %s)\n", vkCliText(ctx->loginName).c_str(),
                    vkCliText(ctx->homeDirectory).c_str());
        std::printf("data folder:      %s\n", vkCliText(ctx->dataFolder).c_str());
        std::printf("defaults file:    %s\n", vkCliText(ctx->defaultsFile).c_str());
        std::printf("monitor settings: %s\n", vkCliText(VkMonitorConfig(*ctx).path()).c_str());
        std::printf("monitor socket:   %s\n",
                    vkCliText(VkMonitorConfig::socketPath(ctx->dataFolder)).c_str());
        std::printf("resources:        %s\n", vkCliText(ctx->resourceFolder).c_str());
        std::printf("update server:    %s\n", vkCliText(ctx->updateServer).c_str());
        std::printf("update keys:      %s/updatekeys, %s\n", vkCliText(ctx->resourceFolder).c_str(),
                    vkCliText(ctx->updateKeysFolder).c_str());
    });
});
