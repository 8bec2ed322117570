// The shared store between processes and threads: one at a time, nothing lost, nobody waits for the
// dead.

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "Common/Logging/Log.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Process/UnprivilegedUser.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia::test {
namespace {

namespace fs = std::filesystem;
using platform::UserDefaults;

UTILIA_CHILD_ROLE(updateOwnSchedule) {
    updateSchedulerForThisTool([](Dictionary& record) { record.set("launchAtLogin", true); });
    return 0;
}

UTILIA_CHILD_ROLE(holdStore) {
    accessAppGroupPlist([&](UserDefaults& suite) {
        suite.setObject("set, but not yet written", "left");
        self.say("inside");
        self.waitForLine();
        suite.setObject("by the first", "last");
    });
    self.say("outside");
    self.waitForLine();
    return 0;
}

UTILIA_CHILD_ROLE(enterStore) {
    self.say("trying");
    accessAppGroupPlist([&](UserDefaults& suite) {
        self.say("inside after " + suite.stringForKey("last").value_or("nobody"));
    });
    return 0;
}

// Counts up in a record of its own.
UTILIA_CHILD_ROLE(countInStore) {
    self.say("ready");
    self.waitForLine();
    for (int i = std::stoi(self.arguments.at(1)); i > 0; --i) {
        updateSchedulerPlist(self.arguments.at(0), "counter", [](Dictionary& record) {
            const Value* const count = record.find("count");
            record.set("count", (count ? count->longLongValue() : 0) + 1);
        });
    }
    return 0;
}

class SpeakingSink final : public LogSink {
public:
    explicit SpeakingSink(const ChildRole& self) : self_(self) {}
    bool write(std::string_view line) noexcept override {
        self_.say(std::string(line));
        return true;
    }

private:
    const ChildRole& self_;
};

UTILIA_CHILD_ROLE(nestInStore) {
    setLogSink(std::make_shared<SpeakingSink>(self));
    accessAppGroupPlist([&](UserDefaults&) {
        if (self.arguments.at(0) == "access") accessAppGroupPlist(nullptr);
        if (self.arguments.at(0) == "read") readSchedulerPlist("id", "name", nullptr);
        if (self.arguments.at(0) == "update") updateSchedulerPlist("id", "name", nullptr);
    });
    return 0;
}

UTILIA_CHILD_ROLE(useStoreTwice) {
    TestLog log;
    int calls = 0;
    accessAppGroupPlist([&](UserDefaults&) { ++calls; });
    accessAppGroupPlist([&](UserDefaults& suite) {
        ++calls;
        if (self.arguments.at(0) == "write") suite.setObject(1, "key");
    });
    self.say("ran " + std::to_string(calls));
    for (const std::string& line : log.lines()) self.say(line);
    return 0;
}

// A store in memory, for tests of many writes: there every sync is free, and locks and renames are
// the same.
class InMemory final {
public:
    InMemory() : before_(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "") {
        if (fs::is_directory("/dev/shm")) setenv("TMPDIR", "/dev/shm", 1);
        home_ = std::make_unique<TemporaryHome>();
        if (before_.empty()) {
            unsetenv("TMPDIR");
        } else {
            setenv("TMPDIR", before_.c_str(), 1);
        }
    }

private:
    std::string before_;
    std::unique_ptr<TemporaryHome> home_;
};

class SharedStore : public testing::Test {
protected:
    // Whether this process waits for a lock: the kernel's list has an arrow before those who do.
    static bool waitsForLock(pid_t process) {
        std::ifstream locks("/proc/locks");
        for (std::string line; std::getline(locks, line);) {
            std::istringstream words(line);
            std::string number, arrow, kind, advisory, mode;
            pid_t holder = 0;
            words >> number >> arrow >> kind >> advisory >> mode >> holder;
            if (arrow == "->" && holder == process) return true;
        }
        return false;
    }
    static bool untilItWaitsForLock(pid_t process) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!waitsForLock(process)) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }

    TemporaryHome home_;
};

TEST_F(SharedStore, AnotherProcessWaitsAndThenSeesWhatTheFirstSet) {
    ChildProcess first = ChildProcess::role("holdStore");
    ASSERT_EQ(first.waitForLine(), "inside");
    ChildProcess second = ChildProcess::role("enterStore");
    ASSERT_EQ(second.waitForLine(), "trying");
    ASSERT_TRUE(untilItWaitsForLock(second.pid()));
    first.say("go on");
    EXPECT_EQ(second.waitForLine(), "inside after by the first");
    EXPECT_EQ(first.waitForLine(), "outside");
}

TEST_F(SharedStore, AnotherThreadWaitsToo) {
    std::atomic<bool> isFirstDone = false;
    std::thread second;
    bool wasFirstDone = false;
    accessAppGroupPlist([&](UserDefaults&) {
        second = std::thread(
            [&] { accessAppGroupPlist([&](UserDefaults&) { wasFirstDone = isFirstDone; }); });
        EXPECT_TRUE(untilItWaitsForLock(getpid()));
        isFirstDone = true;
    });
    second.join();
    EXPECT_TRUE(wasFirstDone);
}

TEST_F(SharedStore, HolderThatIsKilledLeavesTheStoreFreeAndUnchanged) {
    accessAppGroupPlist([](UserDefaults& suite) { suite.setObject("before", "left"); });
    ChildProcess holder = ChildProcess::role("holdStore");
    ASSERT_EQ(holder.waitForLine(), "inside");
    ChildProcess next = ChildProcess::role("enterStore");
    ASSERT_EQ(next.waitForLine(), "trying");
    ASSERT_TRUE(untilItWaitsForLock(next.pid()));
    holder.kill();
    EXPECT_EQ(next.waitForLine(), "inside after nobody");
    accessAppGroupPlist(
        [](UserDefaults& suite) { EXPECT_EQ(suite.stringForKey("left"), "before"); });
}

