#include "database/VkAddTorjanItems.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <limits>
#include <sys/stat.h>
#include <thread>

#include <gtest/gtest.h>

#include "database/VkSqliteManager.h"
#include "database/VkUpdatePublisher.h"
#include "fakes/VkFolderServer.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestSignatures.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHashValue.h"
#include "support/VkSignature.h"

namespace {

using namespace std::chrono_literals;
using Action = VkUpdateReport::Action;
using Actions = std::vector<Action>;

// What the check did with each manifest entry, in order.
Actions actionsOf(const VkUpdateReport& report) {
    Actions out;
    for (const auto& entry : report.entries)
        out.push_back(entry.action);
    return out;
}

constexpr const char* kFolder = "/velkora_soft_upgrade_files/trojanupdate/";
constexpr const char* kManifestPath = "/velkora_soft_upgrade_files/trojanupdate/version.xml";

// The update loop's tick sleep, under the test's control: the loop takes only as many ticks
// as the test allows and nothing really sleeps. A tick that is never allowed gives up after
// a long failsafe (and says so), so a wrong loop fails instead of hanging.
class TickGate : public VkPacing {
  public:
    void sleepMicroseconds(long long microseconds) override {
        std::unique_lock lock(mutex_);
        lastRequest = microseconds;
        ++blocked_;
        changed_.notify_all();
        if (!changed_.wait_for(lock, 30s, [&] { return taken < allowed_; }))
            overrun = true;
        ++taken;
        --blocked_;
        changed_.notify_all();
    }
    void allow(uint64_t ticks) {
        std::lock_guard lock(mutex_);
        allowed_ += ticks;
        changed_.notify_all();
    }
    // Waits until the loop has taken `ticks` ticks and sits in the next one.
    bool waitBlockedAfter(uint64_t ticks) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 30s, [&] { return taken == ticks && blocked_ == 1; });
    }
    std::atomic<uint64_t> taken{0};
    std::atomic<long long> lastRequest{0};  // the last sleep asked for, in microseconds
    std::atomic<bool> overrun{false};

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    uint64_t allowed_ = 0;
    int blocked_ = 0;
};

// The real client, with a call made before each database download starts.
class HookedHttp : public VkCurlHttpClient {
  public:
    std::function<void(const std::string& url)> beforeDownload;
    VkResult<uint64_t> download(const std::string& url, const std::string& path, uint64_t maxBytes,
                                const std::atomic<bool>* cancel) override {
        if (beforeDownload)
            beforeDownload(url);
        return VkCurlHttpClient::download(url, path, maxBytes, cancel);
    }
};

// A pause that tells the test it was taken, then lets a real millisecond pass.
class SignallingPacing : public VkPacing {
  public:
    explicit SignallingPacing(std::function<void()> paused) : paused_(std::move(paused)) {}
    void sleepMicroseconds(long long) override {
        paused_();
        std::this_thread::sleep_for(1ms);
    }

  private:
    std::function<void()> paused_;
};

// Records each answer as "yes|no <date or -> caller|loop": the thread is the one that made
// the delegate (the test's) or another (the loop's).
class RecordingDelegate : public VkAddTorjanDelegate {
  public:
    void updateTrojanData(bool success, std::optional<VkDate> date) override {
        std::lock_guard lock(mutex_);
        calls_.push_back(
            std::string(success ? "yes " : "no ") +
            (date ? std::to_string(static_cast<long long>(date->secondsSince1970)) : "-") +
            (std::this_thread::get_id() == owner_ ? " caller" : " loop"));
        changed_.notify_all();
    }
    // The calls so far, after waiting (with a failsafe) for at least `count` of them.
    std::vector<std::string> calls(size_t count = 0) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 30s, [&] { return calls_.size() >= count; });
        return calls_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> calls_;
    const std::thread::id owner_ = std::this_thread::get_id();
};

class VkAddTorjanItemsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx->pacing = gate;
        ctx->updateServer = server.url();
        VkFile::createDirectory(ctx->dataFolder, true);
    }
    void TearDown() override {
        gate->allow(std::numeric_limits<uint64_t>::max() / 2);
        items.reset();
        EXPECT_FALSE(gate->overrun) << "the loop waited for a tick the test never allowed";
    }

    // A signature database with its name and version, and one record so that files differ.
    std::string makeDb(const std::string& path, const std::string& name,
                       const std::string& version) {
        VkFile::createDirectory(VkFile::deletingLastPathComponent(path), true);
        vkWriteSignatureDatabase(path, name, version, {{name, name + " " + version, {}}});
        return path;
    }
    std::string installed(const std::string& file, const std::string& name,
                          const std::string& version) {
        return makeDb(ctx->dataPath(file), name, version);
    }
    std::string staged(const std::string& file) { return ctx->dataPath("temp/" + file); }
    std::string source(const std::string& file, const std::string& name,
                       const std::string& version) {
        return makeDb(dir / ("sources/" + file), name, version);
    }
    // What `vksig publish` writes into `www` (served by the loopback server); with a serial,
    // signed as `--key` signs, by a key the client trusts.
    void publish(const std::vector<std::string>& databases, std::optional<VkDate> date,
                 int64_t serial = 0, const std::string& www = "www") {
        VkUpdatePublisher::Options options;
        options.date = date;
        options.serial = serial;
        if (serial != 0) {
            if (!key) {
                key = *VkSignature::generateKeyPair();
                dir.write("update-keys/test.pub", key->publicPem);
            }
            options.privateKeyPem = key->privatePem;
        }
        auto published = VkUpdatePublisher::publish(dir / www, databases, options);
        ASSERT_TRUE(published.ok()) << published.error();
    }
    // A hand-made manifest, enciphered as the server's are.
    void serveManifest(const VkPlist& manifest) {
        std::vector<uint8_t> body = VkUpdatePublisher::manifestBody(manifest);
        ASSERT_FALSE(body.empty());
        serveRaw(kManifestPath, std::string(body.begin(), body.end()));
    }
    void serveRaw(const std::string& urlPath, const std::string& bytes) {
        dir.write("www" + urlPath, bytes);
    }
    // A database made here and served under the update folder; answers its bytes.
    std::string serveDb(const std::string& file, const std::string& name,
                        const std::string& version) {
        std::string bytes = contents(source(file, name, version));
        serveRaw(std::string(kFolder) + file, bytes);
        return bytes;
    }
    static VkPlist entry(const std::string& name, const std::string& version,
                         const std::string& webpath, std::optional<VkPlist> sha256 = {}) {
        VkPlist e =
            VkPlist::dictionary({{"name", name}, {"version", version}, {"webpath", webpath}});
        if (sha256)
            e.set("sha256", *sha256);
        return e;
    }
    std::string contents(const std::string& path) {
        auto read = VkFile::readAll(path);
        return read.ok() ? *read : std::string("(missing)");
    }
    std::optional<std::string> versionOf(const std::string& path) {
        VkSqliteManager store(ctx);
        auto info = VkFile::exists(path) ? store.dataBaseForPath(path) : nullptr;
        return info ? info->version() : std::nullopt;
    }
    // The loop's rules are checked on unsigned manifests (the update signature has tests of
    // its own), so these tests allow them.
    VkAddTorjanItems& make(std::shared_ptr<VkHttpClient> http = nullptr) {
        items = std::make_unique<VkAddTorjanItems>(ctx, std::move(http));
        items->setAllowUnsigned(true);
        return *items;
    }
    // Names in the staging folder, sorted; empty when there is none.
    std::vector<std::string> stagedNames() {
        auto names = VkFile::listDirectory(ctx->dataPath("temp"));
        std::vector<std::string> sorted = names.ok() ? *names : std::vector<std::string>{};
        std::sort(sorted.begin(), sorted.end());
        return sorted;
    }
    // Starts the loop through startUpdate and returns the answer of its first check.
    std::string firstAnswer() {
        auto delegate = std::make_shared<RecordingDelegate>();
        if (!items)
            make();
        items->startUpdate(delegate);
        auto calls = delegate->calls(1);
        EXPECT_EQ(calls.size(), 1u);
        EXPECT_TRUE(gate->waitBlockedAfter(0)) << "the loop should wait after its check";
        return calls.empty() ? std::string("(none)") : calls[0];
    }
    // The date the loop holds, 0 for none.
    long long date() { return items->updateDate() ? items->updateDate()->secondsSince1970 : 0; }
    size_t manifestRequests() { return server.count(kManifestPath); }
    size_t fileRequests(const std::string& webpath) {
        return server.count(std::string(kFolder) + webpath);
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    std::shared_ptr<TickGate> gate = std::make_shared<TickGate>();
    VkFolderServer server{dir / "www"};
    std::unique_ptr<VkAddTorjanItems> items;
    std::optional<VkSignature::KeyPair> key;
};

// ---- What the manifest makes the loop download ----

