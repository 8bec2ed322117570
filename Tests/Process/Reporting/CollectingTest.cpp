#include <atomic>
#include <map>
#include <random>
#include <set>
#include <thread>

#include <sys/stat.h>

#include "Common/Platform/LockedFile.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Unit/Reporting/ReportingFixture.h"

// Processes and threads that collect while others write, and die while they collect.

namespace utilia {
namespace {

using test::ChildProcess;
using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

// In place of a server: takes the report out of the folder.
Result<void> acceptInto(const std::string& folder, const platform::Task& task) {
    static std::atomic<unsigned> number = 0;
    const fs::path taken =
        fs::path(folder) / (std::to_string(getpid()) + "." + std::to_string(number++) + ".xml");
    // Another one may have been faster.
    std::error_code ignored;
    fs::rename(task.lockedFile, taken, ignored);
    return {};
}

CEPLogServices accepting(const std::string& folder) {
    return {
        .launchTask = [folder](const platform::Task& task) { return acceptInto(folder, task); }};
}

// NAME COUNT: records NAME-0, NAME-1, …
UTILIA_CHILD_ROLE(writeRecords) {
    if (CEPLogInit() != 0) return 1;
    CEPLog log;
    self.say("ready");
    self.waitForLine();
    const int count = std::stoi(self.arguments[1]);
    for (int i = 0; i < count; ++i) log.log(self.arguments[0] + "-" + std::to_string(i));
    return 0;
}

// FOLDER: uploads until it is told to stop.
UTILIA_CHILD_ROLE(collectReports) {
    if (CEPLogInit() != 0) return 1;
    CEPLog log(accepting(self.arguments[0]));
    log.setCepOwner(true);
    std::atomic<bool> isStopped = false;
    std::thread listener([&] {
        self.waitForLine();
        isStopped = true;
    });
    self.say("ready");
    while (!isStopped) log.sendCEP();
    listener.join();
    return 0;
}

class CollectingTest : public test::ReportingTest {
protected:
    void SetUp() override {
        ReportingTest::SetUp();
        fs::create_directories(accepted());
    }
    fs::path accepted() const { return home_.path() / "accepted"; }

