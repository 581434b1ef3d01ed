// End to end: `vksig keygen` and `vksig publish --key` write a signed update folder, a loopback
// HTTP server serves it, and `vksecurity update` verifies, fetches, stages and installs from
// it, or refuses it and leaves the data folder as it was.

#include <filesystem>
#include <functional>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "database/VkAddTorjanItems.h"
#include "database/VkSqliteManager.h"
#include "fakes/VkFolderServer.h"
#include "fakes/VkRunProgram.h"
#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class VkSigPublishTest : public ::testing::Test {
  protected:
    void SetUp() override { VkFile::createDirectory(dir / "resources", true); }

    VkProgramOutput run(const std::string& program, const std::vector<std::string>& args) {
        // A private data folder, defaults file and (empty) resource folder: nothing of the
        // user's is read or written, and no packaged database gets in the way.
        return vkRunProgram(std::string(VK_BINARY_DIR) + "/apps/" + program + "/" + program, args,
                            {{"VK_DATA_DIR", dir / "data"},
                             {"VK_DEFAULTS_FILE", dir / "defaults.plist"},
                             {"VK_RESOURCE_DIR", dir / "resources"},
                             {"VK_UPDATE_KEYS_DIR", dir / "trusted"}});
    }
    // A run that must succeed.
    VkProgramOutput ok(const std::string& program, const std::vector<std::string>& args) {
        auto r = run(program, args);
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        return r;
    }
    // A key pair made by vksig; with `trust`, its public half is given to the client.
    std::string keygen(const std::string& name, bool trust) {
        dir.mkdir("keys");
        ok("vksig", {"keygen", dir / ("keys/" + name)});
        if (trust)
            dir.write("trusted/" + name + ".pub",
                      *VkFile::readAll(dir / ("keys/" + name + ".pub")));
        return dir / ("keys/" + name + ".key");
    }
    // Every regular file below the data folder with its bytes.
    std::map<std::string, std::string> dataFiles() {
        std::map<std::string, std::string> files;
        for (const auto& e : std::filesystem::recursive_directory_iterator(dir / "data")) {
            if (e.is_regular_file())
                files[e.path().string()] = *VkFile::readAll(e.path().string());
        }
        return files;
    }
    std::string served(const std::string& name) {
        return dir / ("www/velkora_soft_upgrade_files/trojanupdate/" + name);
    }
    VkTempDir dir;
    VkFolderServer server{dir / "www"};
};

TEST_F(VkSigPublishTest, PublishedFolderIsFetchedStagedAndInstalled) {
    std::string key = keygen("publisher", true);
    namespace fs = std::filesystem;
    EXPECT_EQ(fs::status(key).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(run("vksig", {"keygen", dir / "keys/publisher"}).exitCode, 2)
        << "a key is never overwritten";
    std::string db = dir / "Mine.sql";
    ok("vksig", {"create", db, "--name", "Mine", "--version", "1.2"});
    EXPECT_THAT(ok("vksig", {"publish", dir / "www", db, "--date", "2024-05-01", "--key", key}).out,
                HasSubstr("sha256"));

    auto update = ok("vksecurity", {"update", "--server", server.url()});
    EXPECT_THAT(update.out, HasSubstr("signed by key"));
    EXPECT_THAT(update.out, HasSubstr("downloaded Mine 1.2"));
    EXPECT_THAT(update.out, HasSubstr("installed " + (dir / "data/Mine.sql")));
    EXPECT_EQ(*VkFile::readAll(dir / "data/Mine.sql"), *VkFile::readAll(db));
    EXPECT_FALSE(VkFile::exists(dir / "data/temp/Mine.sql"));

    auto report =
        nlohmann::json::parse(ok("vksecurity", {"--json", "update", "--server", server.url()}).out);
    EXPECT_EQ(report["updateDate"], "2024-05-01T00:00:00Z");
    EXPECT_EQ(report["entries"], nlohmann::json::parse(R"([{"name": "Mine", "version": "1.2",
        "localVersion": "1.2", "action": "current", "detail": "local version 1.2",
        "webpath": "Mine.sql"}])"));
    EXPECT_TRUE(report["installed"].empty());

    auto dbs = nlohmann::json::parse(ok("vksecurity", {"--json", "db"}).out);
    ASSERT_EQ(dbs["installed"].size(), 1u);
    EXPECT_EQ(dbs["installed"][0]["name"], "Mine");
    EXPECT_EQ(dbs["installed"][0]["version"], "1.2");
    EXPECT_TRUE(dbs["staged"].empty());
}

