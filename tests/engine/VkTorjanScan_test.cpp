#include "engine/VkTorjanScan.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "database/VkSqliteManager.h"
#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHashValue.h"
#include "support/VkCrypt.h"

namespace {

constexpr uint64_t kMiB = 1048576;

// Hands out scripted random values and records the sleeps instead of sleeping.
class PacingRecorder : public VkPacing {
  public:
    int random() override { return randoms.empty() ? 0 : randoms[next++ % randoms.size()]; }
    void sleepMicroseconds(long long microseconds) override { sleeps.push_back(microseconds); }

    std::vector<int> randoms;
    size_t next = 0;
    std::vector<long long> sleeps;
};

// Counts every file-system touch of the matching: attribute reads and hash computations.
class CountingScan : public VkTorjanScan {
  public:
    using VkTorjanScan::VkTorjanScan;

    struct HashCall {
        std::string path;
        int32_t type;
        uint64_t size;
    };

    std::optional<std::string> hashCodeWithPath(const std::string& path, int32_t item,
                                                uint64_t size) override {
        hashCalls.push_back({path, item, size});
        return VkTorjanScan::hashCodeWithPath(path, item, size);
    }
    size_t wholeHashes() const {
        return std::count_if(hashCalls.begin(), hashCalls.end(),
                             [](const HashCall& c) { return c.size == 0; });
    }
    size_t headHashes() const { return hashCalls.size() - wholeHashes(); }

    std::vector<HashCall> hashCalls;
    std::vector<std::string> attributeCalls;

  protected:
    bool attributesOfItem(const std::string& path, struct stat& attributes) override {
        attributeCalls.push_back(path);
        return VkTorjanScan::attributesOfItem(path, attributes);
    }
};

std::string md5(const std::string& bytes) {
    return *VkHashValue::hashWithData(bytes.data(), static_cast<uint32_t>(bytes.size()), 0);
}

// Deterministic bytes of a given length; seed makes different contents of one length.
std::string bytesOf(size_t length, unsigned seed) {
    std::string s(length, '\0');
    for (size_t i = 0; i < length; ++i)
        s[i] = static_cast<char>((i * 131 + seed * 7919 + (i >> 9)) & 0xFF);
    return s;
}

class VkTorjanScanTest : public ::testing::Test {
  protected:
    VkTorjanScanTest() {
        ctx->pacing = pacing;
        scan = std::make_unique<CountingScan>(ctx->systemRoot, ctx->dataFolder, ctx->userDefaults,
                                              ctx->pacing);
    }

    // A plain-text record that the contents match, as a loaded and deciphered record is.
    static std::shared_ptr<VkTorjanItem> recordFor(const std::string& name,
                                                   const std::string& contents) {
        auto item = std::make_shared<VkTorjanItem>();
        item->setName(name);
        item->setFileSize(contents.size());
        item->setTorjanCode(md5(contents));
        if (contents.size() > kMiB)
            item->setHeadeCode(md5(contents.substr(0, kMiB)));
        return item;
    }

    std::shared_ptr<VkTorjanResultItems> check(const std::string& path,
                                               std::vector<std::shared_ptr<VkTorjanItem>> records) {
        return scan->checkTorjan(path, VkTorjanRecordList::make(std::move(records)));
    }

    void trust(const std::string& path, const std::string& hash) {
        VkPlist::Array list =
            ctx->userDefaults->arrayForKey("TrustFileKey").value_or(VkPlist::Array{});
        list.push_back(VkPlist::dictionary({{"TrustFilePath", *vkEncryptString(path)},
                                            {"TrustTrojanName", *vkEncryptString("x")},
                                            {"TrustFileHash", *vkEncryptString(hash)},
                                            {"TrustFileSize", VkPlist::unsignedInteger(1)}}));
        ctx->userDefaults->setObject("TrustFileKey", list);
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    std::shared_ptr<PacingRecorder> pacing = std::make_shared<PacingRecorder>();
    std::unique_ptr<CountingScan> scan;
};

TEST_F(VkTorjanScanTest, MatchesExactSizeAndWholeHashOnly) {
    std::string bad = bytesOf(300, 1);
    std::string path = dir.write("files/bad.bin", bad);
    auto record = recordFor("OSX/Test.A", bad);

    auto result = check(path, {record});
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->path(), path);
    EXPECT_EQ(result->torjanItem(), record);
    EXPECT_EQ(result->fileSize(), 300u);
    EXPECT_EQ(result->displayName(), "OSX/Test.A");
    EXPECT_FALSE(result->spec());