TEST_F(VkAddTorjanItemsTest, OnlyNewerVersionsAreDownloadedComparedNumerically) {
    installed("A.sql", "Alpha", "2.9");
    installed("B.sql", "Beta", "1.0");
    publish({source("A.sql", "Alpha", "2.10"), source("B.sql", "Beta", "1.0")}, std::nullopt);
    VkUpdateReport report = make().checkUpdateOnce();
    ASSERT_TRUE(report.success);
    ASSERT_EQ(actionsOf(report), (Actions{Action::Downloaded, Action::NotNewer}));
    EXPECT_EQ(report.entries[0].localVersion, "2.9");
    EXPECT_EQ(versionOf(staged("A.sql")), "2.10");
    EXPECT_EQ(fileRequests("B.sql"), 0u) << "an equal version is not even fetched";
}

TEST_F(VkAddTorjanItemsTest, FoundAndNewerCarryOverToEntriesWithoutLocalNamesake) {
    installed("A.sql", "Alpha", "1.0");
    serveDb("A.sql", "Alpha", "1.0");
    std::string b = serveDb("B.sql", "Beta", "1.0");
    make();

    // [A current, B absent]: found stays set from A and newer stays unset, so B is left alone.
    serveManifest(VkPlist::array({entry("Alpha", "1.0", "A.sql"), entry("Beta", "1.0", "B.sql")}));
    items->checkUpdateOnce();
    EXPECT_EQ(fileRequests("B.sql"), 0u);

    // The same entries the other way round: nothing is found before B, so B comes.
    serveManifest(VkPlist::array({entry("Beta", "1.0", "B.sql"), entry("Alpha", "1.0", "A.sql")}));
    items->checkUpdateOnce();
    EXPECT_EQ(contents(staged("B.sql")), b);
    EXPECT_FALSE(VkFile::exists(staged("A.sql")));
    ASSERT_TRUE(VkFile::removeTree(staged("B.sql")).ok());

    // A newer A leaves newer set, and B after it is fetched with it.
    serveManifest(VkPlist::array({entry("Alpha", "1.1", "A.sql"), entry("Beta", "1.0", "B.sql")}));
    items->checkUpdateOnce();
    EXPECT_TRUE(VkFile::exists(staged("A.sql")));
    EXPECT_TRUE(VkFile::exists(staged("B.sql")));
}

TEST_F(VkAddTorjanItemsTest, StagedFilesAreKnownAndTheLastNamesakeDecides) {
    publish({source("A.sql", "Alpha", "2.0")}, std::nullopt);
    make();
    // Staged 2.0 and nothing installed: the staged file counts, nothing is fetched.
    makeDb(staged("A.sql"), "Alpha", "2.0");
    items->checkUpdateOnce();
    EXPECT_EQ(fileRequests("A.sql"), 0u);

    // An older installed copy is listed after the staged one and so decides: fetched again.
    installed("A.sql", "Alpha", "1.0");
    VkUpdateReport report = items->checkUpdateOnce();
    ASSERT_EQ(actionsOf(report), Actions{Action::Downloaded});
    EXPECT_EQ(report.entries[0].localVersion, "1.0");
    EXPECT_EQ(fileRequests("A.sql"), 1u);
}

TEST_F(VkAddTorjanItemsTest, TrailingDateIsReportedAndAMissingOneKeepsThePrevious) {
    make();
    serveManifest(VkPlist::array({entry("Alpha", "1.0", "A.sql")}));
    EXPECT_FALSE(items->checkUpdateOnce().manifestDate);
    EXPECT_EQ(date(), 0) << "no date at first";

    serveManifest(VkPlist::array({entry("Alpha", "1.0", "A.sql"), VkPlist(VkDate{1600000000})}));
    items->checkUpdateOnce();
    EXPECT_EQ(date(), 1600000000);

    // A date that is not last does not count; the previous one stays.
    serveManifest(VkPlist::array({VkPlist(VkDate{1650000000}), entry("Alpha", "1.0", "A.sql"),
                                  VkPlist("not a dictionary")}));
    VkUpdateReport report = items->checkUpdateOnce();
    EXPECT_TRUE(report.success);
    EXPECT_EQ(report.entries.size(), 1u) << "elements that are not dictionaries are skipped";
    EXPECT_EQ(date(), 1600000000);

    // A failed check reports the previous date too.
    server.force(kManifestPath, 500);
    EXPECT_EQ(firstAnswer(), "no 1600000000 loop");
}

// ---- Update safety ----

