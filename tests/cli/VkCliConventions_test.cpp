#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fakes/VkRunProgram.h"
#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

const std::string kApps = std::string(VK_BINARY_DIR) + "/apps/";

mode_t modeOf(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// Both programs as an administrator meets them: a data folder without signatures (nothing
// packaged either), so that a monitor that wrongly starts in the foreground fails at once
// instead of running.
class VkCliConventionsTest : public ::testing::Test {
  protected:
    VkProgramOutput run(const std::string& program, const std::vector<std::string>& args,
                        std::map<std::string, std::string> env = {}) {
        env.emplace("VK_DATA_DIR", dir / "data");
        env.emplace("VK_DEFAULTS_FILE", dir / "config/VkSecurity.plist");
        env.emplace("VK_RESOURCE_DIR", dir.mkdir("no-resources"));
        env.emplace("XDG_RUNTIME_DIR", dir.mkdir("run"));
        env.emplace("VK_UPDATE_SERVER", "http://127.0.0.1:9");
        return vkRunProgram(kApps + program + "/" + program, args, env);
    }

    VkTempDir dir;
};

TEST_F(VkCliConventionsTest, UsageErrorsAndMonitorSettingsAsTheTableSays) {
    std::string watched = dir.mkdir("inbox");
    struct Case {
        std::string program;
        std::vector<std::string> args;
        int exitCode;
        std::string inErr;  // "" = anything
        std::string inOut;
    };
    const std::vector<Case> cases = {
        {"vksecurity", {}, 2, "Usage: vksecurity [OPTIONS]", ""},
        {"vksig", {}, 2, "Usage: vksig [OPTIONS]", ""},
        {"vksecurity", {"bogus"}, 2, "vksecurity: unknown command: bogus\n", ""},
        {"vksig", {"bogus"}, 2, "vksig: unknown command: bogus\n", ""},
        {"vksecurity", {"trust", "bogus"}, 2, "unknown command: trust bogus\n", ""},
        {"vksecurity", {"scan", "--bogus"}, 2, "vksecurity: The following argument", ""},
        {"vksig", {"list"}, 2, "vksig: DB is required", ""},
        {"vksecurity", {"--user", "no-such-user-here", "paths"}, 2, "no user \"no-such-user", ""},
        {"vksecurity", {"--json", "update"}, 2, "cannot reach", "\"success\": false"},
        {"vksecurity", {"logs", "--help"}, 0, "", "--json"},
        {"vksecurity", {"monitor", "--settle", "0"}, 2, "--settle: the settle time must", ""},
        {"vksecurity", {"monitor", "--start", "--stop"}, 2, "--start excludes --stop", ""},
        {"vksecurity", {"monitor", "--stop"}, 0, "", "the file monitor is not running"},
        {"vksecurity", {"monitor", "--settle", "2.5"}, 0, "", "it is not running"},
        {"vksecurity", {"monitor", "--watch", watched}, 0, "", "it is not running"},
        // The service's own reason, not a time-out; in the foreground it refuses at once.
        {"vksecurity", {"monitor", "--start"}, 2, "no signatures loaded", ""},
        {"vksecurity", {"monitor"}, 2, "no signatures loaded from " + dir / "data", ""},
    };
    // `db` on a data folder it cannot list (a file where the folder should be; root reads
    // any folder).
    dir.write("data", "not a folder");
    auto db = run("vksecurity", {"db"});
    EXPECT_EQ(db.exitCode, 2);
    EXPECT_THAT(db.err, HasSubstr("cannot read the signature database folder"));
    ::unlink((dir / "data").c_str());
    for (const Case& c : cases) {
        auto r = run(c.program, c.args);
        std::string line = c.program + " " + nlohmann::json(c.args).dump();
        EXPECT_EQ(r.exitCode, c.exitCode) << line << "\n" << r.err << r.out;
        EXPECT_THAT(r.err, HasSubstr(c.inErr)) << line << "\n" << r.err;
        EXPECT_THAT(r.out, HasSubstr(c.inOut)) << line << "\n" << r.out;
        EXPECT_THAT(r.out, Not(HasSubstr("/apps/"))) << "a build path in " << line;
    }
    // The settings were stored, owner-only, beside the defaults file; nothing was started.
    auto status = run("vksecurity", {"--json", "monitor", "--status"});
    EXPECT_EQ(status.exitCode, 3) << status.err;
    EXPECT_EQ(nlohmann::json::parse(status.out)["addedFolders"], nlohmann::json({watched}));
    EXPECT_EQ(modeOf(dir / "config/monitor.plist"), 0600u);
}

TEST_F(VkCliConventionsTest, XdgFoldersAreUsedOnlyWhenAbsolute) {
    auto r = run("vksecurity", {"--json", "paths"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    auto paths = nlohmann::json::parse(r.out);
    std::string socket = paths["monitorSocket"];
    EXPECT_EQ(socket.rfind(dir / "run/vksecurity/monitor-", 0), 0u) << socket;
    EXPECT_EQ(modeOf(dir / "run/vksecurity"), 0700u);
    EXPECT_EQ(paths["monitorSettings"], dir / "config/monitor.plist");

    // Without VK_DEFAULTS_FILE the settings follow the XDG rules: a relative value counts as
    // unset.
    auto pathsWith = [&](const std::string& config, const std::string& runtime) {
        auto answer = run(
            "vksecurity", {"--json", "paths"},
            {{"VK_DEFAULTS_FILE", ""}, {"XDG_CONFIG_HOME", config}, {"XDG_RUNTIME_DIR", runtime}});
        EXPECT_EQ(answer.exitCode, 0) << answer.err;
        return nlohmann::json::parse(answer.out);
    };
    auto unset = pathsWith("", "");
    auto relative = pathsWith("relative/config", "relative/run");
    EXPECT_EQ(relative["defaultsFile"], unset["defaultsFile"]);
    EXPECT_EQ(relative["monitorSettings"], unset["monitorSettings"]);
    EXPECT_EQ(relative["monitorSocket"], dir / "data/monitor.sock");
    EXPECT_EQ(pathsWith(dir / "xdg", "")["monitorSettings"], dir / "xdg/Velkora/monitor.plist");

    // A fresh account has no data home yet: the first scan makes it, owner-only, and installs
    // the packaged signatures instead of stopping with none.
    std::string fresh = dir / "fresh/share";
    auto first = run("vksecurity", {"scan", dir.mkdir("inbox")},
                     {{"VK_DATA_DIR", ""}, {"XDG_DATA_HOME", fresh}, {"VK_RESOURCE_DIR", ""}});
    EXPECT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(modeOf(fresh), 0700u);
    EXPECT_EQ(modeOf(dir / "fresh"), 0700u);
    EXPECT_TRUE(VkFile::existsNoFollow(fresh + "/Velkora/VkTrojanDB.sql"));
}

}  // namespace