    // Same size, other contents: hashed and rejected.
    EXPECT_EQ(check(dir.write("files/other.bin", bytesOf(300, 2)), {record}), nullptr);
    // The same bytes plus one: no record of that size, so nothing is hashed at all.
    scan->hashCalls.clear();
    EXPECT_EQ(check(dir.write("files/longer.bin", bad + "x"), {record}), nullptr);
    EXPECT_TRUE(scan->hashCalls.empty());
}

TEST_F(VkTorjanScanTest, EmptyFilesNeverMatchEvenARecordOfSizeZero) {
    std::string path = dir.write("empty", "");
    auto record = recordFor("Empty", "");
    ASSERT_EQ(record->fileSize(), 0u);
    EXPECT_EQ(check(path, {record}), nullptr);
    EXPECT_TRUE(scan->hashCalls.empty());
}

TEST_F(VkTorjanScanTest, FileOfExactlyOneMebibyteIsJudgedByWholeHashAlone) {
    std::string contents = bytesOf(kMiB, 3);
    std::string path = dir.write("exact.bin", contents);
    auto record = recordFor("Exact", contents);
    record->setHeadeCode(std::nullopt);  // never consulted at this size

    auto result = check(path, {record});
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(scan->headHashes(), 0u);
    EXPECT_EQ(scan->wholeHashes(), 1u);
}

TEST_F(VkTorjanScanTest, FileOneByteLargerNeedsTheHeadCodeFirst) {
    std::string contents = bytesOf(kMiB + 1, 4);
    std::string path = dir.write("large.bin", contents);

    auto right = recordFor("Large", contents);
    EXPECT_NE(check(path, {right}), nullptr);

    // The whole-file code alone is not enough: without a head code nothing matches, and
    // with a wrong one the whole file is never hashed.
    auto noHead = recordFor("NoHead", contents);
    noHead->setHeadeCode(std::nullopt);
    scan->hashCalls.clear();
    EXPECT_EQ(check(path, {noHead}), nullptr);
    EXPECT_EQ(scan->wholeHashes(), 0u);

    auto wrongHead = recordFor("WrongHead", contents);
    wrongHead->setHeadeCode(md5(bytesOf(kMiB, 5)));
    scan->hashCalls.clear();
    EXPECT_EQ(check(path, {wrongHead}), nullptr);
    EXPECT_EQ(scan->headHashes(), 1u);
    EXPECT_EQ(scan->wholeHashes(), 0u);

    // A file that shares the head but differs at the end passes the head test only.
    std::string tail = contents;
    tail.back() = static_cast<char>(tail.back() ^ 0x5A);
    EXPECT_EQ(check(dir.write("tail.bin", tail), {right}), nullptr);
}

TEST_F(VkTorjanScanTest, HeadHashCoversAFixedMebibyteBufferWhateverTheFlag) {
    std::string path = dir.write("short.txt", "hello");
    std::string padded = "hello" + std::string(kMiB - 5, '\0');
    EXPECT_EQ(scan->hashCodeWithPath(path, 0, kMiB), md5(padded));
    EXPECT_EQ(scan->hashCodeWithPath(path, 0, 1), md5(padded));
    EXPECT_EQ(scan->hashCodeWithPath(path, 0, 0), md5("hello"));
    EXPECT_EQ(scan->hashCodeWithPath(path, 2, 0),
              VkHashValue::hashWithData("hello", 5, 2));  // the type goes to the facility
    EXPECT_FALSE(scan->hashCodeWithPath(dir.write("empty", ""), 0, kMiB).has_value());
    EXPECT_FALSE(scan->hashCodeWithPath(dir.path(), 0, 0).has_value());
    EXPECT_FALSE(scan->hashCodeWithPath(dir / "missing", 0, 0).has_value());
}

TEST_F(VkTorjanScanTest, LinksAreNotReportedButTheirTargetsAre) {
    std::string bad = bytesOf(64, 6);
    std::string target = dir.write("real/bad.bin", bad);
    std::string link = dir / "link.bin";
    std::filesystem::create_symlink(target, link);
    auto record = recordFor("Linked", bad);
    EXPECT_EQ(check(link, {record}), nullptr);
    EXPECT_NE(check(target, {record}), nullptr);
}

TEST_F(VkTorjanScanTest, OtherKindsOfFilesAreNeverHashed) {
    std::string fifo = dir / "pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    auto record = std::make_shared<VkTorjanItem>();
    record->setFileSize(0);
    record->setTorjanCode(md5(""));
    EXPECT_EQ(check(fifo, {record}), nullptr);
    EXPECT_EQ(check(dir.path(), {record}), nullptr);
    EXPECT_EQ(check(dir / "missing", {record}), nullptr);
    EXPECT_TRUE(scan->hashCalls.empty());
}

TEST_F(VkTorjanScanTest, DevicePathsAreNeitherPacedNorTouched) {
    scan->setNeedDelay(true);
    auto record = recordFor("Any", "abc");
    EXPECT_EQ(check("/dev/null", {record}), nullptr);
    EXPECT_EQ(check("/dev/does-not-exist/file", {record}), nullptr);
    EXPECT_TRUE(scan->attributeCalls.empty());
    EXPECT_TRUE(scan->hashCalls.empty());
    EXPECT_TRUE(pacing->sleeps.empty());
}

TEST_F(VkTorjanScanTest, ARealFileBelowDevIsNotReportedThoughItMatches) {
    // /dev/shm is an ordinary writable file system on Linux: a file there that matches a
    // record elsewhere must still be left alone.
    std::string shm = "/dev/shm";
    if (::access(shm.c_str(), W_OK) != 0)
        GTEST_SKIP() << "no writable /dev/shm here";
    std::string bad = bytesOf(100, 7);
    auto record = recordFor("Dev", bad);
    std::string devPath = shm + "/vk-torjan-" + std::to_string(::getpid());
    VkFile::writeAtomically(devPath, bad);
    ASSERT_TRUE(VkFile::existsNoFollow(devPath));
    std::string copy = dir.write("copy.bin", *VkFile::readAll(devPath));
    EXPECT_NE(check(copy, {record}), nullptr);
    EXPECT_EQ(check(devPath, {record}), nullptr);
    ::unlink(devPath.c_str());
}

TEST_F(VkTorjanScanTest, FirstRecordInListOrderWins) {
    std::string bad = bytesOf(500, 8);
    std::string path = dir.write("bad.bin", bad);
    auto first = recordFor("First", bad);
    auto second = recordFor("Second", bad);
    auto otherSize = recordFor("OtherSize", bytesOf(501, 8));
    auto sameSizeOtherCode = recordFor("OtherCode", bytesOf(500, 9));

    EXPECT_EQ(check(path, {otherSize, sameSizeOtherCode, first, second})->torjanItem(), first);
    EXPECT_EQ(check(path, {second, otherSize, first})->torjanItem(), second);
}

TEST_F(VkTorjanScanTest, OneJudgmentHashesOncePerTypeButEveryFileAfresh) {
    std::string contents = bytesOf(kMiB + 10, 10);
    std::string path = dir.write("big.bin", contents);
    std::vector<std::shared_ptr<VkTorjanItem>> records;
    for (int i = 0; i < 5; ++i) {
        auto decoy = recordFor("Decoy", contents);
        decoy->setTorjanCode(md5("decoy" + std::to_string(i)));
        records.push_back(decoy);
    }
    records.push_back(recordFor("Real", contents));
    auto list = VkTorjanRecordList::make(records);

    ASSERT_NE(scan->checkTorjan(path, list), nullptr);
    EXPECT_EQ(scan->headHashes(), 1u);
    EXPECT_EQ(scan->wholeHashes(), 1u);

    // The next judgment reads the file again: a changed file gets a fresh answer.
    std::string changed = contents;
    changed[kMiB + 5] = static_cast<char>(changed[kMiB + 5] ^ 1);
    dir.write("big.bin", changed);
    EXPECT_EQ(scan->checkTorjan(path, list), nullptr);
    EXPECT_EQ(scan->headHashes(), 2u);
    EXPECT_EQ(scan->wholeHashes(), 2u);
}

TEST_F(VkTorjanScanTest, AFileOfASizeNoRecordHasCostsOneAttributeRead) {
    std::vector<std::shared_ptr<VkTorjanItem>> records;
    for (uint64_t size = 1; size <= 20000; ++size) {
        auto item = std::make_shared<VkTorjanItem>();
        item->setFileSize(size * 2);  // even sizes only
        item->setTorjanCode(md5(std::to_string(size)));
        records.push_back(item);
    }
    scan->setTorjanItems(VkTorjanRecordList::make(records));
    EXPECT_EQ(scan->checkTorjan(dir.write("odd.bin", bytesOf(777, 11))), nullptr);
    EXPECT_EQ(scan->attributeCalls.size(), 1u);
    EXPECT_TRUE(scan->hashCalls.empty());
}

TEST_F(VkTorjanScanTest, LoadedRecordsAreUsedUnlessAListIsGiven) {
    std::string bad = bytesOf(40, 12);
    std::string path = dir.write("bad.bin", bad);
    auto loaded = recordFor("Loaded", bad);
    auto given = recordFor("Given", bad);
    EXPECT_EQ(scan->checkTorjan(path), nullptr);  // nothing loaded yet
    scan->setTorjanItems(VkTorjanRecordList::make({loaded}));
    EXPECT_EQ(scan->checkTorjan(path)->torjanItem(), loaded);
    EXPECT_EQ(scan->checkTorjan(path, VkTorjanRecordList::make({given}))->torjanItem(), given);
}

TEST_F(VkTorjanScanTest, TrustedPathAndContentsStopTheSearch) {
    std::string bad = bytesOf(90, 13);
    std::string path = dir.write("bad.bin", bad);
    auto record = recordFor("Trusted", bad);
    ASSERT_NE(check(path, {record}), nullptr);

    trust(path, md5(bad));
    EXPECT_TRUE(scan->checkTrustFile(path, md5(bad)));
    // Trusted: no result from this record nor from any later one.
    EXPECT_EQ(check(path, {record, recordFor("Later", bad)}), nullptr);
    // The test runs before the comparison, so even a record that would not match ends it.
    auto decoy = recordFor("Decoy", bad);
    decoy->setTorjanCode(md5("something else"));
    EXPECT_EQ(check(path, {decoy, record}), nullptr);

    // Trust is bound to the path and the contents together.
    std::string moved = dir.write("moved.bin", bad);
    EXPECT_NE(check(moved, {record}), nullptr);
    EXPECT_FALSE(scan->checkTrustFile(path, md5("other contents")));
    EXPECT_FALSE(scan->checkTrustFile(path + "/", md5(bad)));
}

TEST_F(VkTorjanScanTest, TrustListIsReadAfreshAndUnreadableEntriesNeverMatch) {
    std::string bad = bytesOf(91, 14);
    std::string path = dir.write("bad.bin", bad);
    auto record = recordFor("T", bad);

    // Entries written in plain text, or missing a field, are not trust.
    ctx->userDefaults->setObject(
        "TrustFileKey",
        VkPlist::array({VkPlist::dictionary({{"TrustFilePath", path}, {"TrustFileHash", md5(bad)}}),
                        VkPlist::dictionary({{"TrustFilePath", *vkEncryptString(path)}}),
                        VkPlist("not a dictionary")}));
    EXPECT_FALSE(scan->checkTrustFile(path, md5(bad)));
    EXPECT_NE(check(path, {record}), nullptr);

    // Another writer of the defaults file adds the entry: the next judgment sees it.
    VkUserDefaults other(ctx->defaultsFile);
    VkPlist::Array list = *other.arrayForKey("TrustFileKey");
    list.push_back(VkPlist::dictionary({{"TrustFilePath", *vkEncryptString(path)},
                                        {"TrustFileHash", *vkEncryptString(md5(bad))}}));
    other.setObject("TrustFileKey", list);
    EXPECT_EQ(check(path, {record}), nullptr);
    other.removeObject("TrustFileKey");
    EXPECT_NE(check(path, {record}), nullptr);
}

TEST_F(VkTorjanScanTest, RecordsStoredInPlainTextStillMatchAfterDeciphering) {
    std::string bad = bytesOf(70, 15);
    std::string path = dir.write("bad.bin", bad);

    auto plain = recordFor("Plain", bad);
    plain->deCodeTrojanInfo();
    EXPECT_EQ(plain->TorjanCode(), md5(bad));
    EXPECT_EQ(check(path, {plain})->torjanItem()->name(), "Plain");

    auto enciphered = recordFor("Enciphered", bad);
    enciphered->enCodeTrojanInfo();
    EXPECT_EQ(check(path, {enciphered}), nullptr);  // still in stored form
    enciphered->deCodeTrojanInfo();
    EXPECT_EQ(check(path, {enciphered})->torjanItem()->name(), "Enciphered");
}

TEST_F(VkTorjanScanTest, PacingSleepsOneToFifteenHundredMicrosecondsBeforeEachFile) {
    pacing->randoms = {0, 999, 1999, 1500, 7};
    scan->setNeedDelay(true);
    std::string path = dir.write("clean.txt", "clean");
    check(path, {});
    check(path, {});
    check(path, {});
    check(path, {});
    check(dir / "missing", {});  // the pause comes before the file is looked at
    EXPECT_EQ(pacing->sleeps, (std::vector<long long>{1, 1500, 1500, 751, 12}));

    scan->setNeedDelay(false);
    check(path, {});
    EXPECT_EQ(pacing->sleeps.size(), 5u);
}

TEST_F(VkTorjanScanTest, LoadsEveryDatabaseOfTheDataFolderDeciphered) {
    std::string a = bytesOf(33, 16);
    std::string b = bytesOf(34, 17);
    VkFile::createDirectory(ctx->dataFolder, true);
    auto write = [&](const std::string& file, const std::string& contents,
                     const std::string& name) {
        VkSqliteManager manager(ctx);
        manager.openDataBase(VkFile::join(ctx->dataFolder, file));
        auto item = recordFor(name, contents);
        item->enCodeTrojanInfo();
        ASSERT_TRUE(manager.addItemToDataBase(item));
    };
    write("a.sql", a, "A");
    write("b.sql", b, "B");
    dir.write("data/ignored.SQL", "not even a database");

    VkTorjanRecordList::Items items = VkSqliteManager::loadAllRecords(ctx);
    ASSERT_EQ(items.size(), 2u);
    std::set<std::string> names;
    for (const auto& item : items)
        names.insert(item->name().value_or(""));
    EXPECT_EQ(names, (std::set<std::string>{"A", "B"}));
    scan->setTorjanItems(VkTorjanRecordList::make(items));
    EXPECT_EQ(scan->checkTorjan(dir.write("x/a.bin", a))->displayName(), "A");
    EXPECT_EQ(scan->checkTorjan(dir.write("x/b.bin", b))->displayName(), "B");
}

TEST_F(VkTorjanScanTest, ARecordListedTwiceIsDecipheredOnce) {
    // A file that is no database after a good one leaves the good one's records in the store,
    // so they are listed twice; they must still come out readable.
    std::string a = bytesOf(35, 18);
    VkFile::createDirectory(ctx->dataFolder, true);
    {
        VkSqliteManager manager(ctx);
        manager.openDataBase(VkFile::join(ctx->dataFolder, "a.sql"));
        auto item = recordFor("A", a);
        item->enCodeTrojanInfo();
        ASSERT_TRUE(manager.addItemToDataBase(item));
    }
    dir.write("data/b.sql", std::string(4096, 'g'));  // not SQLite
    std::vector<std::string> order = VkSqliteManager(ctx).dataBasePaths();
    if (order.size() != 2 || VkFile::lastPathComponent(order[0]) != "a.sql")
        GTEST_SKIP() << "the folder lists b.sql first here";

    testing::internal::CaptureStdout();
    VkTorjanRecordList::Items items = VkSqliteManager::loadAllRecords(ctx);
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("errorMsg "), std::string::npos);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0], items[1]);
    EXPECT_EQ(items[0]->name(), "A");
    EXPECT_EQ(items[0]->TorjanCode(), md5(a));
}

}  // namespace