TEST_F(SharedStore, StoppedHolderMakesOthersWaitUntilItGoesOn) {
    ChildProcess holder = ChildProcess::role("holdStore");
    ASSERT_EQ(holder.waitForLine(), "inside");
    holder.signal(SIGSTOP);
    ChildProcess next = ChildProcess::role("enterStore");
    ASSERT_EQ(next.waitForLine(), "trying");
    ASSERT_TRUE(untilItWaitsForLock(next.pid()));
    holder.say("go on");
    holder.signal(SIGCONT);
    EXPECT_EQ(next.waitForLine(), "inside after by the first");
}

TEST_F(SharedStore, EightProcessesUpdatingDifferentRecordsLoseNone) {
    const InMemory inMemory;
    constexpr int kProcesses = 8;
    constexpr int kUpdates = 1'000;
    std::vector<ChildProcess> writers;
    for (int i = 0; i < kProcesses; ++i) {
        writers.push_back(ChildProcess::role(
            "countInStore", {"writer" + std::to_string(i), std::to_string(kUpdates)}));
        ASSERT_EQ(writers.back().waitForLine(), "ready");
    }
    for (ChildProcess& writer : writers) writer.say("go");
    for (ChildProcess& writer : writers)
        ASSERT_EQ(writer.waitForExit(std::chrono::seconds(240)), 0);
    std::size_t records = 0;
    accessAppGroupPlist(
        [&](UserDefaults& suite) { records = suite.arrayForKey("Scheduler")->size(); });
    EXPECT_EQ(records, std::size_t{kProcesses});
    for (int i = 0; i < kProcesses; ++i) {
        std::int64_t count = 0;
        readSchedulerPlist("writer" + std::to_string(i), "counter", [&](const Dictionary& record) {
            count = record.find("count")->longLongValue();
        });
        EXPECT_EQ(count, kUpdates) << i;
    }
}

#ifndef NDEBUG
TEST_F(SharedStore, NestedCallEndsADebugBuildWithAMessage) {
    for (const char* kind : {"access", "read", "update"}) {
        SCOPED_TRACE(kind);
        ChildProcess child = ChildProcess::role("nestInStore", {kind});
        EXPECT_EQ(child.waitForLine(),
                  "accessAppGroupPlist was called inside a block of accessAppGroupPlist: the block "
                  "would wait for its own lock for ever.");
        EXPECT_EQ(child.waitForExit(), 128 + SIGABRT);
    }
}
#endif

TEST_F(SharedStore, BlockRunsUnlockedWithOneLineWhenTheContainerCannotBeMade) {
    fs::create_directories(home_.groupContainer().parent_path());
    std::ofstream(home_.groupContainer()) << "in the way";
    ChildProcess child = ChildProcess::role("useStoreTwice", {"read"});
    EXPECT_EQ(child.waitForLine(), "ran 2");
    const auto line = child.waitForLine();
    ASSERT_TRUE(line);
    EXPECT_NE(line->find(home_.groupContainer().string()), std::string::npos) << *line;
    EXPECT_EQ(child.waitForLine(), std::nullopt) << "one line, however often it is used";
}

TEST_F(SharedStore, BlockRunsUnlockedWhenTheContainerMayNotBeEntered) {
    const UnprivilegedUser user(home_);
    fs::create_directories(home_.groupContainer());
    user.own(home_.data() / "korvane-utilia");
    ASSERT_EQ(chmod(home_.groupContainer().c_str(), 0000), 0);
    const TestBundle bundle(home_);
    ChildProcessOptions options;
    options.user = user.id();
    ChildProcess child = bundle.role("useStoreTwice", {"write"}, options);
    EXPECT_EQ(child.waitForLine(), "ran 2");
    EXPECT_EQ(child.waitForExit(), 0);
    ASSERT_EQ(chmod(home_.groupContainer().c_str(), 0700), 0);
    EXPECT_TRUE(fs::is_empty(home_.groupContainer()));
}

TEST_F(SharedStore, ReadOnlyContainerKeepsWhatItHoldsAndTheBlockRuns) {
    accessAppGroupPlist([](UserDefaults& suite) { suite.setObject("kept", "last"); });
    const UnprivilegedUser user(home_);
    user.own(home_.data() / "korvane-utilia");
    ASSERT_EQ(chmod((home_.groupContainer() / "Library/Preferences").c_str(), 0500), 0);
    const TestBundle bundle(home_);
    ChildProcessOptions options;
    options.user = user.id();
    ChildProcess child = bundle.role("useStoreTwice", {"write"}, options);
    EXPECT_EQ(child.waitForLine(), "ran 2");
    EXPECT_NE(child.waitForLine(), std::nullopt) << "a write that failed is worth a line";
    EXPECT_EQ(child.waitForExit(), 0);
    accessAppGroupPlist([](UserDefaults& suite) {
        EXPECT_EQ(suite.stringForKey("last"), "kept");
        EXPECT_EQ(suite.objectForKey("key"), std::nullopt);
    });
}

TEST_F(SharedStore, ToolWritesItsOwnRecordWithoutExtension) {
    const TestBundle bundle(home_, {.name = "Big.Clock 2", .bundleIdentifier = "id"});
    EXPECT_EQ(bundle.role("updateOwnSchedule").waitForExit(), 0);
    bool found = false;
    readSchedulerPlist("id", "Big.Clock 2", [&](const Dictionary&) { found = true; });
    EXPECT_TRUE(found);
}

}  // namespace
}  // namespace utilia::test
