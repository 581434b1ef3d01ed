#include <cstdio>

#include "VkSig.h"

// `vksig remove DB --code HASH`: deletes every record with that whole-file hash.
static VkSigCommand registration(40, [](CLI::App& app, VkSigCli& cli) {
    struct Options {
        std::string path;
        std::string code;
    };
    auto o = std::make_shared<Options>();
    auto* cmd = app.add_subcommand("remove", "Remove the records with a whole-file hash");
    cmd->add_option("DB", o->path, "Signature database (.sql)")->required();
    cmd->add_option("--code", o->code, "MD5 of the whole file")->required();
    cmd->callback([o, &cli] {
        std::optional<std::string> code = vkSigHashText(o->code);
        if (!code)
            return vkSigFail(cli, "--code " + o->code + ": not an MD5 hash (32 hex digits)");
        auto opened = vkSigOpenExisting(o->path);
        if (!opened)
            return vkSigFail(cli, opened.error());
        VkSqliteManager& manager = **opened;
        // Rows hold the code enciphered (or, in old files, plain); the store deletes by the
        // stored text, so each stored form that deciphers to the code is deleted.
        std::vector<std::shared_ptr<VkTorjanItem>> matching;
        for (const auto& stored : manager.TorjanItemArray()) {
            if (VkTorjanItem::deCodeString(stored->TorjanCode()) == code)
                matching.push_back(stored);
        }
        if (matching.empty())
            return vkSigFail(cli, o->path + ": no record with code " + *code);
        size_t before = manager.TorjanItemArray().size();
        for (const auto& item : matching)
            manager.deleteItem(item);
        size_t removed = before - manager.TorjanItemArray().size();
        if (removed != matching.size())
            return vkSigFail(cli, o->path + ": " + std::to_string(matching.size() - removed) +
                                      " record(s) could not be removed");
        std::printf("removed %zu record(s) with code %s\n", removed, code->c_str());
    });
});
