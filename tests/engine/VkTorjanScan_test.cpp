#include "engine/VkTorjanScan.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "database/VkSqliteManager.h"
#include "engine/VkEngineTestData.h"
#include "fakes/VkTestSignatures.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHashValue.h"
#include "support/VkCrypt.h"

namespace {

// Counts every file-system touch of the matching: attribute reads and hash computations.
class CountingScan : public VkTorjanScan {
  public:
    using VkTorjanScan::VkTorjanScan;

    std::optional<std::string> hashOpenFile(int fd, int32_t item, uint64_t head,
                                            uint64_t size) override {
        hashCalls.push_back(head);  // 0 for the whole file, else the head's length
        return VkTorjanScan::hashOpenFile(fd, item, head, size);
    }
    // Head and whole-file hashes so far.
    std::pair<size_t, size_t> hashes() const {
        size_t whole = std::count(hashCalls.begin(), hashCalls.end(), 0u);
        return {hashCalls.size() - whole, whole};
    }

    std::vector<uint64_t> hashCalls;
    std::vector<std::string> attributeCalls;

  protected:
    bool attributesOfItem(const std::string& path, struct stat& attributes) override {
        attributeCalls.push_back(path);
        return VkTorjanScan::attributesOfItem(path, attributes);
    }
};

using VkTorjanScanTest = VkEngineScanTest<CountingScan>;

TEST_F(VkTorjanScanTest, MatchesExactSizeAndWholeHashFirstRecordInListOrderWinning) {
    std::string bad = vkTestBytes(300, 1);
    std::string path = dir.write("files/bad.bin", bad);
    auto record = recordFor("OSX/Test.A", bad);

    auto result = check(path, {record});
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(std::tuple(result->path(), result->torjanItem(), result->fileSize(),
                         result->displayName(), result->spec()),
              std::tuple(path, record, 300u, "OSX/Test.A", false));

    // Same size, other contents: hashed and rejected.
    EXPECT_EQ(check(dir.write("files/other.bin", vkTestBytes(300, 2)), {record}), nullptr);
    // The same bytes plus one: no record of that size among many, so one attribute read and
    // nothing hashed; nor is an empty file, even against a record of size zero.
    scan->hashCalls.clear();
    scan->attributeCalls.clear();
    std::string longer = dir.write("files/longer.bin", bad + "x");
    std::vector<std::shared_ptr<VkTorjanItem>> many{record};
    for (uint64_t size = 1; size <= 20000; ++size) {  // enough to grow the size index
        many.push_back(std::make_shared<VkTorjanItem>());
        many.back()->setFileSize(size * 2);
        many.back()->setTorjanCode(md5(std::to_string(size)));
    }
    EXPECT_EQ(check(longer, many), nullptr);
    EXPECT_EQ(scan->attributeCalls, std::vector<std::string>{longer});
    EXPECT_EQ(check(dir.write("empty", ""), {recordFor("Empty", "")}), nullptr);
    EXPECT_TRUE(scan->hashCalls.empty());

    auto second = recordFor("Second", bad);
    auto otherSize = recordFor("OtherSize", vkTestBytes(301, 1));
    auto sameSizeOtherCode = recordFor("OtherCode", vkTestBytes(300, 9));
    EXPECT_EQ(check(path, {otherSize, sameSizeOtherCode, record, second})->torjanItem(), record);
    EXPECT_EQ(check(path, {second, otherSize, record})->torjanItem(), second);

    // Without a list the loaded records are used.
    EXPECT_EQ(scan->checkTorjan(path), nullptr);  // nothing loaded yet
    scan->setTorjanItems(VkTorjanRecordList::make({second}));
    EXPECT_EQ(scan->checkTorjan(path)->torjanItem(), second);
}

// At exactly one mebibyte the whole-file code alone decides; one byte more and the head
// code must match first. Each type is hashed once per judgment, every judgment afresh.
TEST_F(VkTorjanScanTest, FilesOverAMebibyteNeedTheHeadCodeFirst) {
    std::string exact = vkTestBytes(kMiB, 3);
    auto exactRecord = recordFor("Exact", exact);
    exactRecord->setHeadeCode(std::nullopt);  // never consulted at this size
    ASSERT_NE(check(dir.write("exact.bin", exact), {exactRecord}), nullptr);
    EXPECT_EQ(scan->hashes(), std::pair(0ul, 1ul));

    std::string contents = vkTestBytes(kMiB + 1, 4);
    std::string path = dir.write("large.bin", contents);
    std::vector<std::shared_ptr<VkTorjanItem>> records;
    for (int i = 0; i < 5; ++i) {
        records.push_back(recordFor("Decoy", contents));
        records.back()->setTorjanCode(md5("decoy" + std::to_string(i)));
    }
    records.push_back(recordFor("Large", contents));
    auto list = VkTorjanRecordList::make(records);
    scan->hashCalls.clear();
    ASSERT_NE(scan->checkTorjan(path, list), nullptr);
    EXPECT_EQ(scan->hashes(), std::pair(1ul, 1ul));

    // A file that shares the head but differs at the end passes the head test only.
    std::string tail = contents;
    tail.back() = static_cast<char>(tail.back() ^ 0x5A);
    dir.write("large.bin", tail);
    EXPECT_EQ(scan->checkTorjan(path, list), nullptr);
    EXPECT_EQ(scan->hashes(), std::pair(2ul, 2ul));
    dir.write("large.bin", contents);

    // Without a head code nothing matches; with a wrong one the whole file is never hashed.
    auto noHead = recordFor("NoHead", contents);
    noHead->setHeadeCode(std::nullopt);
    scan->hashCalls.clear();
    EXPECT_EQ(check(path, {noHead}), nullptr);
    EXPECT_EQ(scan->hashes().second, 0u);
    scan->hashCalls.clear();
    EXPECT_EQ(check(path, {recordFor("WrongHead", contents, false)}), nullptr);
    EXPECT_EQ(scan->hashes(), std::pair(1ul, 0ul));
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
}

// Links, FIFOs, folders and missing paths are never hashed; paths below /dev are neither
// paced nor looked at.
TEST_F(VkTorjanScanTest, OnlyRegularFilesOutsideDevAreJudged) {
    std::string bad = vkTestBytes(64, 6);
    std::string target = dir.write("real/bad.bin", bad);
    std::filesystem::create_symlink(target, dir / "link.bin");
    std::string fifo = dir / "pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    auto record = recordFor("Linked", bad);
    auto empty = recordFor("Empty", "");
    for (const std::string& path : {dir / "link.bin", fifo, dir.path(), dir / "missing"})
        EXPECT_EQ(check(path, {record, empty}), nullptr) << path;
    EXPECT_TRUE(scan->hashCalls.empty());
    EXPECT_NE(check(target, {record}), nullptr);

    scan->setNeedDelay(true);
    scan->attributeCalls.clear();
    scan->hashCalls.clear();
    EXPECT_EQ(check("/dev/null", {record}), nullptr);
    EXPECT_EQ(check("/dev/does-not-exist/file", {record}), nullptr);
    // Not even looked at, so a real file there (/dev/shm) is never reported either; the
    // command line's not-examined case holds that end to end.
    EXPECT_TRUE(scan->attributeCalls.empty() && scan->hashCalls.empty() && pacing->sleeps.empty());
}

// The trust list is read afresh for every judgment; entries in plain text or missing a field
// never match.
TEST_F(VkTorjanScanTest, TrustOfPathAndContentsTogetherStopsTheSearch) {
    std::string bad = vkTestBytes(90, 13);
    std::string path = dir.write("bad.bin", bad);
    auto record = recordFor("Trusted", bad);
    ctx->userDefaults->setObject(
        "TrustFileKey",
        VkPlist::array({VkPlist::dictionary({{"TrustFilePath", path}, {"TrustFileHash", md5(bad)}}),
                        VkPlist::dictionary({{"TrustFilePath", *vkEncryptString(path)}}),
                        VkPlist("not a dictionary")}));
    ASSERT_NE(check(path, {record}), nullptr);

    // Trusted the way the panel does, through another writer of the defaults file.
    VkUserDefaults other(ctx->defaultsFile);
    VkPlist::Array list = other.arrayForKey("TrustFileKey").value_or(VkPlist::Array{});
    list.push_back(VkPlist::dictionary({{"TrustFilePath", *vkEncryptString(path)},
                                        {"TrustTrojanName", *vkEncryptString("x")},
                                        {"TrustFileHash", *vkEncryptString(md5(bad))},
                                        {"TrustFileSize", VkPlist::unsignedInteger(1)}}));
    other.setObject("TrustFileKey", list);
    EXPECT_TRUE(scan->checkTrustFile(path, md5(bad)));
    // Trusted: no result from this record nor from any later one.
    EXPECT_EQ(check(path, {record, recordFor("Later", bad)}), nullptr);
    // The test runs before the comparison, so even a record that would not match ends it.
    auto decoy = recordFor("Decoy", bad);
    decoy->setTorjanCode(md5("something else"));
    EXPECT_EQ(check(path, {decoy, record}), nullptr);

    // Trust is bound to the path and the contents together.
    EXPECT_NE(check(dir.write("moved.bin", bad), {record}), nullptr);
    EXPECT_FALSE(scan->checkTrustFile(path, md5("other contents")));
    EXPECT_FALSE(scan->checkTrustFile(path + "/", md5(bad)));
}

TEST_F(VkTorjanScanTest, PacingSleepsOneToFifteenHundredMicrosecondsBeforeEachFile) {
    pacing->randoms = {0, 999, 1999, 1500, 7};
    scan->setNeedDelay(true);
    std::string path = dir.write("clean.txt", "clean");
    for (int i = 0; i < 4; ++i)
        check(path, {});
    check(dir / "missing", {});  // the pause comes before the file is looked at
    EXPECT_EQ(pacing->sleeps, (std::vector<long long>{1, 1500, 1500, 751, 12}));

    scan->setNeedDelay(false);
    check(path, {});
    EXPECT_EQ(pacing->sleeps.size(), 5u);
}

TEST_F(VkTorjanScanTest, ARecordListedTwiceIsDecipheredOnce) {
    // A file that is no database (not SQLite) after a good one leaves the good one's records
    // in the store, so they are listed twice; they must still come out readable. The folder's
    // own order (by name hash or by creation, as the file system has it) decides which comes
    // first, so names and the order of writing vary until it fits.
    std::string a = vkTestBytes(35, 18);
    dir.mkdir("data");
    bool goodFirst = false;
    for (int i = 0; i < 24 && !goodFirst; ++i) {
        std::string good = ctx->dataPath("a" + std::to_string(i) + ".sql");
        std::string bad = ctx->dataPath("b" + std::to_string(i) + ".sql");
        if (i % 2 == 1)
            dir.write("data/" + VkFile::lastPathComponent(bad), std::string(4096, 'g'));
        vkWriteSignatureDatabase(good, "Db", "1.0", {{"A", a, {}}});
        if (i % 2 == 0)
            dir.write("data/" + VkFile::lastPathComponent(bad), std::string(4096, 'g'));
        goodFirst = VkSqliteManager(ctx).dataBasePaths() == std::vector<std::string>{good, bad};
        if (!goodFirst) {
            ASSERT_EQ(::unlink(good.c_str()), 0);
            ASSERT_EQ(::unlink(bad.c_str()), 0);
        }
    }
    ASSERT_TRUE(goodFirst) << "no pair of names was listed good database first";

    testing::internal::CaptureStdout();
    VkTorjanRecordList::Items items = VkSqliteManager::loadAllRecords(ctx);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("errorMsg "), std::string::npos);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0], items[1]);
    EXPECT_EQ(std::tuple(items[0]->name(), items[0]->TorjanCode()), std::tuple("A", md5(a)));
}

}  // namespace