// Each way of slipping in other databases than the publisher's.
TEST_F(VkSigPublishTest, TamperedUpdatesAreRefusedAndChangeNothing) {
    std::string key = keygen("publisher", true);
    std::string stranger = keygen("stranger", false);
    std::string v1 = dir.mkdir("v1") + "/Mine.sql", v2 = dir.mkdir("v2") + "/Mine.sql";
    std::string other = dir.mkdir("other") + "/Mine.sql";
    for (const auto& [db, version] :
         std::map<std::string, std::string>{{v1, "1"}, {v2, "2"}, {other, "2"}})
        ok("vksig", {"create", db, "--name", "Mine", "--version", version});
    ok("vksig", {"add", other, "--size", "3", "--code", "0123456789abcdef0123456789abcdef",
                 "--name", "Not.Publishers"});
    auto publish = [&](const std::string& db, const std::string& signer,
                       const std::string& serial) {
        std::filesystem::remove_all(dir / "www");
        std::vector<std::string> args = {"publish", dir / "www", db, "--serial", serial};
        if (!signer.empty())
            args.insert(args.end(), {"--key", signer});
        ok("vksig", args);
    };
    // A served file with one bit changed.
    auto flip = [&](const std::string& name) {
        std::string body = *VkFile::readAll(served(name));
        body[body.size() / 2] ^= 1;
        VkFile::writeAtomically(served(name), body);
    };
    publish(v1, key, "100");
    ok("vksecurity", {"update", "--server", server.url()});
    const auto before = dataFiles();
    ASSERT_EQ(before.at(dir / "data/Mine.sql"), *VkFile::readAll(v1));

    // Each case publishes v2 signed by `signer` under `serial`, then tampers with what is served.
    const std::string sig = served("version.xml.sig");
    const struct {
        const char* name;
        std::string signer, serial;
        std::function<void()> tamper;
        const char* reason;
    } cases[] = {
        {"manifest changed", key, "200", [&] { flip("version.xml"); }, "signature does not verify"},
        {"database changed", key, "200", [&] { flip("Mine.sql"); }, "not the signed file"},
        {"unknown key", stranger, "200", nullptr, "none of the 1 trusted key"},
        {"truncated signature", key, "200",
         [&] { VkFile::writeAtomically(sig, VkFile::readAll(sig)->substr(0, 40)); },
         "40 bytes, not an Ed25519 signature"},
        {"older manifest replayed", key, "99", nullptr, "older than the last one"},
        {"signature of another manifest", key, "200",
         [&] {
             std::string signature = *VkFile::readAll(sig);
             publish(v2, key, "201");
             VkFile::writeAtomically(sig, signature);
         },
         "signature does not verify"},
        {"unsigned", "", "200", nullptr, "not signed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        publish(v2, c.signer, c.serial);
        if (c.tamper)
            c.tamper();
        auto refused = run("vksecurity", {"update", "--server", server.url()});
        EXPECT_EQ(refused.exitCode, 2) << refused.out;
        EXPECT_THAT(refused.out + refused.err, HasSubstr(c.reason));
        EXPECT_TRUE(dataFiles() == before) << "the data folder changed";
    }

    // A staged file swapped before it is applied: the check stages the publisher's file, the
    // swap puts another in its place, and applying deletes it instead of installing it.
    publish(v2, key, "300");
    auto ctx = VkContext::forTesting(dir / "client");
    ctx->dataFolder = dir / "data";
    ctx->updateKeysFolder = dir / "trusted";
    ctx->updateServer = server.url();
    VkAddTorjanItems updater(ctx);
    VkUpdateReport staged = updater.checkUpdateOnce();
    ASSERT_EQ(staged.entries.size(), 1u);
    ASSERT_EQ(staged.entries[0].action, VkUpdateReport::Action::Downloaded);
    VkFile::writeAtomically(dir / "data/temp/Mine.sql", *VkFile::readAll(other));
    std::vector<std::string> refusedFiles;
    EXPECT_TRUE(updater.copyToLocalPath(&refusedFiles).empty());
    ASSERT_EQ(refusedFiles.size(), 1u);
    EXPECT_THAT(refusedFiles[0], HasSubstr("not the file the signed manifest lists"));
    EXPECT_TRUE(*VkFile::readAll(dir / "data/Mine.sql") == *VkFile::readAll(v1));
    EXPECT_FALSE(VkFile::exists(dir / "data/temp/Mine.sql"));

    // The next check fetches the publisher's file again and installs it.
    ok("vksecurity", {"update", "--server", server.url()});
    EXPECT_TRUE(*VkFile::readAll(dir / "data/Mine.sql") == *VkFile::readAll(v2));

    // Two databases, one served changed: the other is verified, then removed for that reason.
    std::string v3 = dir.mkdir("v3") + "/Mine.sql", two = dir.mkdir("two") + "/Two.sql";
    ok("vksig", {"create", v3, "--name", "Mine", "--version", "3"});
    ok("vksig", {"create", two, "--name", "Two", "--version", "1"});
    std::filesystem::remove_all(dir / "www");
    ok("vksig", {"publish", dir / "www", two, v3, "--serial", "400", "--key", key});
    flip("Mine.sql");
    auto partly = run("vksecurity", {"update", "--server", server.url()});
    EXPECT_EQ(partly.exitCode, 2);
    EXPECT_THAT(partly.out, HasSubstr("Two 1: verified, but removed: the manifest (serial 400) "
                                      "was not taken, Mine.sql not being the file it lists"));
    EXPECT_THAT(partly.err, Not(HasSubstr("Two.sql: deleted")));
    EXPECT_FALSE(VkFile::exists(dir / "data/temp/Two.sql") || VkFile::exists(dir / "data/Two.sql"));
}

TEST_F(VkSigPublishTest, RefusedPublishesAndUpdatesExitWithTwoAndChangeNothing) {
    std::string db = dir / "Mine.sql";
    ok("vksig", {"create", db, "--name", "Mine", "--version", "1"});
    // A name the update would skip as not a plain NAME.sql.
    std::string spaced = dir / "My DB.sql";
    ok("vksig", {"create", spaced, "--name", "Spaced", "--version", "1"});
    const struct {
        const char* program;
        std::vector<std::string> args;
        const char* reason;
    } cases[] = {
        {"vksig", {"publish", dir / "www", db, "--date", "2024-02-30"}, "expected YYYY-MM-DD"},
        {"vksig", {"publish", dir / "www", dir.write("notes.sql", "hello")}, "notes.sql"},
        {"vksig", {"publish", dir / "www", spaced}, "file name must be"},
    };
    for (const auto& c : cases) {
        auto refused = run(c.program, c.args);
        EXPECT_EQ(refused.exitCode, 2) << c.reason;
        EXPECT_THAT(refused.err, HasSubstr(c.reason));
    }
    EXPECT_FALSE(VkFile::exists(served("version.xml")));

    // Unsigned: publishing warns, and the client takes it when allowed (refused otherwise: the
    // "unsigned" case of TamperedUpdatesAreRefusedAndChangeNothing).
    EXPECT_THAT(ok("vksig", {"publish", dir / "www", db}).err, HasSubstr("unsigned"));
    EXPECT_THAT(ok("vksecurity", {"update", "--server", server.url(), "--allow-unsigned"}).out,
                HasSubstr("UNSIGNED"));
    EXPECT_EQ(*VkFile::readAll(dir / "data/Mine.sql"), *VkFile::readAll(db));
}

}  // namespace
