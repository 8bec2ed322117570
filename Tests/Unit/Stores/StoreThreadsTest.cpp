#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <signal.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/FileLock.h"
#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::platform {
namespace {

using test::ChildProcess;
using test::ChildRole;

constexpr std::string_view kDomain = "com.example.tool";

UTILIA_CHILD_ROLE(holdFolderLock) {
    const auto lock = FileLock::acquireFolder(self.arguments[0], FileLock::Mode::Exclusive);
    self.say(lock ? "locked" : "failed");
    self.waitForLine();
    return 0;
}

// Wakes whoever waits for a line.
class LineWaiter final : public LogSink {
public:
    bool write(std::string_view line) noexcept override {
        const std::lock_guard guard(mutex_);
        lines_.emplace_back(line);
        changed_.notify_all();
        return true;
    }
    std::string first() {
        std::unique_lock guard(mutex_);
        changed_.wait_for(guard, std::chrono::seconds(60), [this] { return !lines_.empty(); });
        return lines_.empty() ? "" : lines_.front();
    }
    std::size_t count() {
        const std::lock_guard guard(mutex_);
        return lines_.size();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

TEST(StoreThreads, TwoWithInstancesOfOneDomainLoseNoUpdate) {
    const test::TemporaryHome home(test::folderInMemory());
    constexpr int kRounds = 300;
    const auto work = [](const char* key) {
        const auto own = UserDefaults::initWithDomain(kDomain);
        for (int i = 1; i <= kRounds; ++i) {
            own->setObject(i, key);
            EXPECT_EQ(own->integerForKey(key), i);
        }
    };
    std::thread first(work, "first");
    std::thread second(work, "second");
    first.join();
    second.join();
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    EXPECT_EQ(defaults->integerForKey("first"), kRounds);
    EXPECT_EQ(defaults->integerForKey("second"), kRounds);
}

TEST(StoreThreads, AReaderSeesWholeVersionsInTheirOrder) {
    const test::TemporaryHome home(test::folderInMemory());
    const auto own = UserDefaults::initWithDomain(kDomain);
    own->setObject(Array{1, 1}, "pair");
    std::thread writer([] {
        const auto defaults = UserDefaults::initWithDomain(kDomain);
        for (int i = 2; i < 300; ++i) defaults->setObject(Array{i, i}, "pair");
    });
    for (std::int64_t seen = 0; seen < 299;) {
        const auto pair = own->arrayForKey("pair");
        ASSERT_TRUE(pair && (*pair)[0] == (*pair)[1]);
        ASSERT_GE((*pair)[0].longLongValue(), seen);
        seen = (*pair)[0].longLongValue();
    }
    writer.join();
}

TEST(StoreThreads, AFileLockWaitsForAnotherThreadWithinItsTime) {
    const test::TemporaryFolder folder;
    const auto path = folder.path() / "lock";
    auto held = FileLock::acquire(path, FileLock::Mode::Exclusive, std::chrono::milliseconds(0));
    std::atomic<bool> isTrying = false;
    std::atomic<bool> isHeld = true;
    std::thread waiter([&] {
        isTrying = true;
        EXPECT_TRUE(FileLock::acquire(path, FileLock::Mode::Exclusive, std::chrono::seconds(60)));
        EXPECT_FALSE(isHeld);
    });
    while (!isTrying) std::this_thread::yield();
    // Time for it to be refused at least once, which nothing tells of.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    isHeld = false;
    held->release();
    waiter.join();
}

TEST(StoreThreads, AFolderLockMakesThreadsTakeTurns) {
    const test::TemporaryFolder folder;
    int inside = 0;
    int most = 0;
    std::mutex mutex;
    const auto work = [&] {
        for (int i = 0; i < 200; ++i) {
            const auto lock = FileLock::acquireFolder(folder.path(), FileLock::Mode::Exclusive);
            ASSERT_TRUE(lock);
            {
                const std::lock_guard guard(mutex);
                most = std::max(most, ++inside);
            }
            const std::lock_guard guard(mutex);
            --inside;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(work);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(most, 1);
}

TEST(StoreThreads, AFolderLockWaitsForAStoppedHolderAndSaysSoOnce) {
    const test::TemporaryHome home;
    ChildProcess holder = ChildProcess::role("holdFolderLock", {home.path()});
    ASSERT_EQ(holder.waitForLine(), "locked");
    holder.signal(SIGSTOP);
    const auto log = std::make_shared<LineWaiter>();
    setLogSink(log);
    std::thread waiter(
        [&] { EXPECT_TRUE(FileLock::acquireFolder(home.path(), FileLock::Mode::Exclusive)); });
    EXPECT_EQ(log->first(), "Waiting for the lock on " + home.path().string() +
                                ", held by process " + std::to_string(holder.pid()) +
                                ", since 2 seconds");
    holder.signal(SIGCONT);
    holder.say("release");
    waiter.join();
    EXPECT_EQ(log->count(), 1u);
    setLogSink(nullptr);
}

}  // namespace
}  // namespace utilia::platform
