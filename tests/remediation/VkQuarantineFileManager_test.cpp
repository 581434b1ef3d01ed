#include "remediation/VkQuarantineFileManager.h"

#include <ctime>
#include <filesystem>
#include <set>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "detectors/VkFakeMac.h"

namespace {

namespace fs = std::filesystem;

class VkQuarantineTest : public VkFakeMacTest {
  protected:
    void SetUp() override {
        VkFakeMacTest::SetUp();
        VkFile::createDirectory(ctx->dataFolder, true);
        core->performMoves(true);
        core->performDeletes(true);
    }

    std::shared_ptr<VkQuarantineFileItem> item(const std::string& path,
                                               const char* name = "OSX/Test") {
        auto q = std::make_shared<VkQuarantineFileItem>();
        q->setOriginalPath(path);
        q->setFilePath(path);
        q->setFileSize(fs::file_size(path));
        if (name)
            q->setTrojanName(std::string(name));
        return q;
    }

    // Quarantines the files f<i>.bin of a folder that are still there, in order.
    void quarantineMany(const std::string& folder, int count) {
        VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
        for (int i = 0; i < count; ++i) {
            std::string path = folder + "/f" + std::to_string(i) + ".bin";
            if (VkFile::existsNoFollow(path))
                store.addItem(item(path, "OSX/Race"));
        }
    }

