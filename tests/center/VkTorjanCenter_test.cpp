#include "center/VkTorjanCenter.h"

#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "center/VkServices.h"
#include "engine/VkTorjanResultItems.h"
#include "engine/VkTorjanScan.h"
#include "fakes/VkQuietPacing.h"
#include "fakes/VkRecordingCoreFunction.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestSignatures.h"
#include "platform/VkFileUtil.h"
#include "remediation/VkQuarantineFileManager.h"
#include "support/VkCrypt.h"

namespace {

namespace fs = std::filesystem;

const char kSample[] = "center-synthetic-sample-bytes";

class VkTorjanCenterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx = VkContext::forTesting(dir.path());
        ctx->pacing = std::make_shared<VkQuietPacing>();
        auto core = std::make_shared<VkRecordingCoreFunction>(ctx->systemRoot, ctx->dataFolder);
        core->performMoves(true);
        ctx->coreFunction = core;
        VkFile::createDirectory(ctx->dataFolder, true);
        vkWriteSignatureDatabase(ctx->dataPath("test.sql"), "test", "1.0",
                                 {{"Test.Center", kSample, {}}});
        center = std::make_unique<VkTorjanCenter>(ctx, VkServices::makeAntiTrojan(*ctx),
                                                  VkServices::makeQuarantine(*ctx));
        center->trjanScan().setPaceScans(false);
    }
    std::vector<std::shared_ptr<VkTorjanResultItems>> scan(const std::string& path) {
        auto d = std::make_shared<VkRecordingScanDelegate>();
        center->startScan(std::vector<std::string>{path}, d);
        EXPECT_TRUE(d->waitForEnd());
        return d->results();
    }
    // A finding as the trust list takes it.
    static std::shared_ptr<VkTorjanResultItems> finding(const std::string& path,
                                                        const std::string& name,
                                                        const std::string& hash) {
        auto item = std::make_shared<VkTorjanResultItems>();
        item->setPath(path);
        item->setTorjanName(name);
        item->setHashCode(hash);
        return item;
    }
    size_t trustCount() {
        return ctx->userDefaults->arrayForKey("TrustFileKey").value_or(VkPlist::Array{}).size();
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx;
    std::unique_ptr<VkTorjanCenter> center;
};

// A trusted file is skipped until its trust is removed (that trust binds the contents too is
// the scanner's: VkTorjanScanTest.TrustOfPathAndContentsTogetherStopsTheSearch); a removal
// takes the first entry of the path and its duplicates only.
TEST_F(VkTorjanCenterTest, TrustedFileIsSkippedUntilItsTrustIsRemoved) {
    std::string file = dir.write("root/home/sample.bin", kSample);
    auto found = scan(file);
    ASSERT_EQ(found.size(), 1u);
    center->addTrustFile(found[0]);
    EXPECT_TRUE(scan(file).empty());

    auto listed = center->ecryptTrustFileArray();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(*listed[0].getString("TrustFilePath"), file);
    EXPECT_EQ(*listed[0].getString("TrustTrojanName"), "Test.Center");
    EXPECT_NE(*listed[0].getString("TrustFileHash"), *found[0]->hashCode())
        << "hash stays enciphered";
    EXPECT_EQ(*listed[0].get("TrustFileSize")->asUInt64(), sizeof kSample - 1);

    center->addTrustFile(found[0]);
    center->addTrustFile(finding(file, "OSX/Other", "0123456789abcdef"));
    // An entry stops at its first missing value: the empty name enciphers to nothing.
    center->addTrustFile(finding(dir.write("root/home/x.bin", "x"), "", "abc"));
    auto stored = ctx->userDefaults->arrayForKey("TrustFileKey");
    ASSERT_TRUE(stored && stored->size() == 4);
    EXPECT_NE(stored->at(3).get("TrustFilePath"), nullptr);
    EXPECT_EQ(stored->at(3).asDictionary()->size(), 1u);

    center->removeTrustFile(dir / "not/listed");
    EXPECT_EQ(trustCount(), 4u);
    center->removeTrustFile(file);
    ASSERT_EQ(trustCount(), 2u) << "both equal entries gone, the other hash stays";
    EXPECT_EQ(*center->ecryptTrustFileArray()[0].getString("TrustTrojanName"), "OSX/Other");
    EXPECT_EQ(scan(file).size(), 1u);

    // By its place in the list, that entry goes, not the first of its path.
    center->addTrustFile(found[0]);
    EXPECT_EQ(center->removeTrustEntry(3), 0u);
    EXPECT_EQ(center->removeTrustEntry(2), 1u);
    EXPECT_EQ(*center->ecryptTrustFileArray()[0].getString("TrustTrojanName"), "OSX/Other");
    EXPECT_EQ(scan(file).size(), 1u);

    // A planted path with more behind a zero byte trusts nothing, is listed as stored, and
    // goes by what the list shows.
    center->addTrustFile(found[0]);
    VkPlist::Array list = *ctx->userDefaults->arrayForKey("TrustFileKey");
    std::string planted = file + std::string("\0x", 2);
    std::string cipher =
        VkEncodeBase64(*VkCryptInter(std::vector<uint8_t>(planted.begin(), planted.end()), true));
    list.back().set("TrustFilePath", cipher);
    ctx->userDefaults->setObject("TrustFileKey", VkPlist(list));
    EXPECT_EQ(scan(file).size(), 1u);
    EXPECT_EQ(*center->ecryptTrustFileArray().back().getString("TrustFilePath"), cipher);
    center->removeTrustFile(cipher);
    EXPECT_EQ(trustCount(), 2u);
}