TEST_F(VkAddTorjanItemsTest, OnlyPlainDatabaseFileNamesAreFetched) {
    std::string x = source("x.sql", "Evil", "9.0");
    // Files where an escaping path would lead, so that a request would have found something.
    serveRaw("/velkora_soft_upgrade_files/x.sql", contents(x));
    serveDb("good.sql", "Good", "1.0");
    serveDb("Vk-DB_2+b.sql", "B", "1.0");
    std::vector<std::string> bad = {"../x.sql",  "",           ".",        "..",        "sub/x.sql",
                                    "..\\x.sql", ".sql",       "?q=1.sql", "x.sql?q=1", "x.sql#top",
                                    "x#.sql",    "%2e%2e.sql", "x\n.sql",  "x\r.sql",   "x\x1b.sql",
                                    "x\x7f.sql", "x y.sql",    "x..sql",   ".x.sql",    "x.SQL",
                                    "x.sql.",    "x\xff.sql"};
    bad.push_back(std::string(252, 'a') + ".sql");
    VkPlist::Array manifest;
    for (const std::string& webpath : bad)
        manifest.push_back(entry("E", "1", webpath));
    manifest.push_back(VkPlist::dictionary({{"name", "E"}, {"version", "1"}}));
    manifest.push_back(entry("Good", "1.0", "good.sql"));
    manifest.push_back(entry("B", "1.0", "Vk-DB_2+b.sql"));
    serveManifest(VkPlist(manifest));

    VkUpdateReport report = make().checkUpdateOnce();
    // Every bad name (and the entry without one) is refused, and the walk goes on.
    Actions expected(bad.size() + 1, Action::BadWebPath);
    expected.insert(expected.end(), {Action::Downloaded, Action::Downloaded});
    EXPECT_EQ(actionsOf(report), expected);
    const std::string folder = kFolder;
    EXPECT_EQ(server.requests(),
              (std::vector<std::string>{kManifestPath, folder + "version.xml.sig",
                                        folder + "good.sql", folder + "Vk-DB_2+b.sql"}));
    EXPECT_FALSE(VkFile::existsNoFollow(ctx->dataPath("x.sql")));
    EXPECT_EQ(stagedNames(), (std::vector<std::string>{"Vk-DB_2+b.sql", "good.sql"}));
    // A NUL cannot travel through a property list; the rule refuses it all the same.
    EXPECT_FALSE(VkAddTorjanItems::isPlainWebPath(std::string("x\0.sql", 6)));
}

TEST_F(VkAddTorjanItemsTest, DownloadNotMatchingItsSha256IsDiscarded) {
    std::string bytesOfA = serveDb("A.sql", "Alpha", "1.0");
    serveDb("B.sql", "Beta", "1.0");
    VkPlist shaOfA(
        *VkHashValue::hashWithData(bytesOfA.data(), static_cast<uint32_t>(bytesOfA.size()), 2));
    // B's entry carries the digest of another file, C's one of the wrong type.
    serveManifest(VkPlist::array({entry("Alpha", "1.0", "A.sql", shaOfA),
                                  entry("Beta", "1.0", "B.sql", shaOfA),
                                  entry("Gamma", "1.0", "B.sql", VkPlist::integer(7))}));

    VkUpdateReport report = make().checkUpdateOnce();
    EXPECT_EQ(actionsOf(report),
              (Actions{Action::Downloaded, Action::ChecksumMismatch, Action::ChecksumMismatch}));
    EXPECT_EQ(contents(staged("A.sql")), bytesOfA);
    EXPECT_EQ(stagedNames(), std::vector<std::string>{"A.sql"}) << "nothing else is left";
    EXPECT_TRUE(report.success) << "a bad file does not make the manifest fail";
}