    std::string timeText() {
        std::time_t t = static_cast<std::time_t>(ctx->clock->now());
        std::tm local{};
        localtime_r(&t, &local);
        char buf[64];
        std::strftime(buf, sizeof buf, "%X", &local);
        std::string s = buf;
        std::replace(s.begin(), s.end(), ':', '.');
        return s;
    }
};

TEST_F(VkQuarantineTest, FolderIsPrivateNamesNeverCollideAndTheListSurvivesARestart) {
    VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
    const std::string folder = store.quarantineFolder();
    struct stat st {};
    ASSERT_EQ(::stat(folder.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    // One name from several folders (the record from d without a trojan name), then files
    // named like the list itself: a quarantined file never takes the list's names.
    const std::string originals[] = {"a/report.pdf", "b/report.pdf", "c/report.pdf",    "d/README",
                                     "e/README",     "x/info.list",  "y/info.list.lock"};
    for (const std::string& original : originals)
        ASSERT_TRUE(store.addItem(item(dir.write("root/" + original, original),
                                       original[0] == 'd' ? nullptr : "OSX/Test")));
    const std::string t = timeText();
    const std::string names[] = {
        "report.pdf",  "report " + t + ".pdf", "report " + t + " 1.pdf",  "README",
        "README " + t, "info " + t + ".list",  "info.list " + t + ".lock"};
    std::vector<std::string> expected;
    for (size_t i = 0; i < std::size(names); ++i)
        expected.push_back(dir / ("root/" + originals[i]) + "|" + folder + "/" + names[i] + "|" +
                           (i == 3 ? "" : "OSX/Test") + "|" + originals[i]);
    EXPECT_FALSE(fs::exists(dir / "root/c/report.pdf"));

    // Read again after a restart: original, quarantined file, name and the file's bytes.
    VkQuarantineFileManager again(ctx->dataFolder, ctx->clock, ctx->coreFunction);
    std::vector<std::string> records;
    for (const auto& q : again.allQuarantineItems()) {
        std::string path = q->filePath().value_or("nil");
        ASSERT_EQ(q->fileSize(), VkFile::readAll(path)->size()) << path;
        records.push_back(q->originalPath().value_or("nil") + "|" + path + "|" +
                          q->trojanName().value_or("nil") + "|" + *VkFile::readAll(path));
    }
    EXPECT_EQ(records, expected);
    auto raw = VkPlist::contentsOfFile(again.infoListPath());
    ASSERT_TRUE(raw && raw->asArray());
    const auto& first = raw->asArray()->at(0);
    EXPECT_EQ(first.asDictionary()->size(), 4u);
    EXPECT_TRUE(first.getString("filePath") && first.getString("trojanName") &&
                first.getString("originalPath") && first.get("fileSize"));
}

TEST_F(VkQuarantineTest, RecoverRemoveAndRemoveAllAndFailedMovesChangeNothing) {
    VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
    std::string original = dir.write("root/home/doc.txt", "bytes\x01\x02");
    auto a = item(original), b = item(dir.write("root/home/other.txt", "other")),
         c = item(dir.write("root/home/third.txt", "third"));
    for (const auto& q : {a, b, c})
        ASSERT_TRUE(store.addItem(q));

    // Failed moves change nothing.
    std::string listBefore = *VkFile::readAll(store.infoListPath());
    core->failMoves(true);
    std::string victim = dir.write("root/v/victim.bin", "v");
    EXPECT_FALSE(store.addItem(item(victim)));
    EXPECT_TRUE(fs::exists(victim));
    EXPECT_FALSE(store.recoverItem(a));
    EXPECT_EQ(store.allQuarantineItems().size(), 3u);
    EXPECT_EQ(*VkFile::readAll(store.infoListPath()), listBefore);
    core->failMoves(false);

    // A list another user owns is not this user's to follow (giving it away needs rights).
    const uid_t self = ::geteuid();
    if (::chown(store.infoListPath().c_str(), self + 4242, static_cast<gid_t>(-1)) == 0) {
        EXPECT_FALSE(store.recoverItem(a));
        EXPECT_FALSE(fs::exists(original));
        EXPECT_FALSE(store.removeItem(b));
        EXPECT_TRUE(fs::exists(*b->filePath()));
        ASSERT_EQ(::chown(store.infoListPath().c_str(), self, static_cast<gid_t>(-1)), 0);
    }
    EXPECT_TRUE(store.recoverItem(a));
    EXPECT_EQ(*VkFile::readAll(original), "bytes\x01\x02");
    std::string bPath = *b->filePath();
    EXPECT_TRUE(store.removeItem(b));
    EXPECT_FALSE(fs::exists(bPath));
    ASSERT_EQ(store.allQuarantineItems().size(), 1u);

    std::string cPath = *c->filePath();
    store.removeAllItem();
    EXPECT_TRUE(store.allQuarantineItems().empty());
    EXPECT_TRUE(fs::exists(cPath)) << "removeAllItem only forgets the records";
    auto raw = VkPlist::contentsOfFile(store.infoListPath());
    ASSERT_TRUE(raw && raw->asArray());
    EXPECT_TRUE(raw->asArray()->empty());
}

TEST_F(VkQuarantineTest, RecordsNamingFilesOutsideTheFolderAreNeverActedOn) {
    std::string precious = dir.write("root/home/precious.txt", "keep me");
    {
        // A list edited by hand (or by something else) to point elsewhere.
        VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
        auto forged = std::make_shared<VkQuarantineFileItem>();
        forged->setFilePath(precious);
        forged->setOriginalPath(dir / "root/elsewhere/precious.txt");
        forged->setTrojanName(std::string("OSX/Forged"));
        store.allQuarantineItems().push_back(forged);
        auto dotted = std::make_shared<VkQuarantineFileItem>(*forged);
        dotted->setFilePath(store.quarantineFolder() + "/../../home/precious.txt");
        store.allQuarantineItems().push_back(dotted);
        ASSERT_TRUE(store.saveQuarantineInfoList());
    }
    VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
    ASSERT_EQ(store.allQuarantineItems().size(), 2u);
    const auto records = store.allQuarantineItems();
    for (const auto& q : records)
        EXPECT_FALSE(store.recoverItem(q)) << *q->filePath();
    EXPECT_EQ(store.allQuarantineItems().size(), 2u);
    for (const auto& q : records)
        EXPECT_FALSE(store.removeItem(q)) << *q->filePath();
    EXPECT_TRUE(store.allQuarantineItems().empty()) << "the records go all the same";
    EXPECT_EQ(*VkFile::readAll(precious), "keep me");
    EXPECT_TRUE(core->callsOf("startClean").empty());
    EXPECT_TRUE(core->callsOf("moveFileItem").empty());
}

TEST_F(VkQuarantineTest, OnlyRegularFilesOfTheRealFolderAreDeleted) {
    std::string victim = dir.write("root/victim/thesis.txt", "keep me");
    dir.write("root/victim/project/a.c", "a");
    std::string folder;
    {
        // A folder and a link inside the quarantine get records on reconcile.
        VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
        folder = store.quarantineFolder();
        fs::create_directory(folder + "/sub");
        fs::create_symlink(victim, folder + "/ln");
        store.reload();
        const auto records = store.allQuarantineItems();
        ASSERT_EQ(records.size(), 2u);
        for (const auto& q : records)
            EXPECT_FALSE(store.removeItem(q)) << *q->filePath();
        EXPECT_TRUE(fs::is_directory(folder + "/sub"));
        EXPECT_TRUE(fs::is_symlink(folder + "/ln"));
    }
    // The folder itself replaced by a link: nothing there is listed, deleted or written.
    fs::remove_all(folder);
    fs::create_directory_symlink(dir / "root/victim", folder);
    VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
    EXPECT_NE(store.folderRefusal().find("symbolic link"), std::string::npos);
    auto forged = std::make_shared<VkQuarantineFileItem>();
    forged->setFilePath(folder + "/thesis.txt");
    store.allQuarantineItems().push_back(forged);
    EXPECT_FALSE(store.removeItem(forged));
    store.reload();
    EXPECT_TRUE(store.allQuarantineItems().empty());
    EXPECT_TRUE(fs::exists(victim));
    EXPECT_TRUE(fs::exists(dir / "root/victim/project/a.c"));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir / "root/victim"), fs::directory_iterator()),
              2);
}

