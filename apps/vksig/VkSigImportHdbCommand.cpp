#include <cstdio>
#include <set>

#include "VkSig.h"
#include "VkSigHdbList.h"
#include "engine/VkTorjanScan.h"
#include "platform/VkFileUtil.h"
#include "support/VkCliOutput.h"

// `vksig import-hdb DB FILE`: records from a hash list in the common "MD5:size:name" line
// format. Lines are checked first and nothing is written when one is malformed.
static VkSigCommand registration(50, [](CLI::App& app, VkSigCli& cli) {
    struct Options {
        std::string path;
        std::string list;
        std::string detail;
        int32_t level = 0;
        std::string version = "1.0";
    };
    auto o = std::make_shared<Options>();
    auto* cmd =
        app.add_subcommand("import-hdb",
                           "Import a hash list of MD5:size:name lines (records larger than 1048576 "
                           "bytes need a head hash, which the format lacks: they are skipped)");
    cmd->add_option("DB", o->path, "Signature database (.sql)")->required();
    cmd->add_option("FILE", o->list, "Hash list")->required();
    cmd->add_option("--detail", o->detail, "Description given to every imported record");
    cmd->add_option("--level", o->level, "Danger level of every imported record (default 0)");
    cmd->add_option("--version", o->version, "Signature version of every record (default 1.0)");
    cmd->callback([o, &cli] {
        VkResult<std::string> text = VkFile::readAll(o->list, 512u << 20);
        if (!text)
            return vkSigFail(cli, o->list + ": " + text.error());

        VkHdbList list = vkSigParseHdbList(*text, o->list);
        const std::vector<std::string>& errors = list.errors;
        if (!errors.empty()) {
            const size_t shown = 20;
            for (size_t i = 0; i < errors.size() && i < shown; ++i)
                std::fprintf(stderr, "vksig: %s\n", vkCliText(errors[i]).c_str());
            if (errors.size() > shown)
                std::fprintf(stderr, "vksig: ... and %zu more\n", errors.size() - shown);
            return vkSigFail(
                cli, std::to_string(errors.size()) + " malformed line(s); nothing was imported");
        }

        auto opened = vkSigOpenExisting(o->path);
        if (!opened)
            return vkSigFail(cli, opened.error());
        VkSqliteManager& manager = **opened;
        std::set<std::string> known;
        for (const auto& stored : manager.TorjanItemArray()) {
            if (auto code = VkTorjanItem::deCodeString(stored->TorjanCode()))
                known.insert(*code);
        }

        size_t imported = 0;
        size_t tooLarge = 0;
        size_t duplicates = 0;
        if (!manager.beginTransaction())
            return vkSigFail(cli, o->path + ": cannot be written");
        for (const VkHdbRecord& record : list.records) {
            if (record.size > VkTorjanScan::kHeadLength) {
                ++tooLarge;
                continue;
            }
            if (!known.insert(record.code).second) {
                ++duplicates;
                continue;
            }
            auto item = std::make_shared<VkTorjanItem>();
            item->setName(record.name);
            if (!o->detail.empty())
                item->setDetail(o->detail);
            item->setLevel(o->level);
            item->setVersion(o->version);
            item->setFileSize(record.size);
            item->setTorjanCode(record.code);
            item->enCodeTrojanInfo();
            size_t before = manager.TorjanItemArray().size();
            if (!manager.addItemToDataBase(item) ||
                manager.TorjanItemArray().size() != before + 1) {
                manager.endTransaction(false);
                return vkSigFail(cli, o->path +
                                          ": writing the records failed; nothing was "
                                          "imported");
            }
            ++imported;
        }
        if (!manager.endTransaction(true))
            return vkSigFail(cli, o->path + ": writing the records failed; nothing was imported");
        std::printf("imported %zu record(s)\n", imported);
        if (tooLarge)
            std::printf(
                "skipped %zu record(s) larger than 1048576 bytes: they need a head hash, "
                "add them with `vksig add --head-code`\n",
                tooLarge);
        if (duplicates)
            std::printf("skipped %zu record(s) whose code is already present\n", duplicates);
    });
});