TEST_F(VkAddTorjanItemsTest, DatabasesStreamThroughAPartialFileAndFailuresLeaveNothing) {
    // Shared with the server's threads, which may outlive this body by a moment.
    auto a = std::make_shared<const std::string>(contents(source("A.sql", "Alpha", "1.0")));
    const size_t half = a->size() / 2;
    // The staging folder once half of A.sql was on disk.
    auto midway = std::make_shared<std::promise<std::vector<std::string>>>();
    auto seen = midway->get_future();
    // A.sql: half, then (once the partial file on disk holds it) the rest.
    server.handle(std::string(kFolder) + "A.sql", [this, a, half, midway](httplib::Response& res) {
        res.set_content_provider(
            a->size(), "application/octet-stream",
            [this, a, half, midway](size_t offset, size_t, httplib::DataSink& sink) {
                if (offset > 0)
                    return sink.write(a->data() + offset, a->size() - offset);
                if (!sink.write(a->data(), half))
                    return false;
                for (int i = 0; i < 500 && !server.stopping; ++i) {
                    std::vector<std::string> names = stagedNames();
                    for (const std::string& name : names) {
                        if (contents(ctx->dataPath("temp/" + name)).size() == half) {
                            midway->set_value(names);
                            return true;
                        }
                    }
                    std::this_thread::sleep_for(10ms);
                }
                return true;
            });
    });
    // B.sql: the connection drops halfway (a transfer cut for being slow fails in the HTTP
    // client the same way).
    server.handle(std::string(kFolder) + "B.sql", [a, half](httplib::Response& res) {
        res.set_content_provider(a->size(), "application/octet-stream",
                                 [a, half](size_t, size_t, httplib::DataSink& sink) {
                                     sink.write(a->data(), half);
                                     return false;
                                 });
    });
    serveManifest(VkPlist::array({entry("Alpha", "1.0", "A.sql"), entry("Beta", "1.0", "B.sql")}));
    // What a check killed mid-download leaves: removed by the next one.
    dir.write("data/temp/.A.sql.part.999999.0", "half of it");

    VkUpdateReport report = make().checkUpdateOnce();
    ASSERT_EQ(actionsOf(report), (Actions{Action::Downloaded, Action::DownloadFailed}));
    EXPECT_FALSE(report.entries[1].detail.empty()) << "the client's reason is passed on";
    ASSERT_EQ(seen.wait_for(0s), std::future_status::ready) << "half a database never on disk";
    std::vector<std::string> names = seen.get();
    ASSERT_EQ(names.size(), 1u);
    EXPECT_NE(VkFile::pathExtension(names[0]), "sql") << "half a database must never look like one";
    EXPECT_EQ(contents(staged("A.sql")), *a);
    EXPECT_EQ(stagedNames(), std::vector<std::string>{"A.sql"});
}

// Two processes updating one data folder (the panel's loop, the timer's run): the check with
// the older manifest, slower, must not write its serial and databases over the newer ones.
TEST_F(VkAddTorjanItemsTest, ChecksOfTwoUpdatersTakeTurnsAndTheSerialNeverGoesDown) {
    publish({source("B.sql", "Beta", "2.0")}, std::nullopt, 200);
    publish({makeDb(dir / "v3/B.sql", "Beta", "3.0")}, std::nullopt, 300, "www2");
    VkFolderServer newer{dir / "www2"};
    std::promise<void> goOn;
    std::once_flag once;
    auto release = [&] { std::call_once(once, [&] { goOn.set_value(); }); };
    auto other = std::make_shared<VkContext>(*ctx);
    other->updateServer = newer.url();
    other->pacing = std::make_shared<SignallingPacing>(release);  // waiting for its turn
    VkAddTorjanItems second(other);
    auto http = std::make_shared<HookedHttp>();
    VkAddTorjanItems first(ctx, http);
    // While the first downloads, the second checks and installs, or waits for its turn.
    std::thread secondRun;
    http->beforeDownload = [&](const std::string&) {
        secondRun = std::thread([&] {
            second.checkUpdateOnce();
            second.copyToLocalPath();
            release();
        });
        goOn.get_future().wait();
    };
    first.checkUpdateOnce();
    first.copyToLocalPath();
    secondRun.join();
    first.copyToLocalPath();
    EXPECT_EQ(contents(ctx->dataPath(VkAddTorjanItems::kSerialFileName)), "300");
    EXPECT_EQ(versionOf(ctx->dataPath("B.sql")), "3.0");
}

// A scan applies staged files while an update stages newer ones: it must not judge them by
// the manifest kept before, which does not list them.
TEST_F(VkAddTorjanItemsTest, AScanDuringAnUpdateLeavesTheStagingFolderAlone) {
    publish({source("A.sql", "Alpha", "1.0"), source("B.sql", "Beta", "1.0")}, std::nullopt, 100);
    auto http = std::make_shared<HookedHttp>();
    VkAddTorjanItems updater(ctx, http), scanner(ctx);
    updater.checkUpdateOnce();
    ASSERT_EQ(updater.copyToLocalPath().size(), 2u);
    publish({makeDb(dir / "v2/A.sql", "Alpha", "2.0"), makeDb(dir / "v2/B.sql", "Beta", "2.0")},
            std::nullopt, 200);
    std::vector<std::string> left;
    http->beforeDownload = [&](const std::string& url) {
        if (VkFile::lastPathComponent(url) == "B.sql")  // A.sql is staged by now
            scanner.copyToLocalPath(&left);
    };
    updater.checkUpdateOnce();
    EXPECT_EQ(left, std::vector<std::string>{ctx->dataPath("temp") +
                                             ": left as it is for now: an update is running"});
    EXPECT_EQ(updater.copyToLocalPath().size(), 2u);
    EXPECT_EQ(versionOf(ctx->dataPath("A.sql")), "2.0");
}