TEST_F(VkTorjanCenterTest, QuarantineTakesTheRecordsNameButNotASpecialFamily) {
    std::string file = dir.write("root/home/q.bin", kSample);
    auto r = scan(file)[0];
    EXPECT_TRUE(center->addQuarantineItem(r));
    EXPECT_FALSE(fs::exists(file));
    auto special = std::make_shared<VkTorjanResultItems>();
    special->setSpec(true);
    special->setTorjanName(std::string("OSX/Flashback"));
    special->setPath(dir.write("root/home/agent.plist", "<plist/>"));
    EXPECT_TRUE(center->addQuarantineItem(special));
    std::vector<std::string> kept;
    for (const auto& item : center->quarantine().allQuarantineItems())
        kept.push_back(*item->originalPath() + "|" + item->trojanName().value_or("-"));
    EXPECT_EQ(kept, (std::vector<std::string>{file + "|Test.Center", *special->path() + "|-"}));
}

TEST_F(VkTorjanCenterTest, FullAndCustomScansApplyStagedDatabasesFirst) {
    std::string fresh = "staged-signature-sample";
    // Staged by hand, without the signed manifest that an update keeps beside its files.
    ctx->userDefaults->setBool("AllowUnsignedUpdates", true);
    VkFile::createDirectory(ctx->dataPath("temp"), true);
    vkWriteSignatureDatabase(ctx->dataPath("temp/staged.sql"), "staged", "2.0",
                             {{"Test.Staged", fresh, {}}});
    std::string file = dir.write("root/home/new.bin", fresh);
    auto found = scan(file);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]->torjanItem()->name(), "Test.Staged");
    EXPECT_TRUE(fs::exists(ctx->dataPath("staged.sql")));
    EXPECT_FALSE(fs::exists(ctx->dataPath("temp/staged.sql")));
}

// Two processes trusting files at once (the panel and the command line): none is lost.
TEST_F(VkTorjanCenterTest, TwoProcessesTrustingAtOnceLoseNoEntry) {
    auto trustMany = [&](const std::string& prefix) {
        for (int i = 0; i < 30; ++i)
            center->addTrustFile(finding(dir / (prefix + std::to_string(i)), "OSX/Race",
                                         "0123456789abcdef0123456789abcdef"));
    };
    pid_t child = ::fork();
    if (child == 0) {
        trustMany("child-");
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    trustMany("parent-");
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    VkUserDefaults fresh(ctx->defaultsFile);
    EXPECT_EQ(fresh.arrayForKey("TrustFileKey").value_or(VkPlist::Array{}).size(), 60u);
}

}  // namespace
