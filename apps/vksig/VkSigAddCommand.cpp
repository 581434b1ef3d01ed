#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "VkSig.h"
#include "engine/VkTorjanScan.h"
#include "platform/VkHashValue.h"
#include "support/VkCliOutput.h"

// `vksig add DB --sample FILE --name N ...` or `vksig add DB --size S --code HASH ...`:
// one new signature record.
namespace {

struct AddOptions {
    std::string path;
    std::string sample;
    uint64_t size = 0;
    std::string code;
    std::string headCode;
    std::string name;
    std::string detail;
    int32_t level = 0;
    std::string version = "1.0";
    std::vector<std::string> kills;
};

// Size and hashes of a sample, computed exactly as the scanner will compute them.
VkResult<void> measureSample(AddOptions& o) {
    struct stat st {};
    if (::lstat(o.sample.c_str(), &st) != 0)
        return VkError{o.sample + ": " + std::strerror(errno)};
    if (S_ISLNK(st.st_mode))
        return VkError{o.sample +
                       ": a symbolic link (the scanner never reports links); give "
                       "the file itself"};
    if (!S_ISREG(st.st_mode))
        return VkError{o.sample + ": not a regular file"};
    if (st.st_size == 0)
        return VkError{o.sample + ": empty; a file of size 0 is never reported"};
    o.size = static_cast<uint64_t>(st.st_size);
    std::optional<std::string> whole = VkHashValue::hashWholeFile(o.sample, 0);
    if (!whole)
        return VkError{o.sample + ": cannot be read"};
    o.code = *whole;
    o.headCode.clear();
    if (o.size > VkTorjanScan::kHeadLength) {
        std::optional<std::string> head = VkHashValue::hashFileHead(
            o.sample, static_cast<uint32_t>(VkTorjanScan::kHeadLength), 0);
        if (!head)
            return VkError{o.sample + ": cannot be read"};
        o.headCode = *head;
    }
    return VkResult<void>::success();
}

VkResult<void> checkGivenHashes(AddOptions& o) {
    if (o.size == 0)
        return VkError{"--size must be at least 1 (a file of size 0 is never reported)"};
    std::optional<std::string> code = vkSigHashText(o.code);
    if (!code)
        return VkError{"--code " + o.code + ": not an MD5 hash (32 hex digits)"};
    o.code = *code;
    if (o.size > VkTorjanScan::kHeadLength) {
        if (o.headCode.empty())
            return VkError{
                "files larger than 1048576 bytes are matched by the hash of their "
                "first 1048576 bytes first: give --head-code"};
        std::optional<std::string> head = vkSigHashText(o.headCode);
        if (!head)
            return VkError{"--head-code " + o.headCode + ": not an MD5 hash (32 hex digits)"};
        o.headCode = *head;
    } else if (!o.headCode.empty()) {
        return VkError{"--head-code is only used for files larger than 1048576 bytes"};
    }
    return VkResult<void>::success();
}

}  // namespace

static VkSigCommand registration(20, [](CLI::App& app, VkSigCli& cli) {
    auto o = std::make_shared<AddOptions>();
    auto* cmd = app.add_subcommand("add",
                                   "Add a signature record, from a sample file or from "
                                   "its size and hashes");
    cmd->add_option("DB", o->path, "Signature database (.sql)")->required();
    auto* sample =
        cmd->add_option("--sample", o->sample, "Sample file: size and hashes are computed from it");
    // Checked as text first: a negative number would otherwise wrap around to a huge size.
    auto* size =
        cmd->add_option("--size", o->size, "Exact file size in bytes (without a sample)")
            ->check(CLI::Validator(
                [](std::string& text) {
                    bool digits =
                        !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
                    return digits ? std::string() : std::string("must be a whole number of bytes");
                },
                "BYTES"));
    auto* code = cmd->add_option("--code", o->code, "MD5 of the whole file (without a sample)");
    auto* head = cmd->add_option("--head-code", o->headCode,
                                 "MD5 of the first 1048576 bytes (files larger than that)");
    sample->excludes(size)->excludes(code)->excludes(head);
    size->needs(code);
    code->needs(size);
    head->needs(size);
    cmd->add_option("--name", o->name, "Trojan name shown to the user")->required();
    cmd->add_option("--detail", o->detail, "Description");
    cmd->add_option("--level", o->level, "Danger level (default 0)");
    cmd->add_option("--version", o->version, "Signature version (default 1.0)");
    cmd->add_option("--kill", o->kills,
                    "Removal instruction, repeatable: d:FOLDER:NAME deletes FOLDER/NAME, "
                    "k:PROCESS kills every process of that name (without any, removal deletes "
                    "the detected file)");
    cmd->callback([o, &cli] {
        if (o->sample.empty() && o->code.empty())
            return vkSigFail(cli, "give --sample FILE, or --size and --code");
        if (o->name.empty())
            return vkSigFail(cli, "--name must not be empty");
        std::vector<VkKillEntry> entries;
        for (const std::string& spec : o->kills) {
            VkResult<VkKillEntry> entry = vkSigParseKill(spec);
            if (!entry)
                return vkSigFail(cli, entry.error());
            entries.push_back(std::move(*entry));
        }
        std::optional<VkKillList> kills;
        if (!entries.empty())
            kills.emplace(std::move(entries));
        VkResult<void> measured = o->sample.empty() ? checkGivenHashes(*o) : measureSample(*o);
        if (!measured)
            return vkSigFail(cli, measured.error());

        auto opened = vkSigOpenExisting(o->path);
        if (!opened)
            return vkSigFail(cli, opened.error());
        VkSqliteManager& manager = **opened;
        for (const auto& stored : manager.TorjanItemArray()) {
            if (VkTorjanItem::deCodeString(stored->TorjanCode()) == o->code) {
                auto existing = vkSigDeciphered(*stored);
                return vkSigFail(cli, o->path + ": already has a record with code " + o->code +
                                          " (" + existing->name().value_or("no name") + ")");
            }
        }

        auto item = std::make_shared<VkTorjanItem>();
        item->setName(o->name);
        if (!o->detail.empty())
            item->setDetail(o->detail);
        item->setLevel(o->level);
        item->setVersion(o->version);
        item->setFileSize(o->size);
        item->setTorjanCode(o->code);
        if (!o->headCode.empty())
            item->setHeadeCode(o->headCode);
        item->setKillArray(kills);
        item->enCodeTrojanInfo();

        size_t before = manager.TorjanItemArray().size();
        // The store also answers YES when it could not prepare the insert; only a record that
        // reached the array was written.
        if (!manager.addItemToDataBase(item) || manager.TorjanItemArray().size() != before + 1)
            return vkSigFail(cli, o->path + ": the record could not be written");
        std::printf("added %s: size %llu, code %s%s%s\n", vkCliText(o->name).c_str(),
                    static_cast<unsigned long long>(o->size), o->code.c_str(),
                    o->headCode.empty() ? "" : ", head code ", o->headCode.c_str());
    });
});