// Here a staging folder on another file system, from which a rename cannot move a file.
TEST_F(VkAddTorjanItemsTest, AStagedFileThatCannotBeMovedLeavesTheInstalledOne) {
    struct stat here {};
    struct stat shm {};
    if (::stat("/dev/shm", &shm) != 0 || ::stat(dir.path().c_str(), &here) != 0 ||
        shm.st_dev == here.st_dev)
        GTEST_SKIP() << "needs /dev/shm on another file system than " << dir.path();
    std::string elsewhere = "/dev/shm/vktest.XXXXXX";
    ASSERT_NE(::mkdtemp(elsewhere.data()), nullptr);
    struct Remove {
        std::string path;
        ~Remove() { std::filesystem::remove_all(path); }
    } removeAtEnd{elsewhere};
    std::string old = contents(installed("A.sql", "Alpha", "1.0"));
    std::filesystem::create_directory_symlink(elsewhere, ctx->dataPath("temp"));
    std::string update = contents(makeDb(elsewhere + "/A.sql", "Alpha", "2.0"));

    std::vector<std::string> refused;
    EXPECT_TRUE(make().copyToLocalPath(&refused).empty());
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_EQ(
        refused[0].rfind(staged("A.sql") + ": cannot be moved to " + ctx->dataPath("A.sql"), 0), 0u)
        << refused[0];
    EXPECT_EQ(contents(ctx->dataPath("A.sql")), old);
    EXPECT_EQ(contents(staged("A.sql")), update);
}

// ---- Failed fetches ----

