// Writes the seed corpora of the fuzz targets: `vk_make_seeds FOLDER` fills FOLDER/<target>/
// with small inputs made here by the program's own writers. Everything is synthetic.
#include <chrono>
#include <cstdio>
#include <unistd.h>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "VkFuzzSupport.h"
#include "database/VkDataBaseInfo.h"
#include "database/VkManifestCipher.h"
#include "database/VkSqliteManager.h"
#include "engine/VkHashCache.h"
#include "fakes/VkTestArchives.h"
#include "logs/VkFileMonLogsItem.h"
#include "monitor/VkMonitorProtocol.h"
#include "platform/VkHashValue.h"
#include "platform/VkKeyedArchiver.h"
#include "platform/VkPlist.h"
#include "support/VkCrypt.h"

namespace {

std::string gFolder;
int gWritten = 0;

std::string text(const std::vector<uint8_t>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

void seed(const std::string& target, const std::string& name, const std::string& bytes) {
    std::string folder = VkFile::join(gFolder, target);
    VkFile::createDirectory(folder, true);
    if (!VkFile::writeAtomically(VkFile::join(folder, name), bytes)) {
        std::fprintf(stderr, "vk_make_seeds: cannot write %s/%s\n", folder.c_str(), name.c_str());
        std::exit(1);
    }
    ++gWritten;
}

VkPlist launchItem() {
    return VkPlist::dictionary(
        {{"Label", "com.example.agent"},
         {"ProgramArguments", VkPlist::array({"/Library/Example/agent", "-d"})},
         {"RunAtLoad", VkPlist::boolean(true)},
         {"LSEnvironment", VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", "/tmp/x.dylib"}})}});
}

VkPlist everyType() {
    return VkPlist::dictionary({{"name", "caf\xC3\xA9 \xE2\x82\xAC"},
                                {"count", VkPlist::integer(-3)},
                                {"big", VkPlist::unsignedInteger(5000000000ULL)},
                                {"ratio", VkPlist::real(2.5)},
                                {"when", VkDate{1700000000.5}},
                                {"bytes", VkPlist::Data{0, 1, 2, 255}},
                                {"list", VkPlist::array({VkPlist::boolean(false), "x"})},
                                {"empty", VkPlist::dictionary()}});
}

VkPlist manifest() {
    std::vector<uint8_t> db(64, 0x5A);
    auto sha = VkHashValue::hashWithData(db.data(), static_cast<uint32_t>(db.size()), 2);
    return VkPlist::array(
        {VkPlist::dictionary({{"name", "VkTrojanDB"}, {"version", "1.2"}, {"webpath", "a.sql"}}),
         VkPlist::dictionary({{"name", "Extra"},
                              {"version", "2.0"},
                              {"webpath", "extra.sql"},
                              {"sha256", sha.value_or("")}}),
         VkPlist::dictionary({{"name", "Bad"}, {"version", "9"}, {"webpath", "../x.sql"}}),
         VkDate{1700000000.0}});
}

void plistSeeds() {
    int n = 0;
    for (const VkPlist& p : {launchItem(), everyType(), manifest(), VkPlist("just text")}) {
        seed("plist", "xml-" + std::to_string(n), p.toXml());
        seed("plist", "bin-" + std::to_string(n), text(p.toBinary()));
        ++n;
    }
}

void archiveSeeds() {
    auto kill = VkTorjanItem::makeKillArray({{"d", "/Library/Example", "agent.plist"},
                                             {"k", "Example"},
                                             {"d", "~/Library/LaunchAgents", "x.plist"}});
    auto archive =
        VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue(VkPlist(kill.toArray())));
    seed("keyed_archive", "kill", text(*archive));
    auto mixed = VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue(everyType()));
    seed("keyed_archive", "mixed", text(*mixed));
    // The XML form the unarchiver also takes ("CF$UID" dictionaries).
    auto top = VkPlist::parse(archive->data(), archive->size());
    seed("keyed_archive", "kill-xml", top->toXml());

    VkFileMonLogsItem::Items items;
    for (int i = 0; i < 3; ++i) {
        auto item = std::make_shared<VkFileMonLogsItem>();
        item->setFilePath("/Users/tester/Downloads/file" + std::to_string(i) + ".dmg");
        item->setTrojanName("OSX/Example." + std::string(1, static_cast<char>('A' + i)));
        item->setProcessName("Browser");
        item->setProcessPath("/Applications/Browser.app/Contents/MacOS/Browser");
        item->setDownLoadTime(VkDate{1700000000.0 + i});
        item->setLogTime(VkDate{1700000100.0 + i});
        items.push_back(item);
        seed("monitor_records", "records-" + std::to_string(i),
             text(*VkFileMonLogsItem::archiveItems(items)));
    }
    seed("monitor_records", "empty", text(*VkFileMonLogsItem::archiveItems({})));
}

void cryptSeeds() {
    for (const char* plain :
         {"OSX/Flashback.K", "a", "d41d8cd98f00b204e9800998ecf8427e", "caf\xC3\xA9"}) {
        seed("crypt", std::string("cipher-") + std::to_string(gWritten), *vkEncryptString(plain));
    }
    seed("crypt", "base64", VkEncodeBase64({0, 1, 2, 3, 250, 251, 252}));
    seed("crypt", "padded", "QUJD=A==");
}

void stringsSeeds() {
    seed("strings_table", "table",
         "\xEF\xBB\xBF/* The scan screen. */\n"
         "\"Scan\" = \"Scan\";\n"
         "// a line comment\n"
         "\"Found %d\" = \"%d found\\n\\t\\\"quoted\\\"\";\n"
         "\"Unterminated\" = \"value\n"
         "not an entry\n"
         "\"NoSemicolon\" = \"x\"\n");
}

void manifestSeeds() {
    std::string plainXml = manifest().toXml();
    std::string plainBinary = text(manifest().toBinary());
    seed("manifest", "xml", std::string(1, '\x01') + plainXml);
    seed("manifest", "binary", std::string(1, '\x01') + plainBinary);
    auto served = VkManifestCipher::encrypt(std::vector<uint8_t>(plainXml.begin(), plainXml.end()));
    seed("manifest", "served", std::string(1, '\0') + text(*served));
}

void protocolSeeds() {
    using P = VkMonitorProtocol;
    seed("monitor_protocol", "hello", std::string(1, '\x01') + P::encode(P::kHello));
    seed("monitor_protocol", "requests",
         std::string(1, '\x07') + P::encode(P::kWatch, std::string("/Users/tester/Downloads")) +
             P::encode(P::kGetLogs) + P::encode(P::kUnwatch, std::string("/tmp")));
    seed("monitor_protocol", "reply",
         std::string(1, '\x00') + P::encode(P::kOk, std::string(40, 'r')) +
             P::encode(P::kError, std::string("no")));
}

void databaseSeeds() {
    std::string folder = VkFile::join(gFolder, "signature_file");
    VkFile::createDirectory(folder, true);
    std::string path = VkFile::join(folder, "records.sql");
    // Small pages keep the seed small.
    sqlite3* raw = nullptr;
    if (sqlite3_open(path.c_str(), &raw) != SQLITE_OK)
        std::exit(1);
    sqlite3_exec(raw, "pragma page_size = 512", nullptr, nullptr, nullptr);
    sqlite3_exec(raw, VkSqliteManager::kCreateDescription, nullptr, nullptr, nullptr);
    sqlite3_exec(raw, VkSqliteManager::kCreateTest, nullptr, nullptr, nullptr);
    sqlite3_close(raw);

    auto ctx = vkFuzzContext();
    VkSqliteManager store(ctx);
    store.openDataBase(path);
    store.addDataBaseInfo(std::make_shared<VkDataBaseInfo>("Seed", "1.0"));
    for (int i = 0; i < 3; ++i) {
        std::string contents = "synthetic sample " + std::to_string(i);
        auto item = std::make_shared<VkTorjanItem>();
        item->setName("Test.Seed" + std::to_string(i));
        item->setDetail("made for fuzzing");
        item->setLevel(i);
        item->setFileSize(contents.size());
        item->setTorjanCode(
            VkHashValue::hashWithData(contents.data(), static_cast<uint32_t>(contents.size()), 0));
        if (i == 1)
            item->setKillArray(VkTorjanItem::makeKillArray({{"d", "/Library/Seed", "x.plist"}}));
        item->enCodeTrojanInfo();
        store.addItemToDataBase(item);
    }
    store.closeDataBase();
    ++gWritten;
}

void hdbSeeds() {
    seed("hdb_list", "list",
         "# a hash list\n"
         "d41d8cd98f00b204e9800998ecf8427e:12:Test.One\n"
         "D41D8CD98F00B204E9800998ECF8427F:4096:Test.Two:73\r\n"
         "\n"
         "nothex:1:x\n"
         "d41d8cd98f00b204e9800998ecf8427e:*:Wild\n");
}

// A first byte picking the name (as the target reads it), then a small archive.
void archiveJudgeSeeds() {
    const std::string planted = "synthetic member contents";
    std::string cpio = vkMakeArchive("cpio", "", {{"./x", planted}});
    const std::pair<char, std::string> archives[] = {
        {0, vkMakeArchive(
                "zip", "",
                {{"d/x", planted}, {"in.tar", vkMakeArchive("ustar", "", {{"y", planted}})}})},
        {1, vkMakeArchive("ustar", "gzip", {{"x", planted}})},
        {2, vkMakeArchive("xar", "", {{"Payload", vkGzip(cpio)}})},
        {2, vkMakeArchive("xar", "", {{"Payload", vkPbzx(cpio, 64)}})},
        {3, vkMakeArchive("7zip", "", {{"x", planted}})},
        {4, vkGzip(planted)},
        {7, vkMakeArchive("ustar", "xz", {{"x", planted}})},
    };
    int n = 0;
    for (const auto& [name, bytes] : archives)
        seed("archive_judge", "archive-" + std::to_string(n++), std::string(1, name) + bytes);
}

// A cache as a scan leaves it: entries of two types, one of them a stamp the target looks up.
void hashCacheSeeds() {
    std::string folder = VkFile::join(gFolder, "hash_cache");
    VkFile::createDirectory(folder, true);
    {
        VkHashCache cache(VkFile::join(folder, "cache"), 100, std::chrono::seconds(0));
        cache.rememberChecked({2049, 77, 5, 100, 100}, 1, 0, {std::nullopt, std::string(32, 'a')},
                              "/nowhere/a");
        cache.rememberChecked({2049, 78, 2000000, 100, 100}, 1, 2,
                              {std::string(64, 'b'), std::string(64, 'c')}, "/nowhere/b");
        cache.flush();
    }
    // The write-ahead log is folded into the file when the cache closes.
    for (const char* suffix : {"-wal", "-shm"})
        ::unlink(VkFile::join(folder, std::string("cache") + suffix).c_str());
    ++gWritten;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: vk_make_seeds FOLDER\n");
        return 2;
    }
    gFolder = argv[1];
    plistSeeds();
    archiveSeeds();
    cryptSeeds();
    stringsSeeds();
    manifestSeeds();
    protocolSeeds();
    databaseSeeds();
    hdbSeeds();
    archiveJudgeSeeds();
    hashCacheSeeds();
    VkFile::removeTree(VkFile::deletingLastPathComponent(vkFuzzContext()->dataFolder));
    std::printf("vk_make_seeds: %d seeds in %s\n", gWritten, gFolder.c_str());
    return 0;
}
