#include "remediation/VkKillTorjans.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "detectors/VkFakeMac.h"

namespace {

namespace fs = std::filesystem;
using Results = VkKillTorjans::ResultList;
using Lines = std::vector<std::string>;
using Entries = std::vector<Lines>;

// Each outcome in one line: "special" or nothing, then a mark per deletion ("+" removed, "-"
// refused with a reason, "?" refused without one), then "pid:ended|alive" per kill.
Lines summary(const VkKillReport& report) {
    Lines out;
    for (const auto& o : report.outcomes) {
        std::string line = o.special ? "special" : "";
        for (const auto& d : o.deletions)
            line += d.removed ? "+" : d.reason.empty() ? "?" : "-";
        for (const auto& k : o.kills)
            line += " " + std::to_string(k.pid) + (k.ended ? ":ended" : ":alive");
        out.push_back(line);
    }
    return out;
}

// Records every delegate call as a line, "<file> <progress> ok|failed" or "end", followed by
// "after <core calls made>" and " on main" when on the main thread. Read once runs are joined.
struct RecordingDelegate : VkKillTorjansDelegate {
    RecordingDelegate(std::shared_ptr<VkRecordingCoreFunction> core,
                      std::shared_ptr<VkMainQueue> queue)
        : core(std::move(core)), queue(std::move(queue)) {}

    bool killTorjansProgress(const std::shared_ptr<VkTorjanResultItems>& result, float value,
                             bool isSuccess) override {
        std::ostringstream line;
        line << VkFile::lastPathComponent(result->path().value_or("-")) << " " << value
             << (isSuccess ? " ok" : " failed");
        hear(line.str());
        return true;
    }
    void killTorjansEnd() override { hear("end"); }
    void hear(const std::string& what) {
        std::lock_guard lock(mutex);
        heard.push_back(what + " after " + std::to_string(core->calls().size()) +
                        (queue->isMainThread() ? " on main" : ""));
    }
    long ends() const {
        return std::count_if(heard.begin(), heard.end(),
                             [](const std::string& line) { return line.starts_with("end "); });
    }

    std::shared_ptr<VkRecordingCoreFunction> core;
    std::shared_ptr<VkMainQueue> queue;
    std::mutex mutex;
    Lines heard;
};

// A process table made up by the test; listPids can fail, and waits while the gate is shut.
// The table is set before any run starts, so only the gate and the count are shared.
class FakeProcessList : public VkProcessList {
  public:
    std::optional<std::vector<int32_t>> listPids() override {
        ++listings;
        while (!gateOpen)
            std::this_thread::yield();
        if (failListing)
            return std::nullopt;
        std::vector<int32_t> pids;
        for (const auto& entry : names)
            pids.push_back(entry.first);
        return pids;
    }
    std::optional<std::string> processName(int32_t pid) override {
        auto it = names.find(pid);
        return it == names.end() ? std::nullopt : std::optional<std::string>(it->second);
    }

    std::map<int32_t, std::string> names;
    bool failListing = false;
    std::atomic<bool> gateOpen{true};
    std::atomic<int> listings{0};
};

class VkKillTorjansTest : public VkFakeMacTest {
  protected:
    void SetUp() override {
        VkFakeMacTest::SetUp();
        core->performDeletes(true);
        processes = std::make_shared<FakeProcessList>();
        processes->names = {{100, "launchd-ish"}, {200, "Finder"}};
        ctx->processList = processes;
        anti = std::make_shared<VkAntiTrojan>(ctx->inspectedSystem(), ctx->coreFunction,
                                              ctx->systemLog, nullptr);
        delegate = std::make_shared<RecordingDelegate>(core, ctx->mainQueue);
        queue = std::dynamic_pointer_cast<VkRunLoopMainQueue>(ctx->mainQueue);
    }

    // A remover on the fixture's services as they are when the test asks for it.
    std::unique_ptr<VkKillTorjans> newKiller() {
        return std::make_unique<VkKillTorjans>(ctx->inspectedSystem(), ctx->coreFunction,
                                               ctx->processList, ctx->mainQueue, anti);
    }

    // A result of a signature with these kill instructions (none: no list at all), or of a
    // detector (special) when `special` is set.
    std::shared_ptr<VkTorjanResultItems> result(const std::string& path,
                                                std::optional<Entries> kill = {},
                                                bool special = false) {
        auto r = std::make_shared<VkTorjanResultItems>();
        r->setPath(path);
        if (special) {
            r->setTorjanName(std::string("OSX/Olyx.A"));
            r->setSpec(true);
            return r;
        }
        auto record = std::make_shared<VkTorjanItem>();
        record->setName(std::string("OSX/Test.A"));
        if (kill)
            record->setKillArray(VkTorjanItem::makeKillArray(*kill));
        r->setTorjanItem(record);
        return r;
    }

