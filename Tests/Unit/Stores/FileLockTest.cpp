#include <filesystem>
#include <optional>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/FileLock.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

namespace fs = std::filesystem;
using Mode = FileLock::Mode;
using std::chrono::milliseconds;

bool isFree(const fs::path& path, Mode mode = Mode::Exclusive) {
    return FileLock::acquire(path, mode, milliseconds(0)).has_value();
}

// Holds its lock in a child of its own, whose death is what ends it.
UTILIA_CHILD_ROLE(lockThenFork) {
    const auto lock = FileLock::acquire(self.arguments[0], Mode::Exclusive, milliseconds(0));
    if (fork() == 0) {
        self.say("child lives");
        self.waitForLine();
        _exit(0);
    }
    raise(SIGKILL);
    return 0;
}

class FileLockTest : public testing::Test {
protected:
    fs::path path() const { return folder_.path() / "lock"; }

    const test::TemporaryFolder folder_;
    const test::TestLog log_;
};

TEST_F(FileLockTest, MakesTheFileForItsUserAloneButNotItsFolder) {
    EXPECT_TRUE(isFree(path()));
    struct stat status {};
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    const auto missing =
        FileLock::acquire(folder_.path() / "missing" / "lock", Mode::Exclusive, milliseconds(0));
    ASSERT_FALSE(missing);
    EXPECT_TRUE(missing.error().isPosix(ENOENT)) << missing.error().description;
}

TEST_F(FileLockTest, IsBusyWhileAnotherHolderKeepsIt) {
    auto held = FileLock::acquire(path(), Mode::Exclusive, milliseconds(0));
    ASSERT_TRUE(held && held->isHeld());
    const auto second = FileLock::acquire(path(), Mode::Exclusive, milliseconds(5));
    ASSERT_FALSE(second);
    EXPECT_TRUE(second.error().is(UtiliaErrorCode::Busy));
    EXPECT_EQ(second.error().description, "flock " + path().string() + ": still held by process " +
                                              std::to_string(getpid()) + " after 5 ms");
    held->release();
    EXPECT_FALSE(held->isHeld());
    EXPECT_TRUE(isFree(path()));
    EXPECT_TRUE(fs::exists(path())) << "the lock file is never removed";
}

TEST_F(FileLockTest, IsSharedAmongReaders) {
    const auto first = FileLock::acquire(path(), Mode::Shared, milliseconds(0));
    EXPECT_TRUE(first);
    EXPECT_TRUE(isFree(path(), Mode::Shared));
    EXPECT_FALSE(isFree(path(), Mode::Exclusive));
}

TEST_F(FileLockTest, EndsWithItsObjectAndMovesWithIt) {
    {
        auto held = FileLock::acquire(path(), Mode::Exclusive, milliseconds(0));
        ASSERT_TRUE(held);
        std::optional<FileLock> moved = *std::move(held);
        EXPECT_FALSE(isFree(path()));
    }
    EXPECT_TRUE(isFree(path()));
}

TEST_F(FileLockTest, NeverFollowsALink) {
    fs::create_symlink(folder_.path() / "target", path());
    const auto lock = FileLock::acquire(path(), Mode::Exclusive, milliseconds(0));
    ASSERT_FALSE(lock);
    EXPECT_TRUE(lock.error().isPosix(ELOOP));
    EXPECT_FALSE(fs::exists(folder_.path() / "target"));
}

TEST_F(FileLockTest, LocksAFolderAndNothingElse) {
    auto held = FileLock::acquireFolder(folder_.path(), Mode::Exclusive);
    ASSERT_TRUE(held);
    EXPECT_GE(held->descriptor(), 0);
    held->release();
    EXPECT_TRUE(FileLock::acquireFolder(folder_.path(), Mode::Exclusive));
    EXPECT_TRUE(isFree(path()));
    EXPECT_TRUE(FileLock::acquireFolder(path(), Mode::Shared).error().isPosix(ENOTDIR));
    EXPECT_TRUE(
        FileLock::acquireFolder(folder_.path() / "missing", Mode::Shared).error().isPosix(ENOENT));
}

TEST_F(FileLockTest, WaitsForAFolderForAsLongAsItIsToldAndThenNamesTheHolder) {
    auto held = FileLock::acquireFolder(folder_.path(), Mode::Exclusive, milliseconds(0));
    ASSERT_TRUE(held) << held.error().description;
    const auto busy = FileLock::acquireFolder(folder_.path(), Mode::Shared, milliseconds(1));
    ASSERT_FALSE(busy);
    EXPECT_TRUE(busy.error().is(UtiliaErrorCode::Busy));
    EXPECT_EQ(busy.error().description, "flock " + folder_.path().string() +
                                            ": still held by process " + std::to_string(getpid()) +
                                            " after 1 ms");
    EXPECT_EQ(log_.lines(), std::vector<std::string>());
    held->release();
    EXPECT_TRUE(FileLock::acquireFolder(folder_.path(), Mode::Shared, milliseconds(0)));
    EXPECT_TRUE(FileLock::acquireFolder(folder_.path() / "missing", Mode::Shared, milliseconds(0))
                    .error()
                    .isPosix(ENOENT));
}

TEST_F(FileLockTest, IsNotKeptByAForkedChildThatOutlivesItsParent) {
    auto parent = test::ChildProcess::role("lockThenFork", {path()});
    ASSERT_EQ(parent.waitForLine(), "child lives");
    EXPECT_EQ(parent.waitForExit(), 128 + SIGKILL);
    EXPECT_TRUE(isFree(path()));
    parent.say("end");
}

TEST_F(FileLockTest, ItsObjectInAForkedChildTouchesNoOtherFile) {
    auto held = FileLock::acquire(path(), Mode::Exclusive, milliseconds(0));
    ASSERT_TRUE(held);
    const pid_t child = fork();
    if (child == 0) {
        // The number that the lock had is taken by another file.
        const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
        const bool isReused = other == held->descriptor();
        held->release();
        _exit(isReused && fcntl(other, F_GETFD) >= 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(isFree(path())) << "the child did not unlock for its parent";
}

TEST_F(FileLockTest, LeavesNoDescriptorBehind) {
    const std::size_t before = test::openDescriptors();
    for (int i = 0; i < 10; ++i) {
        const auto held = FileLock::acquire(path(), Mode::Exclusive, milliseconds(0));
        EXPECT_FALSE(isFree(path()));
    }
    EXPECT_EQ(test::openDescriptors(), before);
}

}  // namespace
}  // namespace utilia::platform