TEST_F(VkAddTorjanItemsTest, FailedManifestFetchesDownloadNothingAndReportFailure) {
    publish({source("A.sql", "Alpha", "1.0")}, VkDate{1700000000});
    make();
    using Failure = VkUpdateReport::Failure;
    struct Case {
        const char* what;
        std::function<void()> arrange;
        Failure failure;
        const char* error = "";  // a part of the error text
    } cases[] = {
        {"500", [&] { server.force(kManifestPath, 500); }, Failure::Fetch},
        {"down", [&] { ctx->updateServer = "http://127.0.0.1:1"; }, Failure::Fetch},
        {"plain XML", [&] { serveRaw(kManifestPath, VkPlist::array({}).toXml()); },
         Failure::Decipher},
        {"not an array", [&] { serveManifest(VkPlist::dictionary({})); }, Failure::Parse},
        {"over 1 MiB",
         [&] {
             serveRaw(kManifestPath, std::string(VkAddTorjanItems::kMaxManifestBytes + 1, 'x'));
         },
         Failure::Fetch, "larger than 1048576 bytes"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ctx->updateServer = server.url();
        c.arrange();
        VkUpdateReport report = items->checkUpdateOnce();
        EXPECT_FALSE(report.success);
        EXPECT_EQ(report.failure, c.failure);
        EXPECT_FALSE(report.error.empty());
        EXPECT_NE(report.error.find(c.error), std::string::npos) << report.error;
        EXPECT_FALSE(VkFile::exists(ctx->dataPath("temp")));
        server.force(kManifestPath, 0);
        publish({dir / "sources/A.sql"}, VkDate{1700000000});
    }
    EXPECT_EQ(fileRequests("A.sql"), 0u);
}

// ---- startUpdate, the wait and stopping ----

TEST_F(VkAddTorjanItemsTest, StartUpdateChecksAndAnswersAtOnceSoonAfter) {
    publish({source("A.sql", "Alpha", "1.0")}, VkDate{1700000000});
    EXPECT_EQ(firstAnswer(), "yes 1700000000 loop");
    EXPECT_EQ(gate->lastRequest.load(), 2000000) << "startUpdate runs the loop with 2-second ticks";
    gate->allow(3);
    ASSERT_TRUE(gate->waitBlockedAfter(3));
    EXPECT_EQ(items->loopCount(), 3u);

    auto second = std::make_shared<RecordingDelegate>();
    items->startUpdate(second);
    EXPECT_EQ(second->calls(), std::vector<std::string>{"yes 1700000000 caller"})
        << "answered before startUpdate returned";
    EXPECT_EQ(manifestRequests(), 1u);
    EXPECT_FALSE(items->isContinueLoop());

    // Ten ticks after the check the answer is no longer fresh: the loop checks again.
    gate->allow(7);
    ASSERT_TRUE(gate->waitBlockedAfter(10));
    auto third = std::make_shared<RecordingDelegate>();
    items->startUpdate(third);
    EXPECT_TRUE(third->calls().empty());
    gate->allow(1);
    EXPECT_EQ(third->calls(1), std::vector<std::string>{"yes 1700000000 loop"});
    EXPECT_EQ(manifestRequests(), 2u);
}

// After a failure only a request ends the wait, at the next tick, and there the loop answers
// the latest delegate (the one it replaced is never called).
TEST_F(VkAddTorjanItemsTest, WaitEndsOnlyOnRequestAndTheLimitHoldsOneTick) {
    server.force(kManifestPath, 500);
    EXPECT_EQ(firstAnswer(), "no - loop");
    // Far past both limits without a request: no new check.
    gate->allow(1000);
    ASSERT_TRUE(gate->waitBlockedAfter(1000));
    EXPECT_EQ(manifestRequests(), 1u);
    EXPECT_EQ(items->loopCount(), 1000u);

    items->startUpdate(std::make_shared<RecordingDelegate>());
    gate->allow(1);
    ASSERT_TRUE(gate->waitBlockedAfter(1001));
    EXPECT_EQ(manifestRequests(), 2u);

    // A request seen when the count equals the limit (300 after a failure) waits one more
    // tick: 299 ticks, request, and the 300th tick does not end the wait.
    server.force(kManifestPath, 0);
    publish({source("A.sql", "Alpha", "1.0")}, VkDate{1700000000});
    gate->allow(299);
    ASSERT_TRUE(gate->waitBlockedAfter(1300));
    auto replaced = std::make_shared<RecordingDelegate>();
    auto held = std::make_shared<RecordingDelegate>();
    items->startUpdate(replaced);
    items->startUpdate(held);
    EXPECT_TRUE(items->isContinueLoop());
    gate->allow(1);
    ASSERT_TRUE(gate->waitBlockedAfter(1301));
    EXPECT_EQ(items->loopCount(), 300u);
    EXPECT_EQ(manifestRequests(), 2u);
    EXPECT_TRUE(held->calls().empty());
    gate->allow(1);
    EXPECT_EQ(held->calls(1), std::vector<std::string>{"yes 1700000000 loop"});
    EXPECT_TRUE(VkFile::exists(staged("A.sql")));
    EXPECT_EQ(manifestRequests(), 3u);
    ASSERT_TRUE(gate->waitBlockedAfter(1302));
    EXPECT_FALSE(items->isContinueLoop());
    EXPECT_TRUE(replaced->calls().empty());
}

TEST_F(VkAddTorjanItemsTest, StopReturnsWithinOneTick) {
    publish({source("A.sql", "Alpha", "1.0")}, std::nullopt);
    EXPECT_EQ(firstAnswer(), "yes - loop");
    gate->allow(2);
    ASSERT_TRUE(gate->waitBlockedAfter(2));

    std::thread stopper([&] { items->stopUpdateNotification(); });
    while (!items->stopLoop())
        std::this_thread::yield();
    gate->allow(1);  // the one tick the loop is sleeping in
    stopper.join();
    EXPECT_EQ(gate->taken.load(), 3u);

    // Stopped for good: no new thread, and a request is answered at once with failure.
    items->startUpdateNotification(0.01);
    auto late = std::make_shared<RecordingDelegate>();
    items->startUpdate(late);
    EXPECT_EQ(late->calls(), std::vector<std::string>{"no - caller"});
    EXPECT_EQ(manifestRequests(), 1u);
}

TEST_F(VkAddTorjanItemsTest, StopAbandonsARunningDownload) {
    // 30 bytes a second for 100 seconds, and no low-speed limit to cut it: only the stop can.
    auto started = std::make_shared<std::atomic<bool>>(false);
    server.handle(std::string(kFolder) + "A.sql", [this, started](httplib::Response& res) {
        res.set_content_provider(3000, "application/octet-stream",
                                 [this, started](size_t, size_t, httplib::DataSink& sink) {
                                     *started = true;
                                     std::this_thread::sleep_for(100ms);
                                     return !server.stopping && sink.write("abc", 3);
                                 });
    });
    serveManifest(VkPlist::array({entry("Alpha", "1.0", "A.sql")}));
    VkHttpClient::Options patient;
    patient.lowSpeedBytesPerSecond = 0;
    make(std::make_shared<VkCurlHttpClient>(patient)).startUpdateNotification(0.01);
    gate->allow(std::numeric_limits<uint64_t>::max() / 2);
    for (int i = 0; i < 3000 && !*started; ++i)
        std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(*started);
    items->stopUpdateNotification();
    EXPECT_TRUE(stagedNames().empty()) << "the download ran to its end";
}

// ---- Applying staged files, adding databases, packaged databases ----

TEST_F(VkAddTorjanItemsTest, StagedFilesReplaceDatabasesButAddedOnesNeverDo) {
    installed("x.sql", "X", "1.0");
    EXPECT_TRUE(make().copyToLocalPath().empty()) << "no staging folder";
    makeDb(staged("x.sql"), "X", "2.0");
    makeDb(staged("y.sql"), "Y", "1.0");
    std::string notes = ctx->dataPath("temp/notes.txt");
    ASSERT_TRUE(VkFile::writeAtomically(notes, std::string("keep me")).ok());

    std::vector<std::string> done = items->copyToLocalPath();
    std::sort(done.begin(), done.end());
    EXPECT_EQ(done, (std::vector<std::string>{ctx->dataPath("x.sql"), ctx->dataPath("y.sql")}));
    EXPECT_EQ(contents(notes), "keep me");
    EXPECT_FALSE(VkFile::exists(ctx->dataPath("notes.txt")));

    // Adding by path copies new files and never replaces. A bare file name (here, in the
    // working folder) lands beside the other databases.
    source("new.sql", "New", "1.0");
    source("old.sql", "Old", "5.0");
    installed("old.sql", "Old", "1.0");
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir / "sources");
    EXPECT_TRUE(items->addItemByPath("new.sql"));
    EXPECT_EQ(versionOf(ctx->dataPath("new.sql")), "1.0");
    EXPECT_FALSE(items->addItemByPath("old.sql")) << "newer offered, older installed";
    std::filesystem::current_path(previous);
    EXPECT_EQ(versionOf(ctx->dataPath("old.sql")), "1.0");
    // The whole path is appended: an absolute path points into a nested folder.
    std::string absolute = dir / "sources/new.sql";
    EXPECT_FALSE(items->addItemByPath(absolute)) << "the nested folder does not exist";
    VkFile::createDirectory(VkFile::deletingLastPathComponent(ctx->dataFolder + absolute), true);
    EXPECT_TRUE(items->addItemByPath(absolute));
    EXPECT_EQ(versionOf(ctx->dataFolder + absolute), "1.0");
    EXPECT_FALSE(items->addItemByPath(dir / "sources/missing.sql"));
}

