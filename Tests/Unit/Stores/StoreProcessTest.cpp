#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <signal.h>

#include "Common/Platform/FileLock.h"
#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

namespace fs = std::filesystem;
using test::ChildProcess;
using test::ChildRole;

constexpr std::string_view kDomain = "com.example.tool";
constexpr int kWriters = 8;
constexpr int kUpdates = 1000;

std::string keyOf(int writer) { return "writer " + std::to_string(writer); }

// Counts up one key of its own; begins when told, so that all writers write at once.
UTILIA_CHILD_ROLE(countUp) {
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    const std::string& key = self.arguments[0];
    self.say("ready");
    self.waitForLine();
    for (int i = 0; i < kUpdates; ++i) defaults->setObject(defaults->integerForKey(key) + 1, key);
    return defaults->synchronize() ? 0 : 1;
}

UTILIA_CHILD_ROLE(holdFileLock) {
    const auto lock =
        FileLock::acquire(self.arguments[0], FileLock::Mode::Exclusive, std::chrono::seconds(60));
    self.say(lock ? "locked" : "failed");
    self.waitForLine();
    return 0;
}

TEST(StoreProcesses, EightWritersOfOneDomainLoseNoUpdate) {
    const test::TemporaryHome home(test::folderInMemory());
    std::vector<ChildProcess> writers;
    for (int i = 0; i < kWriters; ++i) writers.push_back(ChildProcess::role("countUp", {keyOf(i)}));
    for (ChildProcess& writer : writers) ASSERT_EQ(writer.waitForLine(), "ready");
    for (ChildProcess& writer : writers) writer.say("go");
    for (ChildProcess& writer : writers)
        EXPECT_EQ(writer.waitForExit(std::chrono::seconds(240)), 0);
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    for (int i = 0; i < kWriters; ++i) EXPECT_EQ(defaults->integerForKey(keyOf(i)), kUpdates);
}

TEST(StoreProcesses, AStoppedHolderOfTheDomainsLockCostsTheOthersTwoSecondsAndALogLine) {
    const test::TemporaryHome home;
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    defaults->setObject(1, "number");
    ChildProcess holder = ChildProcess::role("holdFileLock", {defaults->path() + ".lock"});
    ASSERT_EQ(holder.waitForLine(), "locked");
    holder.signal(SIGSTOP);
    test::TestLog log;
    defaults->setObject(2, "number");
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"The preferences could not be written: flock " +
                                       defaults->path() + ".lock: still held by process " +
                                       std::to_string(holder.pid()) + " after 2000 ms"});
    EXPECT_EQ(UserDefaults::initWithDomain(kDomain)->integerForKey("number"), 1);
    EXPECT_EQ(defaults->integerForKey("number"), 2) << "what was set stays, for the next write";
    holder.signal(SIGCONT);
    holder.say("release");
    EXPECT_EQ(holder.waitForExit(), 0);
    EXPECT_TRUE(defaults->synchronize());
    EXPECT_EQ(UserDefaults::initWithDomain(kDomain)->integerForKey("number"), 2);
}

TEST(StoreProcesses, AKilledHolderFreesTheDomainsLockAtOnce) {
    const test::TemporaryHome home;
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    defaults->setObject(1, "number");
    ChildProcess holder = ChildProcess::role("holdFileLock", {defaults->path() + ".lock"});
    ASSERT_EQ(holder.waitForLine(), "locked");
    holder.kill();
    defaults->setObject(2, "number");
    EXPECT_TRUE(defaults->synchronize());
}

TEST(StoreProcesses, AKillAtAnySystemCallOfAnUpdateLeavesTheOldOrTheNewStore) {
    const test::TemporaryHome home(test::folderInMemory());
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    std::int64_t before = 0;
    defaults->setObject(before, "number");
    const fs::path folder = fs::path(defaults->path()).parent_path();
    const test::TestLog log;
    const std::size_t points =
        test::forEachKillPoint(
            20, [&] { UserDefaults::initWithDomain(kDomain)->setObject(before + 1, "number"); },
            [&](const test::KillPoint&) {
                const std::int64_t found =
                    UserDefaults::initWithDomain(kDomain)->integerForKey("number");
                EXPECT_TRUE(found == before || found == before + 1) << found;
                std::size_t names = 0;
                for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder)) ++names;
                EXPECT_LE(names, 4u)
                    << "the domain, its lock, its backup, and at most one unfinished file";
                before += 10;
                defaults->setObject(before, "number");
                EXPECT_TRUE(defaults->synchronize());
            });
    EXPECT_GE(points, 16u);
    EXPECT_EQ(log.lines(), std::vector<std::string>());
}

TEST(StoreProcesses, AKillAtAnySystemCallOfARepairLosesNeitherTheBackupNorTheDamagedFile) {
    const test::TemporaryHome home(test::folderInMemory());
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    defaults->setObject(1, "number");
    defaults->setObject(2, "number");  // leaves 1 in the backup
    const fs::path file = defaults->path();
    const auto damage = [&] {
        fs::remove(file);
        std::ofstream(file) << "no property list";
    };
    damage();
    const test::TestLog log;
    const std::size_t points = test::forEachKillPoint(
        5, [&] { UserDefaults::initWithDomain(kDomain)->objectForKey("number"); },
        [&](const test::KillPoint&) {
            EXPECT_EQ(UserDefaults::initWithDomain(kDomain)->integerForKey("number"), 1);
            std::size_t setAside = 0;
            for (const auto& entry : fs::directory_iterator(file.parent_path())) {
                setAside += entry.path().string().find(".damaged-") != std::string::npos;
            }
            EXPECT_GE(setAside, 1u);
            EXPECT_LE(setAside, 3u);
            damage();
        });
    EXPECT_GE(points, 16u);
}

}  // namespace
}  // namespace utilia::platform
