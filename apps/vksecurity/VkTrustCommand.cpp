// `vksecurity trust`: the list of files the user declared safe.
#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "VkCli.h"
#include "center/VkTorjanCenter.h"
#include "support/VkCliOutput.h"
#include "support/VkStringExtern.h"

namespace {

void listTrust(VkCli& cli) {
    cli.context();
    auto entries = VkTorjanCenter::shareCenter()->ecryptTrustFileArray();
    if (cli.json) {
        nlohmann::json out = nlohmann::json::array();
        for (const auto& e : entries) {
            nlohmann::json j;
            if (auto p = e.getString("TrustFilePath"))
                vkJsonSetPath(j, "path", *p);
            if (auto n = e.getString("TrustTrojanName"))
                j["name"] = *n;
            if (auto s = e.get("TrustFileSize"))
                j["size"] = s->asUInt64().value_or(0);
            out.push_back(j);
        }
        std::printf("%s\n", vkJsonText(out, 2).c_str());
        return;
    }
    if (entries.empty()) {
        std::printf("The trust list is empty.\n");
        return;
    }
    int n = 0;
    for (const auto& e : entries) {
        const std::string* path = e.getString("TrustFilePath");
        const std::string* name = e.getString("TrustTrojanName");
        const VkPlist* size = e.get("TrustFileSize");
        std::printf(
            "%3d  %s\n     %s, %s\n", ++n, path ? vkCliText(*path).c_str() : "(unreadable entry)",
            name ? vkCliText(*name).c_str() : "(no name)",
            size ? stringFromFileSize(size->asUInt64().value_or(0)).c_str() : "size unknown");
    }
}

void removeTrust(VkCli& cli, const std::string& argument) {
    cli.context();
    auto center = VkTorjanCenter::shareCenter();
    auto entries = center->ecryptTrustFileArray();
    // A number is the entry of that number in `trust list`; anything else is a path, made
    // absolute and normal as the scan stored it.
    std::string path;
    bool isNumber = !argument.empty() && argument.size() < 10 &&
                    argument.find_first_not_of("0123456789") == std::string::npos;
    size_t removed = 0;
    if (isNumber) {
        // That very entry: another entry of the same path (other contents) stays trusted.
        size_t number = std::stoul(argument);
        const std::string* stored = number >= 1 && number <= entries.size()
                                        ? entries[number - 1].getString("TrustFilePath")
                                        : nullptr;
        path = stored ? *stored : "(unreadable entry)";
        removed = number >= 1 ? center->removeTrustEntry(number - 1) : 0;
        if (removed == 0) {
            vkCliFail(cli, "no trust list entry " + argument + " (see `vksecurity trust list`)");
            return;
        }
    } else {
        path = vkCliAbsolutePath(argument);
        size_t before = entries.size();
        center->removeTrustFile(path);
        removed = before - std::min(before, center->ecryptTrustFileArray().size());
        if (removed == 0) {
            vkCliFail(cli, "not on the trust list: " + path);
            return;
        }
    }
    std::printf("Removed %zu trust list entr%s for %s\n", removed, removed == 1 ? "y" : "ies",
                vkCliText(path).c_str());
}

}  // namespace

static VkCliCommand registration(30, [](CLI::App& app, VkCli& cli) {
    auto* cmd = app.add_subcommand("trust", "Show or change the trust list (files declared safe)");
    cmd->require_subcommand(1);
    auto* list = cmd->add_subcommand("list", "Show the trusted files");
    list->callback([&cli] { listTrust(cli); });
    auto path = std::make_shared<std::string>();
    auto* remove = cmd->add_subcommand("remove", "Stop trusting a file (it is detected again)");
    remove->add_option("path", *path, "The trusted file's path, or its number in `trust list`")
        ->required();
    remove->callback([&cli, path] { removeTrust(cli, *path); });
});
