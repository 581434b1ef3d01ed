#include "database/VkUpdatePublisher.h"

#include <cstdio>

#include <gtest/gtest.h>

#include "database/VkAddTorjanItems.h"
#include "database/VkManifestCipher.h"
#include "database/VkSqliteManager.h"
#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHashValue.h"
#include "support/VkSignature.h"

namespace {

class VkUpdatePublisherTest : public ::testing::Test {
  protected:
    std::string makeDb(const std::string& relative, const std::optional<std::string>& name,
                       const std::string& version) {
        std::string path = dir / relative;
        VkFile::createDirectory(VkFile::deletingLastPathComponent(path), true);
        VkSqliteManager store(std::make_shared<VkContext>());
        store.openDataBase(path);
        if (name) {
            EXPECT_TRUE(store.addDataBaseInfo(std::make_shared<VkDataBaseInfo>(*name, version)));
        }
        store.closeDataBase();
        return path;
    }
    std::string folder() { return dir / "out/velkora_soft_upgrade_files/trojanupdate"; }

    VkTempDir dir;
};

TEST_F(VkUpdatePublisherTest, WritesDatabasesAndAnEncipheredManifestWithDigests) {
    std::string a = makeDb("src/A.sql", "Alpha", "1.10");
    std::string b = makeDb("src/B.sql", "Beta", "2");
    auto keys = VkSignature::generateKeyPair();
    ASSERT_TRUE(keys.ok());
    VkUpdatePublisher::Options options;
    options.date = VkDate{1700000000};
    options.serial = 41;
    options.privateKeyPem = keys->privatePem;
    auto published = VkUpdatePublisher::publish(dir / "out", {a, b}, options);
    ASSERT_TRUE(published.ok()) << published.error();
    EXPECT_EQ(published->signer, *VkSignature::fingerprint(keys->publicPem));

    std::string body = *VkFile::readAll(folder() + "/version.xml");
    auto plain = VkManifestCipher::decrypt({body.begin(), body.end()});
    ASSERT_TRUE(plain);
    auto manifest = VkAddTorjanItems::arrayWithContentsOfData(*plain);
    ASSERT_TRUE(manifest);
    // The serial, one entry per database served beside it with its digest, then the date.
    auto entry = [&](const std::string& name, const std::string& version, const std::string& db) {
        std::string file = VkFile::lastPathComponent(db), bytes = *VkFile::readAll(db);
        EXPECT_EQ(*VkFile::readAll(folder() + "/" + file), bytes);
        return VkPlist::dictionary(
            {{"name", name},
             {"version", version},
             {"webpath", file},
             {"sha256", *VkHashValue::hashWithData(bytes.data(), bytes.size(), 2)},
             {"size", VkPlist::integer(static_cast<int64_t>(bytes.size()))}});
    };
    EXPECT_EQ(VkPlist(*manifest), VkPlist::array({VkPlist::integer(41), entry("Alpha", "1.10", a),
                                                  entry("Beta", "2", b), VkDate{1700000000}}));
    // The next publish must not go back: clients refuse an older serial.
    EXPECT_FALSE(VkUpdatePublisher::publish(dir / "out", {a}, options).ok());
    options.serial = 0;
    auto next = VkUpdatePublisher::publish(dir / "out", {a}, options);
    ASSERT_TRUE(next.ok()) << next.error();
    EXPECT_GT(next->serial, 41);
}

TEST_F(VkUpdatePublisherTest, RefusesWhatClientsCouldNotUseAndWritesNothing) {
    std::string a = makeDb("src/A.sql", "Alpha", "1.0");
    std::string sameName = makeDb("other/A2.sql", "Alpha", "2.0");
    std::string sameFile = makeDb("other/A.sql", "Gamma", "1.0");
    std::string undescribed = makeDb("src/U.sql", std::nullopt, "");
    // A real database under a name that clients would never install.
    std::string wrongName = dir / "src/W.db";
    ASSERT_EQ(std::rename(makeDb("src/W.sql", "W", "1.0").c_str(), wrongName.c_str()), 0);
    std::vector<std::vector<std::string>> refused = {
        {}, {a, sameName}, {a, sameFile}, {undescribed}, {wrongName}, {dir / "none.sql"}};
    for (const auto& databases : refused) {
        auto published = VkUpdatePublisher::publish(dir / "out", databases, {});
        EXPECT_FALSE(published.ok() || published.error().empty())
            << (databases.empty() ? "(none)" : databases.back());
        EXPECT_FALSE(VkFile::exists(dir / "out"));
    }
}

}  // namespace
