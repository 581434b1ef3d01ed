// End to end: `vksig publish` writes an update folder, a loopback HTTP server serves it, and
// `vksecurity update` fetches, stages and installs from it.

#include <cstdlib>
#include <sys/wait.h>
#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "database/VkSqliteManager.h"
#include "fakes/VkRunProgram.h"
#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"

namespace {

struct ProgramRun {
    int code = -1;
    std::string out;
    std::string err;
};

class VkSigPublishTest : public ::testing::Test {
  protected:
    void SetUp() override {
        VkFile::createDirectory(dir / "www", true);
        VkFile::createDirectory(dir / "resources", true);
        server.set_mount_point("/", dir / "www");
        port = server.bind_to_any_port("127.0.0.1");
        thread = std::thread([this] { server.listen_after_bind(); });
        while (!server.is_running())
            std::this_thread::yield();
    }
    void TearDown() override {
        server.stop();
        thread.join();
    }

    ProgramRun run(const std::string& program, const std::vector<std::string>& args) {
        // A private data folder, defaults file and (empty) resource folder: nothing of the
        // user's is read or written, and no packaged database gets in the way.
        VkProgramOutput r =
            vkRunProgram(std::string(VK_BINARY_DIR) + "/apps/" + program + "/" + program, args,
                         {{"VK_DATA_DIR", dir / "data"},
                          {"VK_DEFAULTS_FILE", dir / "defaults.plist"},
                          {"VK_RESOURCE_DIR", dir / "resources"}});
        return ProgramRun{r.exitCode, r.out, r.err};
    }
    std::string url() { return "http://127.0.0.1:" + std::to_string(port); }
    std::string manifest() {
        return dir / "www/velkora_soft_upgrade_files/trojanupdate/version.xml";
    }

    VkTempDir dir;
    httplib::Server server;
    int port = 0;
    std::thread thread;
};

TEST_F(VkSigPublishTest, PublishedFolderIsFetchedStagedAndInstalled) {
    std::string db = dir / "Mine.sql";
    ASSERT_EQ(run("vksig", {"create", db, "--name", "Mine", "--version", "1.2"}).code, 0);
    ProgramRun published = run("vksig", {"publish", dir / "www", db, "--date", "2024-05-01"});
    ASSERT_EQ(published.code, 0) << published.err;
    EXPECT_NE(published.out.find("sha256"), std::string::npos);
    EXPECT_TRUE(VkFile::exists(manifest()));

    ProgramRun update = run("vksecurity", {"update", "--server", url()});
    ASSERT_EQ(update.code, 0) << update.out << update.err;
    EXPECT_NE(update.out.find("downloaded Mine 1.2"), std::string::npos) << update.out;
    EXPECT_NE(update.out.find("installed " + (dir / "data/Mine.sql")), std::string::npos)
        << update.out;
    EXPECT_EQ(*VkFile::readAll(dir / "data/Mine.sql"), *VkFile::readAll(db));
    EXPECT_FALSE(VkFile::exists(dir / "data/temp/Mine.sql"));

    ProgramRun again = run("vksecurity", {"--json", "update", "--server", url()});
    ASSERT_EQ(again.code, 0) << again.err;
    auto report = nlohmann::json::parse(again.out);
    EXPECT_EQ(report["updateDate"], "2024-05-01T00:00:00Z");
    ASSERT_EQ(report["entries"].size(), 1u);
    EXPECT_EQ(report["entries"][0]["action"], "current");
    EXPECT_EQ(report["entries"][0]["localVersion"], "1.2");
    EXPECT_TRUE(report["installed"].empty());

    ProgramRun listed = run("vksecurity", {"--json", "db"});
    ASSERT_EQ(listed.code, 0) << listed.err;
    auto dbs = nlohmann::json::parse(listed.out);
    ASSERT_EQ(dbs["installed"].size(), 1u);
    EXPECT_EQ(dbs["installed"][0]["name"], "Mine");
    EXPECT_EQ(dbs["installed"][0]["version"], "1.2");
    EXPECT_TRUE(dbs["staged"].empty());
}

TEST_F(VkSigPublishTest, UnreachableServerAndUndecipherableManifestExitWithTwo) {
    ProgramRun down = run("vksecurity", {"update", "--server", "http://127.0.0.1:1"});
    EXPECT_EQ(down.code, 2);
    EXPECT_NE(down.err.find("cannot reach the update server"), std::string::npos) << down.err;

    ProgramRun missing = run("vksecurity", {"update", "--server", url()});
    EXPECT_EQ(missing.code, 2) << "no manifest: HTTP 404";
    EXPECT_NE(missing.err.find("404"), std::string::npos) << missing.err;

    VkFile::createDirectory(dir / "www/velkora_soft_upgrade_files/trojanupdate", true);
    ASSERT_TRUE(VkFile::writeAtomically(manifest(), std::string("<plist>plain text</plist>")).ok());
    ProgramRun garbled = run("vksecurity", {"update", "--server", url()});
    EXPECT_EQ(garbled.code, 2);
    EXPECT_NE(garbled.err.find("does not decipher"), std::string::npos) << garbled.err;
    EXPECT_FALSE(VkFile::exists(dir / "data/temp"));
}

TEST_F(VkSigPublishTest, PublishRefusesBadDatesAndFilesThatAreNoDatabases) {
    std::string db = dir / "Mine.sql";
    ASSERT_EQ(run("vksig", {"create", db, "--name", "Mine", "--version", "1"}).code, 0);
    EXPECT_EQ(run("vksig", {"publish", dir / "www", db, "--date", "2024-02-30"}).code, 2);
    std::string text = dir.write("notes.sql", "hello");
    ProgramRun refused = run("vksig", {"publish", dir / "www", text});
    EXPECT_EQ(refused.code, 2);
    EXPECT_FALSE(refused.err.empty());
    // A name the update would skip as not a plain NAME.sql.
    std::string spaced = dir / "My DB.sql";
    ASSERT_EQ(run("vksig", {"create", spaced, "--name", "Spaced", "--version", "1"}).code, 0);
    ProgramRun skipped = run("vksig", {"publish", dir / "www", spaced});
    EXPECT_EQ(skipped.code, 2);
    EXPECT_NE(skipped.err.find("file name must be"), std::string::npos) << skipped.err;
    EXPECT_FALSE(VkFile::exists(manifest()));
}

}  // namespace
