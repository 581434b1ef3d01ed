#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "VkCli.h"
#include "center/VkTorjanCenter.h"
#include "platform/VkFileUtil.h"
#include "remediation/VkQuarantineFileManager.h"
#include "support/VkCliOutput.h"
#include "support/VkStringExtern.h"

// `vksecurity quarantine list|restore N...|delete N...`: the quarantined files, numbered
// as `list` shows them.

namespace {

using Item = std::shared_ptr<VkQuarantineFileItem>;

std::string textOf(const std::optional<std::string>& text) {
    return text.value_or("");
}

nlohmann::json itemJson(size_t number, const VkQuarantineFileItem& item) {
    nlohmann::json j = {{"number", number},
                        {"fileSize", item.fileSize()},
                        {"size", stringFromFileSize(item.fileSize())},
                        {"trojanName", textOf(item.trojanName())}};
    vkJsonSetPath(j, "originalPath", textOf(item.originalPath()));
    vkJsonSetPath(j, "filePath", textOf(item.filePath()));
    return j;
}

// The records that the numbers name, each once, in the order given. On a bad number the
// error is reported and nothing is returned, so that nothing is done.
std::optional<std::vector<std::pair<size_t, Item>>> pickItems(
    VkCli& cli, VkQuarantineFileManager& store, const std::vector<std::string>& numbers) {
    if (std::string refused = store.folderRefusal(); !refused.empty()) {
        vkCliFail(cli, refused);
        return std::nullopt;
    }
    const auto& items = store.allQuarantineItems();
    std::vector<std::pair<size_t, Item>> picked;
    std::set<size_t> seen;
    for (const auto& text : numbers) {
        bool digits = !text.empty() && text.size() <= 9 &&
                      text.find_first_not_of("0123456789") == std::string::npos;
        size_t number = digits ? std::stoul(text) : 0;
        if (!digits || number == 0) {
            vkCliFail(cli,
                      "\"" + text + "\" is not a file number (see `vksecurity quarantine list`)");
            return std::nullopt;
        }
        if (number > items.size()) {
            vkCliFail(
                cli, "no quarantined file number " + std::to_string(number) +
                         (items.empty() ? " (the quarantine is empty)"
                                        : " (the quarantine holds " + std::to_string(items.size()) +
                                              " file" + (items.size() == 1 ? "" : "s") + ")"));
            return std::nullopt;
        }
        if (seen.insert(number).second)
            picked.emplace_back(number, items[number - 1]);
    }
    return picked;
}

// Why restoring the record failed, as far as the file system tells.
std::string restoreFailure(const VkQuarantineFileManager& store, const VkQuarantineFileItem& item) {
    std::string from = textOf(item.filePath());
    std::string to = textOf(item.originalPath());
    if (to.empty())
        return "the record has no original path";
    if (std::string foreign = store.foreignOwner(); !foreign.empty())
        return foreign;
    if (!store.holdsFile(from))
        return "the record does not name a file in the quarantine folder";
    if (!VkFile::existsNoFollow(from))
        return "the quarantined file " + from + " is missing";
    if (VkFile::existsNoFollow(to))
        return "something already exists at " + to;
    return "cannot move " + from + " to " + to;
}

void listCommand(VkCli& cli) {
    cli.context();
    // The scan center's quarantine: the same store its scans quarantine into.
    VkQuarantineFileManager& store = VkTorjanCenter::shareCenter()->quarantine();
    // Nothing is listed from a link or anything else in the folder's place.
    if (std::string refused = store.folderRefusal(); !refused.empty()) {
        vkCliFail(cli, refused);
        return;
    }
    const auto& items = store.allQuarantineItems();
    if (cli.json) {
        nlohmann::json list = nlohmann::json::array();
        for (size_t i = 0; i < items.size(); ++i)
            list.push_back(itemJson(i + 1, *items[i]));
        std::printf("%s\n", vkJsonText(list, 2).c_str());
        return;
    }
    if (items.empty()) {
        std::printf("The quarantine is empty.\n");
        return;
    }
    for (size_t i = 0; i < items.size(); ++i) {
        const auto& item = *items[i];
        std::string name = textOf(item.trojanName());
        std::printf("%3zu  %s  %s  %s\n", i + 1, vkCliText(textOf(item.originalPath())).c_str(),
                    stringFromFileSize(item.fileSize()).c_str(),
                    name.empty() ? "(unnamed)" : vkCliText(name).c_str());
    }
}

// Restores (or deletes) the numbered files; every file is tried, the exit code says
// whether any failed.
void actCommand(VkCli& cli, const std::vector<std::string>& numbers, bool restore) {
    cli.context();
    VkQuarantineFileManager& store = VkTorjanCenter::shareCenter()->quarantine();
    auto picked = pickItems(cli, store, numbers);
    if (!picked)
        return;
    nlohmann::json answers = nlohmann::json::array();
    for (const auto& [number, item] : *picked) {
        nlohmann::json answer = itemJson(number, *item);
        std::string error;
        if (restore) {
            // Asked before the move: afterwards the file is gone from where it lay.
            std::string why = restoreFailure(store, *item);
            if (!store.recoverItem(item))
                error = why;
        } else {
            std::string path = textOf(item->filePath());
            // A quarantine of another user's is left as it is, record and all.
            std::string foreign = store.foreignOwner();
            if (!store.removeItem(item)) {
                error = !foreign.empty() ? foreign
                                         : "the record was dropped, but " +
                                               (path.empty() ? std::string("it names no file")
                                                             : path + " could not be deleted");
            }
        }
        answer["ok"] = error.empty();
        if (!error.empty()) {
            answer["error"] = error;
            cli.exitCode = kExitError;
        }
        if (!cli.json) {
            std::string original = vkCliText(textOf(item->originalPath()));
            if (error.empty()) {
                std::printf("%s %zu: %s\n", restore ? "restored" : "deleted", number,
                            original.c_str());
            } else {
                std::fprintf(stderr, "vksecurity: cannot %s %zu (%s): %s\n",
                             restore ? "restore" : "delete", number, original.c_str(),
                             vkCliText(error).c_str());
            }
        }
        answers.push_back(std::move(answer));
    }
    if (cli.json)
        std::printf("%s\n", vkJsonText(answers, 2).c_str());
}

}  // namespace

static VkCliCommand registration(400, [](CLI::App& app, VkCli& cli) {
    auto* cmd = app.add_subcommand("quarantine", "List, restore or delete quarantined files");
    cmd->require_subcommand(1);

    auto* list = cmd->add_subcommand("list", "Show the quarantined files, numbered");
    list->callback([&cli] { listCommand(cli); });

    // Kept alive for the callbacks, which run after parsing.
    auto restoreNumbers = std::make_shared<std::vector<std::string>>();
    auto* restore = cmd->add_subcommand("restore", "Move files back to where they were found");
    restore->add_option("N", *restoreNumbers, "Numbers from `quarantine list`")->required();
    restore->callback([&cli, restoreNumbers] { actCommand(cli, *restoreNumbers, true); });

    auto deleteNumbers = std::make_shared<std::vector<std::string>>();
    auto* remove = cmd->add_subcommand("delete", "Delete quarantined files for good");
    remove->add_option("N", *deleteNumbers, "Numbers from `quarantine list`")->required();
    remove->callback([&cli, deleteNumbers] { actCommand(cli, *deleteNumbers, false); });
});