    std::shared_ptr<FakeProcessList> processes;
    std::shared_ptr<VkAntiTrojan> anti;
    std::shared_ptr<RecordingDelegate> delegate;
    std::shared_ptr<VkRunLoopMainQueue> queue;
};

TEST_F(VkKillTorjansTest, EmptyListStillCleansRunsTheDetectorsRemovalAndEnds) {
    // A finding of the launch-agent detector, removed by the detectors' own removal.
    std::string agentFile = dir.write("root/Library/LaunchAgents/com.agent.plist", "<plist/>");
    anti->antiAgentTrojan().addToBinFiles(agentFile);

    auto killer = newKiller();
    killer->killTorjanItem({}, delegate);
    killer->joinKillThreads();
    EXPECT_TRUE(delegate->heard.empty()) << "the end goes through the main queue";
    queue->runPending();

    // On the main thread, after the detectors' removal.
    EXPECT_EQ(delegate->heard, Lines{"end after 3 on main"});
    EXPECT_EQ(coreCalls(),
              (Lines{"startClean", "systemCommand launchctl unsetenv DYLD_INSERT_LIBRARIES",
                     "startClean (files) " + agentFile}));
    EXPECT_FALSE(fs::exists(agentFile));

    // What no result of the run names is reported all the same.
    std::string other = dir.write("root/Users/tester/.named", "x");
    anti->antiAgentTrojan().addToBinFiles(other);
    VkKillReport report = newKiller()->killTorjanItemAndWait({});
    ASSERT_EQ(report.otherDeletions.size(), 1u) << "the file the first run took is not told";
    EXPECT_EQ(std::tuple(report.otherDeletions[0].path, report.otherDeletions[0].removed),
              std::tuple(other, true));
}

// A "d" entry deletes folder/name in the inspected system, not the result's own file.
// Entries a crafted database (or an update) may carry delete nothing, each saying why;
// unknown codes are skipped; a good entry after them still acts.
TEST_F(VkKillTorjansTest, DeleteEntriesActInTheInspectedSystemAndHostileOnesTouchNothing) {
    std::string own = dir.write("root/found/evil.bin", "x");
    std::string target = dir.write("root/Library/Foo/bar.plist", "<plist/>");
    for (const char* file : {"root/Library/Foo/keep.plist", "root/etc/passwd", "outside/precious",
                             "root/Users/tester/Documents/doc.txt", "root/Users/tester/.profile"})
        dir.write(file, "x");
    fs::create_directory_symlink(dir / "outside", dir / "root/Library/lnk");
    // Each hostile "d" entry as folder|name, separated by semicolons.
    std::istringstream hostile(
        "/Library/Foo|;/Library/Foo|/;|bar.plist;/Library/Foo/../../etc|passwd;"
        "/Library/Foo|../../etc/passwd;/etc|.;/etc|./;~|.;~/|./;/|etc;/|.;/Users|tester;"
        "~|Documents;/Library/lnk|.;/Library/lnk|precious;/Library|lnk/precious;..|etc;"
        "/Library|nothing-here");
    Entries entries;
    for (std::string h; std::getline(hostile, h, ';');)
        entries.push_back({"d", h.substr(0, h.find('|')), h.substr(h.find('|') + 1)});
    // Dropped when the list is read: no name, nothing at all. Skipped: an unknown code.
    entries.push_back({"d", "/Library/Foo"});
    entries.push_back({});
    entries.push_back({"x", "/Library/Foo", "bar.plist"});
    entries.push_back({"d", "/Library/Foo", "bar.plist"});
    auto before = dir.snapshot();
    before.erase(target);

    auto killer = newKiller();
    VkKillReport report = killer->killTorjanItemAndWait({result(own, entries)}, delegate);
    EXPECT_EQ(dir.snapshot(), before) << "only the good entry's file is gone";
    // The entries the list refuses itself never reach the clean step; the others are refused
    // there, all but the good one last.
    Lines reached;
    for (const char* path :
         {"/etc", "/Users/tester", "/Users/tester/Documents", "/Library/lnk/precious",
          "/Library/lnk/precious", "/Library/nothing-here", "/Library/Foo/bar.plist"})
        reached.push_back(ctx->resolve(path));
    auto cleans = core->callsOf("startClean");
    ASSERT_EQ(cleans.size(), 1u);
    EXPECT_EQ(cleans[0].args, reached);
    EXPECT_TRUE(core->callsOf("killProcessByID").empty());

    ASSERT_TRUE(report.completed);
    EXPECT_EQ(summary(report), Lines{std::string(18, '-') + "+"});
    EXPECT_EQ(delegate->ends(), 1) << "delivered before killTorjanItemAndWait returned";
}

// Results without instructions (none, or an empty list) lose their own file, all in one
// clean; special results are reported after it and left to the detectors.
TEST_F(VkKillTorjansTest, FourResultsGiveFourQuartersAndSpecialResultsComeAfterTheClean) {
    std::string a = dir.write("root/found/a.bin", "a");
    std::string b = dir.write("root/found/b.bin", "b");
    std::string c = dir.write("root/found/c.bin", "c");
    std::string s = dir.write("root/found/special.plist", "s");
    auto killer = newKiller();
    VkKillReport report = killer->killTorjanItemAndWait(
        {result(a), result(s, {}, true), result(b, Entries{}), result(c)}, delegate);

    // On the removal thread; special results after the clean.
    EXPECT_EQ(delegate->heard,
              (Lines{"a.bin 0.25 ok after 0", "b.bin 0.25 ok after 0", "c.bin 0.25 ok after 0",
                     "special.plist 0.25 ok after 1", "end after 1 on main"}));

    EXPECT_EQ(coreCalls(), Lines{"startClean " + a + " " + b + " " + c});
    for (const auto& gone : {a, b, c})
        EXPECT_FALSE(fs::exists(gone)) << gone;
    EXPECT_TRUE(fs::exists(s)) << "special files are left to the detectors";
    EXPECT_EQ(summary(report), (Lines{"+", "special", "+", "+"}));

    // Instructions that were all dropped when read were instructions still: the detected
    // file is not deleted in their place.
    std::string kept = dir.write("root/found/kept.bin", "c");
    killer->killTorjanItemAndWait({result(kept, {{{"d", "/Library"}, {}}})});
    EXPECT_TRUE(fs::exists(kept));

    // A judged file goes only while its path still names it: not a folder or another file
    // put in its place since (the judged one kept aside, so its inode is not reused).
    Results judged;
    for (const char* name : {"same", "folder", "other"}) {
        judged.push_back(result(dir.write(std::string("root/found/") + name, "j")));
        struct stat st {};
        ASSERT_EQ(::lstat(judged.back()->path()->c_str(), &st), 0);
        judged.back()->setFoundAs(st);
    }
    fs::rename(dir / "root/found/folder", dir / "root/found/folder.old");
    dir.write("root/found/folder/notes.txt", "keep");
    fs::rename(dir / "root/found/other", dir / "root/found/other.old");
    dir.write("root/found/other", "keep");
    auto swapped = dir.snapshot();
    swapped.erase(dir / "root/found/same");
    report = killer->killTorjanItemAndWait(judged);
    EXPECT_EQ(dir.snapshot(), swapped);
    EXPECT_EQ(summary(report), (Lines{"+", "-", "-"}));
}

TEST_F(VkKillTorjansTest, FailedProcessListingEndsAtOnceWithoutAnyCall) {
    processes->failListing = true;
    std::string file = dir.write("root/found/a.bin", "a");
    anti->antiAgentTrojan().addToBinFiles(dir.write("root/Library/LaunchAgents/x.plist", "x"));

    auto killer = newKiller();
    killer->killTorjanItem({result(file), result(file, {}, true)}, delegate);
    killer->joinKillThreads();
    queue->runPending();

    EXPECT_EQ(processes->listings.load(), 1);
    EXPECT_TRUE(delegate->heard.empty());
    EXPECT_TRUE(core->calls().empty()) << "no deletion, no kill, no detector removal";

    VkKillReport report = killer->killTorjanItemAndWait({result(file)});
    EXPECT_FALSE(report.completed);
    EXPECT_TRUE(core->calls().empty());

    // Without a delegate the request is dropped before the process table is even read.
    processes->failListing = false;
    killer->killTorjanItem({result(file)}, nullptr);
    killer->joinKillThreads();
    queue->runPending();
    EXPECT_EQ(processes->listings.load(), 2);
    EXPECT_TRUE(core->calls().empty());
}

TEST_F(VkKillTorjansTest, KillEntriesNeverEndThisProgramOrTheFirstProcess) {
    const int32_t self = static_cast<int32_t>(::getpid());
    processes->names = {{1, "Foo"}, {self, "Foo"}, {4242, "Foo"}, {4243, "FooAgent"}};
    std::string own = dir.write("root/found/Foo", "x");

    auto killer = newKiller();
    VkKillReport report =
        killer->killTorjanItemAndWait({result(own, {{{"k", "Foo", "ignored"}}})}, delegate);

    EXPECT_EQ(coreCalls(), (Lines{"killProcessByID 4242", "startClean"}))
        << "a record with only \"k\" entries deletes nothing";
    EXPECT_TRUE(fs::exists(own));

    ASSERT_EQ(report.outcomes.size(), 1u);
    std::map<int32_t, bool> ended;
    for (const auto& kill : report.outcomes[0].kills)
        ended[kill.pid] = kill.ended;
    EXPECT_EQ(ended, (std::map<int32_t, bool>{{1, false}, {self, false}, {4242, true}}));
    EXPECT_EQ(delegate->heard, (Lines{"Foo 1 ok after 1", "end after 2 on main"}));
}

TEST_F(VkKillTorjansTest, SecondRequestRunsAlongsideAndTakesOverTheDelegate) {
    std::string a = dir.write("root/found/a.bin", "a");
    std::string b = dir.write("root/found/b.bin", "b");
    auto second = std::make_shared<RecordingDelegate>(core, ctx->mainQueue);
    processes->gateOpen = false;
    {
        auto killer = newKiller();
        killer->killTorjanItem({result(a)}, delegate);
        killer->killTorjanItem({result(b)}, second);
        while (processes->listings < 2)
            std::this_thread::yield();
        processes->gateOpen = true;
        // Going out of scope waits for both runs.
    }
    queue->runPending();
    EXPECT_FALSE(fs::exists(a));
    EXPECT_FALSE(fs::exists(b));
    EXPECT_EQ(core->callsOf("startClean").size(), 2u);
    // Both runs were still going when the delegate was replaced: both report to the second.
    EXPECT_TRUE(delegate->heard.empty());
    EXPECT_EQ(second->heard.size(), 4u);
    EXPECT_EQ(second->ends(), 2);
}

// Real processes, found through the real process list and ended by the real core function.
class VkKillTorjansProcessTest : public VkKillTorjansTest {
  protected:
    void SetUp() override {
        VkKillTorjansTest::SetUp();
        ctx->processList = std::make_shared<VkSystemProcessList>();
        core->performKills(true);
    }