TEST_F(VkQuarantineTest, TwoWritersAndKilledWritersNeverOrphanAFile) {
    constexpr int kEach = 30;
    for (const char* who : {"a", "b", "k"}) {
        for (int i = 0; i < kEach * (who[0] == 'k' ? 4 : 1); ++i)
            dir.write(std::string("root/") + who + "/f" + std::to_string(i) + ".bin", "x");
    }
    pid_t child = ::fork();
    if (child == 0) {
        quarantineMany(dir / "root/a", kEach);
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    quarantineMany(dir / "root/b", kEach);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);

    for (int round = 0; round < 40; ++round) {
        pid_t writer = ::fork();
        if (writer == 0) {
            quarantineMany(dir / "root/k", kEach * 4);
            ::_exit(0);
        }
        ASSERT_GT(writer, 0);
        ::usleep(static_cast<useconds_t>(200 + (round * 997) % 3000));
        ::kill(writer, SIGKILL);
        ::waitpid(writer, nullptr, 0);
    }

    VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
    std::set<std::string> recorded;
    for (const auto& record : store.allQuarantineItems()) {
        EXPECT_FALSE(record->pending());
        EXPECT_TRUE(recorded.insert(*record->filePath()).second) << "one record per file";
    }
    size_t inFolder = 0;
    for (const auto& entry : fs::directory_iterator(store.quarantineFolder())) {
        std::string name = entry.path().filename().string();
        EXPECT_EQ(name.find(".tmp."), std::string::npos) << "left behind: " << name;
        if (name == "info.list" || name == "info.list.lock")
            continue;
        ++inFolder;
        EXPECT_TRUE(recorded.count(entry.path().string())) << "no record for " << name;
    }
    EXPECT_EQ(inFolder, recorded.size());
    auto left = [&](const char* who) {
        return static_cast<size_t>(
            std::distance(fs::directory_iterator(dir / who), fs::directory_iterator()));
    };
    EXPECT_EQ(left("root/a") + left("root/b"), 0u) << "the two whole runs took everything";
    EXPECT_EQ(left("root/k") + inFolder, static_cast<size_t>(kEach * 6))
        << "every file is somewhere";
}

}  // namespace
