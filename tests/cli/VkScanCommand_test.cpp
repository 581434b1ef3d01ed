#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fakes/VkRunProgram.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestSignatures.h"
#include "platform/VkFileUtil.h"

namespace {

const std::string kProgram = std::string(VK_BINARY_DIR) + "/apps/vksecurity/vksecurity";

class VkScanCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        VkFile::createDirectory(dir / "data", true);
        vkWriteSignatureDatabase(dir / "data/test.sql", "test", "1.0",
                                 {{"Test.Alpha", "alpha-synthetic-sample", {}},
                                  {"Test.Beta", std::string(2 * 1024 * 1024, 'b'), {}}});
        tree = dir.mkdir("tree");
        alpha = dir.write("tree/docs/alpha.bin", "alpha-synthetic-sample");
        beta = dir.write("tree/deep/er/beta.img", std::string(2 * 1024 * 1024, 'b'));
        dir.write("tree/docs/clean.txt", "alpha-synthetic-sampl3");
        dir.write("tree/empty", "");
    }
    VkProgramOutput run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--data-dir", dir / "data"});
        return vkRunProgram(
            kProgram, args,
            {{"VK_DEFAULTS_FILE", dir / "defaults.plist"}, {"VK_SYSTEM_ROOT", dir / "root"}});
    }

    VkTempDir dir;
    std::string tree, alpha, beta;
};

TEST_F(VkScanCommandTest, ReportsExactlyThePlantedFilesAndExitsOne) {
    auto r = run({"scan", tree});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_NE(r.out.find(alpha + ": Test.Alpha FOUND\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(beta + ": Test.Beta FOUND\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("clean.txt"), std::string::npos);
    EXPECT_NE(r.out.find("Findings:      2"), std::string::npos);
    EXPECT_NE(r.out.find("Files judged:  4"), std::string::npos);
    EXPECT_TRUE(r.err.empty()) << "no progress line when not on a terminal: " << r.err;
}

TEST_F(VkScanCommandTest, CleanFolderExitsZeroAndErrorsExitTwo) {
    auto clean = run({"scan", dir / "tree/docs/clean.txt"});
    EXPECT_EQ(clean.exitCode, 0) << clean.out << clean.err;
    EXPECT_NE(clean.out.find("Findings:      0"), std::string::npos);

    auto missing = run({"scan", dir / "nope"});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_NE(missing.err.find("no such file or folder"), std::string::npos);
    EXPECT_EQ(run({"scan"}).exitCode, 2);
    EXPECT_EQ(run({"scan", "--full", "--quick"}).exitCode, 2);
    EXPECT_EQ(run({"scan", "--bogus"}).exitCode, 2);
}

TEST_F(VkScanCommandTest, JsonGivesOneObjectPerFindingAndASummary) {
    auto r = run({"--json", "scan", tree});
    EXPECT_EQ(r.exitCode, 1);
    std::istringstream lines(r.out);
    std::string line;
    std::vector<nlohmann::json> objects;
    while (std::getline(lines, line))
        objects.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(objects.size(), 3u) << r.out;
    std::set<std::string> names;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(objects[i]["type"], "finding");
        names.insert(objects[i]["name"].get<std::string>());
    }
    EXPECT_EQ(names, (std::set<std::string>{"Test.Alpha", "Test.Beta"}));
    EXPECT_EQ(objects[2]["type"], "summary");
    EXPECT_EQ(objects[2]["findings"], 2);
    EXPECT_EQ(objects[2]["filesJudged"], 4);
    EXPECT_EQ(objects[2]["interrupted"], false);
}

TEST_F(VkScanCommandTest, FullScanWalksTheSystemRoot) {
    std::string hit = dir.write("root/Applications/x/alpha.bin", "alpha-synthetic-sample");
    dir.write("root/Volumes/Other/alpha.bin", "alpha-synthetic-sample");
    auto r = run({"scan", "--full"});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_NE(r.out.find(hit + ": Test.Alpha FOUND"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Volumes"), std::string::npos) << r.out;
}

}  // namespace