    void TearDown() override {
        for (pid_t pid : children_) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }

    // A child named `name` (the kernel keeps 15 bytes), or with `asProgram` a copy of sleep
    // of that name. Returns once the process list shows the name.
    pid_t spawn(const std::string& name, bool asProgram = false) {
        std::string program = dir / name;
        if (asProgram) {
            fs::copy_file("/bin/sleep", program);
            fs::permissions(program, fs::perms::owner_all);
        }
        pid_t pid = ::fork();
        if (pid == 0) {
            // Only async-signal-safe calls between fork and _exit.
            if (asProgram)
                ::execl(program.c_str(), program.c_str(), "60", static_cast<char*>(nullptr));
            else
                ::prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
            for (;;)
                ::pause();
        }
        if (pid > 0)
            children_.push_back(pid);
        const std::string shown = asProgram ? name : name.substr(0, 15);
        for (int i = 0; pid > 0 && i < 500; ++i) {
            auto names = VkSystemProcessList().processNames(pid);
            if (std::find(names.begin(), names.end(), shown) != names.end())
                break;
            ::usleep(10000);
        }
        return pid;
    }

    // True when the child has ended (and reaps it).
    bool ended(pid_t pid) {
        if (::waitpid(pid, nullptr, WNOHANG) != pid)
            return false;
        std::erase(children_, pid);
        return true;
    }