TEST_F(VkAddTorjanItemsTest, PackagedDatabasesReplaceOnlyOlderInstalledOnes) {
    std::string packaged = ctx->resourceFolder + "/trojanDB/";
    makeDb(packaged + "P.sql", "P", "2.0");
    makeDb(packaged + "Q.sql", "Q", "1.0");
    makeDb(packaged + "S.sql", "S", "1.0");
    ASSERT_TRUE(VkFile::writeAtomically(packaged + "R.sql", std::string("not sqlite")).ok());
    ASSERT_TRUE(VkFile::writeAtomically(packaged + "readme.txt", std::string("text")).ok());
    installed("P.sql", "P", "1.0");
    installed("Q.sql", "Q", "3.0");
    installed("R.sql", "R", "1.0");

    make();
    EXPECT_EQ(versionOf(ctx->dataPath("P.sql")), "2.0");
    EXPECT_EQ(versionOf(ctx->dataPath("Q.sql")), "3.0");
    EXPECT_EQ(versionOf(ctx->dataPath("R.sql")), "1.0") << "unreadable compares as the same";
    EXPECT_EQ(versionOf(ctx->dataPath("S.sql")), "1.0");
    EXPECT_FALSE(VkFile::exists(ctx->dataPath("readme.txt")));

    // The data folder is created when missing, but never its parents.
    items.reset();
    ASSERT_TRUE(VkFile::removeTree(ctx->dataFolder).ok());
    make();
    EXPECT_EQ(versionOf(ctx->dataPath("S.sql")), "1.0");
    items.reset();
    ctx->dataFolder = dir / "missing/parent/data";
    make();
    EXPECT_FALSE(VkFile::exists(dir / "missing"));
}

}  // namespace
