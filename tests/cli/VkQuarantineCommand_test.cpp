// End-to-end tests of `vksecurity quarantine`: the built program works on a quarantine
// that the store filled in a temporary data folder.

#include <cstdlib>
#include <filesystem>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fakes/VkRunProgram.h"
#include "fakes/VkTempDir.h"
#include "platform/VkContext.h"
#include "platform/VkFileUtil.h"
#include "remediation/VkQuarantineFileManager.h"
#include "support/VkStringExtern.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

struct CliRun {
    int code = -1;
    std::string out;
    std::string err;
};

class VkQuarantineCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx = VkContext::forTesting(dir.path());
        VkFile::createDirectory(ctx->dataFolder, true);
    }

    CliRun vksecurity(const std::vector<std::string>& args) {
        std::vector<std::string> all = {"--data-dir", ctx->dataFolder};
        all.insert(all.end(), args.begin(), args.end());
        VkProgramOutput r = vkRunProgram(std::string(VK_BINARY_DIR) + "/apps/vksecurity/vksecurity",
                                         all, {{"VK_DEFAULTS_FILE", ctx->defaultsFile}});
        return CliRun{r.exitCode, r.out, r.err};
    }

    // Quarantines a new file through the store, as a scan's clean step does.
    std::string quarantine(const std::string& relative, const std::string& bytes,
                           const char* trojanName) {
        std::string path = dir.write("root/" + relative, bytes);
        VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
        auto item = std::make_shared<VkQuarantineFileItem>();
        item->setOriginalPath(path);
        item->setFileSize(bytes.size());
        if (trojanName)
            item->setTrojanName(std::string(trojanName));
        EXPECT_TRUE(store.addItem(item));
        return path;
    }

    nlohmann::json listJson() {
        CliRun run = vksecurity({"quarantine", "list", "--json"});
        EXPECT_EQ(run.code, 0) << run.err;
        return nlohmann::json::parse(run.out);
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx;
};

TEST_F(VkQuarantineCommandTest, ListShowsNumberedFilesAndRestoreBringsOneBackByteForByte) {
    std::string bytes = "MZ\x00\x01payload\xff\xfe"s;
    bytes += std::string(3000, '\x7f');
    std::string first = quarantine("home/Downloads/Installer.pkg", bytes, "OSX/Fake.A");
    std::string second = quarantine("home/Library/agent", "agent bytes", nullptr);
    ASSERT_FALSE(fs::exists(first));

    CliRun text = vksecurity({"quarantine", "list"});
    ASSERT_EQ(text.code, 0) << text.err;
    EXPECT_NE(
        text.out.find("1  " + first + "  " + stringFromFileSize(bytes.size()) + "  OSX/Fake.A"),
        std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("2  " + second), std::string::npos) << text.out;

    nlohmann::json list = listJson();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]["number"], 1);
    EXPECT_EQ(list[0]["originalPath"], first);
    EXPECT_EQ(list[0]["fileSize"], bytes.size());
    EXPECT_EQ(list[0]["trojanName"], "OSX/Fake.A");
    EXPECT_EQ(list[1]["trojanName"], "");

    CliRun restore = vksecurity({"quarantine", "restore", "1"});
    ASSERT_EQ(restore.code, 0) << restore.err;
    ASSERT_TRUE(fs::exists(first));
    EXPECT_EQ(*VkFile::readAll(first), bytes);

    list = listJson();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["originalPath"], second);
}

TEST_F(VkQuarantineCommandTest, BadNumbersAreErrorsAndChangeNothing) {
    std::string first = quarantine("home/a.bin", "a", "OSX/A");
    quarantine("home/b.bin", "b", "OSX/B");
    for (const auto& bad :
         {std::string("3"), std::string("0"), std::string("x1"), std::string("1.5")}) {
        CliRun run = vksecurity({"quarantine", "restore", "1", bad});
        EXPECT_EQ(run.code, 2) << bad;
        EXPECT_NE(run.err.find("vksecurity: "), std::string::npos) << bad;
        EXPECT_FALSE(fs::exists(first)) << "a bad number anywhere means nothing is done";
    }
    CliRun none = vksecurity({"quarantine", "delete"});
    EXPECT_EQ(none.code, 2);
    EXPECT_EQ(listJson().size(), 2u);
}

TEST_F(VkQuarantineCommandTest, DeleteRemovesFilesForGoodAndRestoreReportsAnOccupiedPlace) {
    std::string first = quarantine("home/a.bin", "a", "OSX/A");
    std::string second = quarantine("home/b.bin", "b", "OSX/B");
    nlohmann::json list = listJson();
    std::string firstQuarantined = list[0]["filePath"];

    CliRun del = vksecurity({"quarantine", "delete", "1", "1"});
    ASSERT_EQ(del.code, 0) << del.err;
    EXPECT_FALSE(fs::exists(firstQuarantined));
    EXPECT_FALSE(fs::exists(first));

    // Something new lies where the file came from: the restore fails and says why.
    dir.write("root/home/b.bin", "new");
    CliRun restore = vksecurity({"--json", "quarantine", "restore", "1"});
    EXPECT_EQ(restore.code, 2);
    nlohmann::json answers = nlohmann::json::parse(restore.out);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0]["ok"], false);
    EXPECT_NE(answers[0]["error"].get<std::string>().find("already exists"), std::string::npos);
    EXPECT_EQ(*VkFile::readAll(second), "new");
    ASSERT_EQ(listJson().size(), 1u) << "a failed restore keeps the record";
}

}  // namespace