    std::vector<pid_t> children_;
};

// Every process with exactly the entry's name ends, found by its 15-byte kernel name or, for
// a longer name, by its executable's.
TEST_F(VkKillTorjansProcessTest, KillEntryEndsEveryProcessWithExactlyThatName) {
    // Unique per test process, so that nothing else on the machine carries these names.
    std::string name = "vkT" + std::to_string(::getpid());
    std::string longName = "LongTrojanAgent" + std::to_string(::getpid() % 100000);
    pid_t first = spawn(name), second = spawn(name), longer = spawn(name + "Agent");
    pid_t shorter = spawn(name.substr(0, name.size() - 1)), exe = spawn(longName, true);
    for (pid_t pid : {first, second, longer, shorter, exe})
        ASSERT_GT(pid, 0);
    std::string own = dir.write("root/found/" + name, "x");

    auto killer = newKiller();
    VkKillReport report =
        killer->killTorjanItemAndWait({result(own, {{{"k", name}, {"k", longName}}})}, delegate);

    // Called for, reported ended and really ended: the exact names only.
    std::multiset<std::string> killed, reported;
    for (const auto& call : core->callsOf("killProcessByID"))
        killed.insert(call.args.at(0));
    for (const auto& kill : report.outcomes.at(0).kills)
        reported.insert(std::to_string(kill.pid) + (kill.ended ? "" : " alive"));
    const std::multiset<std::string> expected{std::to_string(first), std::to_string(second),
                                              std::to_string(exe)};
    EXPECT_EQ(killed, expected);
    EXPECT_EQ(reported, expected);
    for (pid_t pid : {first, second, exe})
        EXPECT_TRUE(ended(pid)) << pid;
    EXPECT_FALSE(ended(longer) || ended(shorter));
    EXPECT_TRUE(fs::exists(own));
    EXPECT_EQ(delegate->ends(), 1);
}

}  // namespace
