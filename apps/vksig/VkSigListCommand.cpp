#include <cstdio>

#include <nlohmann/json.hpp>

#include "VkSig.h"
#include "support/VkCliOutput.h"

// `vksig list DB [--json]`: every record, deciphered, one line each.
namespace {

nlohmann::json jsonOf(const VkPlist& value) {
    if (const std::string* s = value.asString())
        return *s;
    if (const VkPlist::Array* a = value.asArray()) {
        nlohmann::json out = nlohmann::json::array();
        for (const auto& v : *a)
            out.push_back(jsonOf(v));
        return out;
    }
    if (auto i = value.asInt64(); i && value.type() == VkPlist::Type::Integer)
        return *i;
    if (auto d = value.asDouble())
        return *d;
    return nullptr;
}

nlohmann::json jsonOf(const std::optional<std::string>& text) {
    return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

}  // namespace

static VkSigCommand registration(30, [](CLI::App& app, VkSigCli& cli) {
    struct Options {
        std::string path;
        bool json = false;
    };
    auto o = std::make_shared<Options>();
    auto* cmd = app.add_subcommand("list", "List the records of a signature database");
    cmd->add_option("DB", o->path, "Signature database (.sql)")->required();
    cmd->add_flag("--json", o->json, "Machine-readable output");
    cmd->callback([o, &cli] {
        auto opened = vkSigOpenExisting(o->path);
        if (!opened)
            return vkSigFail(cli, opened.error());
        VkSqliteManager& manager = **opened;
        auto info = manager.currentDataBaseInfo();

        if (o->json) {
            nlohmann::json records = nlohmann::json::array();
            for (const auto& stored : manager.TorjanItemArray()) {
                auto item = vkSigDeciphered(*stored);
                nlohmann::json kill = nullptr;
                size_t dropped = 0;
                if (auto kills = item->killArray()) {
                    kill = jsonOf(VkPlist(kills->toArray()));
                    dropped = kills->droppedCount();
                }
                records.push_back({{"name", jsonOf(item->name())},
                                   {"detail", jsonOf(item->detail())},
                                   {"level", item->level()},
                                   {"version", jsonOf(item->version())},
                                   {"fileSize", item->fileSize()},
                                   {"code", jsonOf(item->TorjanCode())},
                                   {"headCode", jsonOf(item->headeCode())},
                                   {"kill", kill},
                                   {"killDropped", dropped}});
            }
            nlohmann::json out = {{"name", jsonOf(info ? info->name() : std::nullopt)},
                                  {"version", jsonOf(info ? info->version() : std::nullopt)},
                                  {"records", records}};
            std::printf("%s\n", vkJsonText(out, 2).c_str());
            return;
        }
        for (const auto& stored : manager.TorjanItemArray()) {
            auto item = vkSigDeciphered(*stored);
            std::string line =
                item->TorjanCode().value_or("-") + "  " + std::to_string(item->fileSize()) + "  " +
                item->name().value_or("-") + "  level=" + std::to_string(item->level()) +
                " version=" + item->version().value_or("-");
            if (auto head = item->headeCode())
                line += " head=" + *head;
            if (auto detail = item->detail())
                line += " detail=\"" + *detail + "\"";
            if (auto kills = item->killArray()) {
                line += " kill=[";
                for (size_t i = 0; i < kills->entries().size(); ++i)
                    line += (i ? ", " : "") + kills->entries()[i].text();
                line += "]";
                // Malformed entries were left out at load: say so rather than hide them.
                if (kills->droppedCount() > 0)
                    line += " kill-dropped=" + std::to_string(kills->droppedCount());
            }
            // Every field comes from the database file, which anyone may have written.
            std::printf("%s\n", vkCliText(line).c_str());
        }
    });
});