    // How often each action is in a finished report, or still waits in a log.
    std::map<std::string, int> found() const {
        std::map<std::string, int> counts;
        const auto add = [&](const std::string& document) {
            for (const std::string& action : test::actionsIn(document)) ++counts[action];
        };
        for (const fs::path& folder : {accepted(), fs::path(reportFolder())}) {
            if (!fs::exists(folder)) continue;
            for (const auto& entry : fs::directory_iterator(folder)) {
                const std::string document = test::contentOf(entry.path());
                EXPECT_TRUE(isFinished(document)) << entry.path();
                add(document);
            }
        }
        for (const fs::path& log : {current(), overflow(), taken()}) add(test::contentOf(log));
        return counts;
    }
    static void expectEachOnce(const std::map<std::string, int>& counts, std::size_t expected) {
        EXPECT_EQ(counts.size(), expected);
        for (const auto& [action, count] : counts) EXPECT_EQ(count, 1) << action;
    }
};

TEST_F(CollectingTest, CollectorsAndWritersAtOnceLoseAndDoubleNothing) {
    constexpr int kWriters = 4;
    constexpr int kRecords = 1000;
    std::vector<ChildProcess> collectors;
    std::vector<ChildProcess> writers;
    for (int i = 0; i < 3; ++i)
        collectors.push_back(ChildProcess::role("collectReports", {accepted()}));
    for (int i = 0; i < kWriters; ++i) {
        writers.push_back(ChildProcess::role("writeRecords",
                                             {"w" + std::to_string(i), std::to_string(kRecords)}));
    }
    for (auto* group : {&collectors, &writers}) {
        for (ChildProcess& each : *group) ASSERT_EQ(each.waitForLine(), "ready");
    }
    for (ChildProcess& writer : writers) writer.say("go");
    for (ChildProcess& writer : writers)
        EXPECT_EQ(writer.waitForExit(std::chrono::seconds(240)), 0);
    for (ChildProcess& collector : collectors) collector.say("stop");
    for (ChildProcess& collector : collectors) EXPECT_EQ(collector.waitForExit(), 0);
    expectEachOnce(found(), kWriters * kRecords);
}

TEST_F(CollectingTest, CollectorsThatAreKilledLeaveNoUnfinishedReportAndDoubleNothing) {
    constexpr int kKills = 30;
    // It writes as long as there are collectors.
    auto writer = ChildProcess::role("writeRecords", {"w", "1000000000"});
    ASSERT_EQ(writer.waitForLine(), "ready");
    writer.say("go");
    std::mt19937 random(20261121);
    for (int kill = 0; kill < kKills; ++kill) {
        auto collector = ChildProcess::role("collectReports", {accepted()});
        ASSERT_EQ(collector.waitForLine(), "ready");
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        collector.kill();
    }
    // The last one is killed when there is something to look at for certain.
    auto collector = ChildProcess::role("collectReports", {accepted()});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (fs::is_empty(accepted()) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    collector.kill();
    EXPECT_FALSE(fs::is_empty(accepted()));
    writer.kill();
    const auto counts = found();
    EXPECT_FALSE(counts.empty());
    for (const auto& [action, count] : counts) EXPECT_EQ(count, 1) << action;
}

TEST_F(CollectingTest, ADeathAtAnyStepLosesTheLogOnlyBetweenItsRemovalAndTheReportsName) {
    const auto log = makeLog();
    log->logGrab();  // what is made once is there
    const auto prepare = [&] {
        fs::remove_all(reportFolder());
        fs::create_directories(reportFolder());
        fs::remove(current());
        fs::remove(overflow());
        fs::remove(taken());
        log->log("Act");
    };
    prepare();
    std::vector<unsigned> lostAt;  // steps, numbered
    unsigned last = 0;
    const std::size_t points = test::forEachKillPoint(
        1, [&] { log->logGrab(); },
        [&](const test::KillPoint& point) {
            last = 2 * point.ordinal + (point.isAfter ? 1 : 0);
            log->logGrab();  // the next owner
            const auto counts = found();
            EXPECT_LE(counts.size(), 1u);
            for (const auto& [action, count] : counts) EXPECT_EQ(count, 1) << action;
            if (counts.empty()) lostAt.push_back(last);
            prepare();
        });
    EXPECT_GT(points, 20u);
    // One stretch of steps, which neither begins nor ends the run.
    ASSERT_FALSE(lostAt.empty());
    std::sort(lostAt.begin(), lostAt.end());
    EXPECT_LT(lostAt.back() - lostAt.front() + 1, points / 2);
    EXPECT_EQ(lostAt.back() - lostAt.front() + 1, lostAt.size());
}

TEST_F(CollectingTest, ThreadsOfTwoOwnersTakeTurns) {
    constexpr int kThreads = 4;
    constexpr int kRecords = 200;
    {
        CEPLog first(accepting(accepted()));
        CEPLog second(accepting(accepted()));
        first.setCepOwner(true);
        second.setCepOwner(true);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&first, &second, i] {
                CEPLog& log = i % 2 == 0 ? first : second;
                for (int k = 0; k < kRecords; ++k) {
                    log.log("t" + std::to_string(i) + "-" + std::to_string(k));
                    if (k % 20 == 0) log.fireCEP();
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
    expectEachOnce(found(), kThreads * kRecords);
    EXPECT_EQ(messages_.count("is lost"), 0u);
}

TEST_F(CollectingTest, SwitchesMayBeTurnedOnSeveralThreads) {
    CEPLog log(accepting(accepted()));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&log, i] {
            for (int k = 0; k < 25; ++k) {
                i % 2 == 0 ? log.disableCEP() : log.enableCEP();
                log.setCepOwner(k % 2 == 0);
                log.setLogPath(log.logPath());
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    log.enableCEP();
    EXPECT_FALSE(log.isCEPDisabled());
}

TEST_F(CollectingTest, AnUploadWaitsForWhoeverHasTheLockFile) {
    auto log = std::make_unique<CEPLog>(accepting(accepted()));
    log->setCepOwner(true);
    log->log("Act");
    {
        const auto held = platform::LockedFile::openOrCreate(CEPLog::lockFile(), 0644);
        ASSERT_TRUE(held) << held.error().description;
        log->fireCEP();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (messages_.count("krv.utilia.ceplog.lock") == 0 &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_EQ(messages_.count("krv.utilia.ceplog.lock"), 1u)
            << "a long wait is logged once, while it lasts";
        EXPECT_THAT(actions(), ElementsAre("Act"));
        EXPECT_FALSE(log->waitForUploads(std::chrono::milliseconds(0)));
    }
    EXPECT_TRUE(log->waitForUploads(std::chrono::seconds(60)));
    EXPECT_THAT(actions(), IsEmpty());
    EXPECT_EQ(found().size(), 1u);
}

TEST_F(CollectingTest, TheOwnersStartWaitsForWhoeverHasTheLockFile) {
    std::atomic<bool> isStarted = false;
    std::thread owner;
    {
        const auto held = platform::LockedFile::openOrCreate(CEPLog::lockFile(), 0644);
        ASSERT_TRUE(held);
        owner = std::thread([&] {
            CEPLog log(accepting(accepted()));
            log.initGrab();
            isStarted = true;
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (messages_.count("krv.utilia.ceplog.lock") == 0 &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_FALSE(isStarted);
        EXPECT_FALSE(syncDate()) << "what it reads it reads under the lock";
    }
    owner.join();
    EXPECT_TRUE(syncDate());
}

}  // namespace
}  // namespace utilia
