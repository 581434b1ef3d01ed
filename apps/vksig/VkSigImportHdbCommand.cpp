#include <cctype>
#include <cstdio>
#include <set>

#include "VkSig.h"
#include "engine/VkTorjanScan.h"
#include "platform/VkFileUtil.h"
#include "support/VkCliOutput.h"

// `vksig import-hdb DB FILE`: records from a hash list in the common "MD5:size:name" line
// format. Lines are checked first and nothing is written when one is malformed.
namespace {

struct HdbRecord {
    std::string code;
    uint64_t size = 0;
    std::string name;
};

bool isDecimal(const std::string& s) {
    if (s.empty() || s.size() > 19)
        return false;
    for (char c : s) {
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
    }
    return true;
}

std::vector<std::string> split(const std::string& line, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t at = line.find(separator, start);
        parts.push_back(line.substr(start, at - start));
        if (at == std::string::npos)
            return parts;
        start = at + 1;
    }
}

// One line: "MD5:size:name", optionally followed by numeric fields (engine levels in some
// lists), which are ignored.
VkResult<HdbRecord> parseLine(const std::string& line) {
    std::vector<std::string> fields = split(line, ':');
    if (fields.size() < 3)
        return VkError{"expected MD5:size:name"};
    HdbRecord record;
    std::optional<std::string> code = vkSigHashText(fields[0]);
    if (!code)
        return VkError{"\"" + fields[0] + "\" is not an MD5 hash (32 hex digits)"};
    record.code = *code;
    if (fields[1] == "*")
        return VkError{"a wildcard size cannot be matched (sizes must be exact)"};
    if (!isDecimal(fields[1]))
        return VkError{"\"" + fields[1] + "\" is not a size in bytes"};
    record.size = std::stoull(fields[1]);
    if (record.size == 0)
        return VkError{"size 0 (a file of size 0 is never reported)"};
    record.name = fields[2];
    if (record.name.empty())
        return VkError{"no name"};
    for (size_t i = 3; i < fields.size(); ++i) {
        if (!fields[i].empty() && !isDecimal(fields[i]))
            return VkError{"unexpected field \"" + fields[i] + "\" after the name"};
    }
    return record;
}

}  // namespace

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

        std::vector<HdbRecord> records;
        std::vector<std::string> errors;
        size_t lineNumber = 0;
        for (std::string line : split(*text, '\n')) {
            ++lineNumber;
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            size_t first = line.find_first_not_of(" \t");
            if (first == std::string::npos || line[first] == '#')
                continue;
            VkResult<HdbRecord> record = parseLine(line);
            if (!record)
                errors.push_back(o->list + ":" + std::to_string(lineNumber) + ": " +
                                 record.error());
            else
                records.push_back(std::move(*record));
        }
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
        for (const HdbRecord& record : records) {
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
