#include "VkSig.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <vector>

#include "database/VkDataBaseCheck.h"
#include "support/VkCliOutput.h"

namespace {

std::vector<std::pair<int, VkSigCommand::Setup>>& registry() {
    static std::vector<std::pair<int, VkSigCommand::Setup>> commands;
    return commands;
}

}  // namespace

VkSigCommand::VkSigCommand(int order, Setup setup) {
    registry().emplace_back(order, std::move(setup));
}

void VkSigCommand::setupAll(CLI::App& app, VkSigCli& cli) {
    auto& commands = registry();
    std::stable_sort(commands.begin(), commands.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& [order, setup] : commands)
        setup(app, cli);
}

void vkSigFail(VkSigCli& cli, const std::string& message) {
    std::fprintf(stderr, "vksig: %s\n", vkCliText(message).c_str());
    cli.exitCode = kSigExitError;
}

VkResult<std::unique_ptr<VkSqliteManager>> vkSigOpenExisting(const std::string& path) {
    if (auto format = VkDataBaseCheck::checkFormat(path); !format)
        return VkError{format.error()};
    // The store only opens files named *.sql, as the scanner only reads those.
    auto manager = std::make_unique<VkSqliteManager>(std::make_shared<VkContext>());
    manager->openDataBase(path);
    if (!manager->isOpen())
        return VkError{path +
                       ": cannot be opened as a signature database (the name must end "
                       "in \".sql\")"};
    // Damaged after the check, or locked by a writer: a part is not the file.
    if (!manager->readError().empty())
        return VkError{path + ": cannot read: " + manager->readError()};
    return manager;
}

std::optional<std::string> vkSigHashText(const std::string& text) {
    if (text.size() != 32)
        return std::nullopt;
    std::string lower;
    lower.reserve(text.size());
    for (char c : text) {
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return std::nullopt;
        lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
    return lower;
}

VkResult<VkKillEntry> vkSigParseKill(const std::string& spec) {
    if (spec.rfind("k:", 0) == 0) {
        std::string process = spec.substr(2);
        if (process.empty())
            return VkError{"--kill " + spec + ": no process name after \"k:\""};
        return VkKillEntry::killing(process);
    }
    if (spec.rfind("d:", 0) == 0) {
        std::string rest = spec.substr(2);
        // The name is the last component; a folder may itself hold a colon.
        size_t colon = rest.rfind(':');
        if (colon == std::string::npos)
            return VkError{"--kill " + spec + ": expected d:FOLDER:NAME"};
        std::string folder = rest.substr(0, colon);
        std::string name = rest.substr(colon + 1);
        if (folder.empty() || folder[0] != '/')
            return VkError{"--kill " + spec + ": the folder must be an absolute path"};
        if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..")
            return VkError{"--kill " + spec + ": the name must be one path component"};
        return VkKillEntry::deletion(folder, name);
    }
    return VkError{"--kill " + spec + ": expected d:FOLDER:NAME or k:PROCESS"};
}

std::shared_ptr<VkTorjanItem> vkSigDeciphered(const VkTorjanItem& stored) {
    auto item = std::make_shared<VkTorjanItem>(stored);
    item->deCodeTrojanInfo();
    return item;
}
