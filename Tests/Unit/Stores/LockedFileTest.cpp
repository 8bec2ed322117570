#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/LockedFile.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::platform {
namespace {

namespace fs = std::filesystem;
using Access = LockedFile::Access;
using Lock = LockedFile::Lock;

class LockedFileTest : public testing::Test {
protected:
    std::string path() const { return (folder_.path() / "file").string(); }
    // Whether somebody else would get the lock now.
    bool isFree(int operation) const {
        const int descriptor = open(path().c_str(), O_RDONLY | O_CLOEXEC);
        const bool isFree = flock(descriptor, operation | LOCK_NB) == 0;
        close(descriptor);
        return isFree;
    }
    std::string content() const {
        std::ifstream file(path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    test::TemporaryFolder folder_;
};

TEST_F(LockedFileTest, IsLockedAsLongAsItIsOpen) {
    std::ofstream(path()) << "text";
    {
        const auto file = LockedFile::open(path(), Access::Append, Lock::Shared);
        ASSERT_TRUE(file);
        EXPECT_TRUE(isFree(LOCK_SH));
        EXPECT_FALSE(isFree(LOCK_EX));
    }
    EXPECT_TRUE(isFree(LOCK_EX));
    auto file = LockedFile::open(path(), Access::Read, Lock::Exclusive);
    EXPECT_FALSE(isFree(LOCK_SH));
    const UniqueFd descriptor = file->takeDescriptor();
    EXPECT_FALSE(isFree(LOCK_SH));
}

TEST_F(LockedFileTest, AppearsWithItsContentAndItsLock) {
    const std::string_view pieces[] = {"first ", "", "second"};
    {
        auto file = LockedFile::create(path(), 0644, pieces);
        ASSERT_TRUE(file);
        EXPECT_FALSE(isFree(LOCK_SH));
        EXPECT_EQ(content(), "first second");
        EXPECT_TRUE(file->append(" third"));
    }
    EXPECT_TRUE(isFree(LOCK_EX));
    EXPECT_EQ(content(), "first second third");
    EXPECT_TRUE(LockedFile::create(path(), 0644, pieces).error().isPosix(EEXIST));
    EXPECT_EQ(content(), "first second third");
}

TEST_F(LockedFileTest, IsNotKeptByAForkedChild) {
    std::ofstream(path()) << "text";
    auto file = LockedFile::open(path(), Access::Append, Lock::Exclusive);
    ASSERT_TRUE(file);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    int lifeSign[2];
    ASSERT_EQ(pipe(lifeSign), 0);
    const pid_t child = fork();
    char byte = 0;
    if (child == 0) {
        close(ends[1]);
        if (write(lifeSign[1], "!", 1) != 1) _exit(2);
        _exit(static_cast<int>(read(ends[0], &byte, 1)));
    }
    close(ends[0]);
    // Its copy ends with its first steps.
    ASSERT_EQ(read(lifeSign[0], &byte, 1), 1);
    close(lifeSign[0]);
    close(lifeSign[1]);
    file = LockedFile::open("/nowhere", Access::Read, Lock::Shared);
    EXPECT_TRUE(isFree(LOCK_EX)) << "although the child lives";
    close(ends[1]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(LockedFileTest, IsUnlockedAndLockedAgainWhileItIsOpen) {
    std::ofstream(path()) << "text";
    auto file = LockedFile::open(path(), Access::Append, Lock::Exclusive);
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->isOfThisProcess());
    EXPECT_TRUE(file->unlock());
    EXPECT_TRUE(isFree(LOCK_EX));
    EXPECT_TRUE(file->lock(Lock::Shared));
    EXPECT_TRUE(isFree(LOCK_SH));
    EXPECT_FALSE(isFree(LOCK_EX));
    EXPECT_TRUE(file->lock(Lock::Exclusive));
    EXPECT_FALSE(isFree(LOCK_SH));
}

TEST_F(LockedFileTest, IsLockedWithoutWaitingOrNot) {
    std::ofstream(path()) << "text";
    auto file = LockedFile::open(path(), Access::Append, Lock::Shared);
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->unlock());
    {
        const auto other = LockedFile::open(path(), Access::Append, Lock::Exclusive);
        const auto isLocked = file->tryLock(Lock::Shared);
        ASSERT_TRUE(isLocked);
        EXPECT_FALSE(*isLocked);
    }
    const auto isLocked = file->tryLock(Lock::Shared);
    ASSERT_TRUE(isLocked);
    EXPECT_TRUE(*isLocked);
    EXPECT_FALSE(isFree(LOCK_EX));
}

TEST_F(LockedFileTest, IsNeverAStandardStream) {
    std::ofstream(path()) << "text";
    const std::string other = path() + "-other";
    const pid_t child = fork();
    if (child == 0) {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        auto file = LockedFile::open(path(), Access::Append, Lock::Exclusive);
        const std::string_view pieces[] = {"header "};
        auto made = LockedFile::create(other, 0644, pieces);
        const bool isPrinted = write(STDOUT_FILENO, "printed", 7) == 7;
        const bool isAppended = file && made && file->append("!") && made->append("record");
        _exit(isAppended && !isPrinted ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(content(), "text!");
    std::ifstream made(other);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(made), {}), "header record");
}

TEST_F(LockedFileTest, TellsItsStateAsItIs) {
    std::ofstream(path()) << "text";
    auto file = LockedFile::open(path(), Access::Append, Lock::Shared);
    ASSERT_TRUE(file);
    const auto before = file->status();
    ASSERT_TRUE(before);
    EXPECT_EQ(before->size, 4u);
    EXPECT_EQ(before->links, 1u);
    EXPECT_EQ(before->owner, geteuid());
    EXPECT_TRUE(before->isOwnerWritable);
    EXPECT_TRUE(file->append("!"));
    EXPECT_TRUE(file->makeReadOnly());
    fs::remove(path());
    const auto after = file->status();
    ASSERT_TRUE(after);
    EXPECT_TRUE(after->isSameFileAs(*before));
    EXPECT_EQ(after->size, 5u);
    EXPECT_EQ(after->links, 0u);
    EXPECT_FALSE(after->isOwnerWritable);
    std::ofstream(path()) << "other";
    EXPECT_FALSE(
        LockedFile::open(path(), Access::Read, Lock::Shared)->status()->isSameFileAs(*before));
}

TEST_F(LockedFileTest, OverwritesInPlaceAndGoesOnAppending) {
    const std::string_view pieces[] = {"0123456789"};
    auto file = LockedFile::create(path(), 0644, pieces);
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->overwrite(3, "abc"));
    EXPECT_TRUE(file->append("+"));
    EXPECT_EQ(content(), "012abc6789+");
    char buffer[64];
    for (int i = 0; i < 2; ++i) {
        const auto size = file->read(buffer);
        ASSERT_TRUE(size);
        EXPECT_EQ(std::string(buffer, *size), "012abc6789+");
        EXPECT_TRUE(file->rewind());
    }
    EXPECT_TRUE(file->makeReadOnly());
    EXPECT_FALSE(file->status()->isOwnerWritable);
    EXPECT_EQ(file->status()->size, 11u);
}

TEST_F(LockedFileTest, KnowsWhetherANameIsStillItsOwn) {
    std::ofstream(path()) << "text";
    auto file = LockedFile::open(path(), Access::Read, Lock::Shared);
    EXPECT_TRUE(*file->isAtPath(path()));
    const std::string moved = path() + ".moved";
    EXPECT_TRUE(LockedFile::renameUnlessTaken(path(), moved));
    EXPECT_FALSE(*file->isAtPath(path()));
    EXPECT_TRUE(*file->isAtPath(moved));
    std::ofstream(path()) << "other";
    EXPECT_FALSE(*file->isAtPath(path()));
    EXPECT_TRUE(LockedFile::renameUnlessTaken(path(), moved).error().isPosix(EEXIST));
    EXPECT_TRUE(LockedFile::rename(path(), moved));
    EXPECT_FALSE(*file->isAtPath(moved));
    EXPECT_TRUE(LockedFile::removeName(moved));
    EXPECT_TRUE(LockedFile::removeName(moved).error().isPosix(ENOENT));
}

TEST_F(LockedFileTest, TellsWhatIsNoPlainFile) {
    EXPECT_TRUE(LockedFile::open(path(), Access::Read, Lock::Shared).error().isPosix(ENOENT));
    fs::create_directory(path());
    EXPECT_TRUE(LockedFile::open(path(), Access::Append, Lock::Shared).error().isPosix(EISDIR));
    EXPECT_TRUE(
        LockedFile::open(path(), Access::Read, Lock::Shared)->status().error().isPosix(EISDIR));
    fs::remove(path());
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_TRUE(LockedFile::open(path(), Access::Append, Lock::Shared).error().isPosix(ENXIO));
    EXPECT_TRUE(LockedFile::openOrCreate(path(), 0644).error().isPosix(EACCES));
    fs::remove(path());
    fs::create_symlink("/nowhere", path());
    EXPECT_TRUE(LockedFile::open(path(), Access::Read, Lock::Shared).error().isPosix(ELOOP));
    EXPECT_TRUE(LockedFile::openOrCreate(path(), 0644).error().isPosix(ELOOP));
    const std::string_view pieces[] = {"x"};
    EXPECT_TRUE(LockedFile::create(path(), 0644, pieces).error().isPosix(EEXIST));
}

TEST_F(LockedFileTest, HasAFileWithoutNameForReading) {
    auto file = LockedFile::createNameless("content");
    ASSERT_TRUE(file);
    char buffer[64];
    EXPECT_EQ(std::string(buffer, *file->read(buffer)), "content");
    EXPECT_FALSE(file->append("x"));
    EXPECT_FALSE(file->status()->isOwnerWritable);
}

}  // namespace
}  // namespace utilia::platform
