// Long file: the cases share how a log is made and what a collector gets.
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/UtiliaCommon/CEP/EventLogReader.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/EventLog/LogSample.h"
#include "Tests/Unit/EventLog/XmlDocument.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::document;
using test::sampleHeader;
using test::sampleRecord;
using test::writeTo;
using test::XmlDocument;

class EventLogFileTest : public testing::Test {
protected:
    EventLogFile log(std::uint64_t largestSize = EventLogFile::kLargestSize) const {
        return {EventLogFile::Names::inFolder(folder_.path().string()), test::sampleFacts,
                largestSize};
    }
    // With pauses of any length in its bursts, for tests on busy machines.
    EventLogFile keepingLog(std::uint64_t largestSize = EventLogFile::kLargestSize) const {
        return {EventLogFile::Names::inFolder(folder_.path().string()), test::sampleFacts,
                largestSize, std::chrono::hours(1)};
    }
    fs::path current() const { return folder_.path() / "krv.utilia.ceplog.xml"; }
    fs::path more() const { return folder_.path() / "krv.utilia.ceplog-more.xml"; }
    fs::path taken() const { return folder_.path() / "krv.utilia.ceplog-taken.xml"; }
    fs::path legacy() const { return folder_.path() / "ceplog.xml"; }

    static unsigned modeOf(const fs::path& path) {
        return static_cast<unsigned>(fs::status(path).permissions());
    }
    // What the descriptor gives to whoever reads it, and nothing else to anybody.
    static std::string contentOf(const EventLogFile::Grabbed& grabbed) {
        struct stat found {};
        EXPECT_EQ(fstat(grabbed.file.get(), &found), 0);
        EXPECT_EQ(found.st_nlink, 0u);
        EXPECT_EQ(found.st_mode & 07777, 0444u);
        EXPECT_EQ(fcntl(grabbed.file.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
        EXPECT_EQ(fcntl(grabbed.file.get(), F_GETFD), FD_CLOEXEC);
        std::string content(static_cast<std::size_t>(found.st_size), '\0');
        EXPECT_EQ(read(grabbed.file.get(), content.data(), content.size()), found.st_size);
        return content;
    }

    test::TemporaryFolder folder_;
};

// The descriptors of this process that lead there.
std::vector<int> descriptorsOf(const fs::path& path) {
    std::vector<int> found;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::equivalent(entry.path(), path, gone))
            found.push_back(std::stoi(entry.path().filename().string()));
    }
    return found;
}
std::size_t openFilesAt(const fs::path& path) { return descriptorsOf(path).size(); }
int onlyDescriptorOf(const fs::path& path) {
    const std::vector<int> found = descriptorsOf(path);
    return found.size() == 1 ? found.front() : -1;
}

// Until the kernel has a process waiting for the lock on the file.
void waitForSomebodyWhoWaits(int descriptor) {
    struct stat found {};
    ASSERT_EQ(fstat(descriptor, &found), 0);
    const std::string inode = ":" + std::to_string(found.st_ino) + " ";
    for (;;) {
        std::ifstream locks("/proc/locks");
        for (std::string line; std::getline(locks, line);) {
            if (line.find("->") != std::string::npos && line.find(inode) != std::string::npos)
                return;
        }
        std::this_thread::yield();
    }
}

TEST_F(EventLogFileTest, BeginsWithAHeaderAndAppends) {
    const EventLogFile file = log();
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
    EXPECT_EQ(file.append(sampleRecord("a", 2)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(current()),
              sampleHeader() + sampleRecord("a", 1) + sampleRecord("a", 2));
    EXPECT_EQ(modeOf(current()), 0644u);
    EXPECT_FALSE(fs::exists(more()));
}

TEST_F(EventLogFileTest, AppendsToAFileOfExactlyTheLargestSize) {
    const EventLogFile file = log();
    const std::string head = sampleHeader() + sampleRecord("a", 1);
    std::string filled = head + sampleRecord("a", 2, 5'242'880 - head.size());
    const std::size_t difference = filled.size() - 5'242'880;
    filled = head + sampleRecord("a", 2, 5'242'880 - head.size() - difference);
    ASSERT_EQ(filled.size(), 5'242'880u);
    writeTo(current(), filled);
    EXPECT_EQ(file.append(sampleRecord("b", 1)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(current()), filled + sampleRecord("b", 1));
    EXPECT_FALSE(fs::exists(more()));
}

TEST_F(EventLogFileTest, EndsALargerFileAndBeginsAnotherOne) {
    const std::string first = sampleHeader() + sampleRecord("a", 1);
    const EventLogFile file = log(first.size() - 1);
    writeTo(current(), first);
    EXPECT_EQ(file.append(sampleRecord("b", 1)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(more()), document(sampleRecord("a", 1)));
    EXPECT_EQ(modeOf(more()), 0444u);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("b", 1));
    EXPECT_EQ(modeOf(current()), 0644u);
}

TEST_F(EventLogFileTest, ReplacesAnOverflowFileThatNobodyHasCollected) {
    const EventLogFile file = log(1);
    for (int i = 1; i <= 3; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(more()), document(sampleRecord("a", 2)));
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 3));
}

TEST_F(EventLogFileTest, BlanksThePiecesOfAFileThatItEnds) {
    const std::string cut = sampleRecord("cut", 3).substr(0, 150);
    writeTo(current(), sampleHeader() + sampleRecord("a", 1) + cut + sampleRecord("b", 2) + cut);
    EXPECT_EQ(log(1).append(sampleRecord("c", 3)), EventLogCode::Done);
    const std::string blank = std::string(cut.size() - 1, ' ') + "\n";
    EXPECT_EQ(test::contentOf(more()),
              document(sampleRecord("a", 1) + blank + sampleRecord("b", 2) + blank));
    ASSERT_TRUE(XmlDocument::parse(test::contentOf(more())));
    EXPECT_EQ(XmlDocument::parse(test::contentOf(more()))->events().size(), 2u);
}

TEST_F(EventLogFileTest, BeginsAnewWhereItsFileWasEnded) {
    // A writer that waits for the lock of a file that another one ends.
    const EventLogFile file = log();
    writeTo(current(), sampleHeader());
    const int descriptor = open(current().c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(flock(descriptor, LOCK_EX), 0);
    std::thread writer([&] { EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done); });
    waitForSomebodyWhoWaits(descriptor);
    fs::rename(current(), more());
    ASSERT_EQ(fchmod(descriptor, 0444), 0);
    close(descriptor);
    writer.join();
    EXPECT_EQ(test::contentOf(more()), sampleHeader());
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1));
}

// Longer than a writer trusts that its log still has the name.
void waitUntilTheNameIsLookedAt() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }

TEST_F(EventLogFileTest, KeepsItsLogOpenAndUnlocked) {
    const EventLogFile file = keepingLog();
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    EXPECT_EQ(openFilesAt(current()), 1u);
    const int descriptor = open(current().c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(flock(descriptor, LOCK_EX | LOCK_NB), 0);
    close(descriptor);
    waitUntilTheNameIsLookedAt();
    EXPECT_EQ(file.append(sampleRecord("a", 3)), EventLogCode::Done);
    EXPECT_EQ(openFilesAt(current()), 1u);
    EXPECT_EQ(test::contentOf(current()),
              sampleHeader() + sampleRecord("a", 1) + sampleRecord("a", 2) + sampleRecord("a", 3));
}

TEST_F(EventLogFileTest, LeavesALogThatIsRemovedOrReplaced) {
    const EventLogFile file = keepingLog();
    const auto keepOne = [&] {
        fs::remove_all(current());
        for (int i = 1; i <= 2; ++i)
            EXPECT_EQ(file.append(sampleRecord("kept", i)), EventLogCode::Done);
        EXPECT_EQ(openFilesAt(current()), 1u);
    };
    keepOne();
    fs::remove(current());
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1));

    keepOne();
    writeTo(legacy(), sampleHeader());
    fs::rename(legacy(), current());
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1));

    keepOne();
    fs::remove(current());
    fs::create_directory(current());
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::LogNotReady);

    keepOne();
    fs::remove(current());
    fs::create_symlink(more(), current());
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::LogNotReady);
}

TEST_F(EventLogFileTest, LeavesALogThatHasAnotherNameByNow) {
    const EventLogFile file = keepingLog();
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    fs::rename(current(), legacy());
    const std::string before = test::contentOf(legacy());
    waitUntilTheNameIsLookedAt();
    EXPECT_EQ(file.append(sampleRecord("a", 3)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(legacy()), before);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 3));
}

TEST_F(EventLogFileTest, LeavesALogThatAnotherWriterEndsOrACollectorTakes) {
    const EventLogFile file = keepingLog();
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    EXPECT_EQ(log(1).append(sampleRecord("b", 1)), EventLogCode::Done);
    EXPECT_EQ(file.append(sampleRecord("a", 3)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(current()),
              sampleHeader() + sampleRecord("b", 1) + sampleRecord("a", 3));
    EXPECT_EQ(contentOf(log().grab()), document(sampleRecord("a", 1) + sampleRecord("a", 2)));
    EXPECT_EQ(contentOf(log().grab()), document(sampleRecord("b", 1) + sampleRecord("a", 3)));
    EXPECT_EQ(file.append(sampleRecord("a", 4)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 4));
}

TEST_F(EventLogFileTest, DoesNotWaitForACollectorThatReadsTheLogThatItKeeps) {
    const EventLogFile file = keepingLog();
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    // Which has its lock as long as it is open.
    const auto grabbed = log().grab();
    ASSERT_EQ(grabbed.code, EventLogCode::Done);
    EXPECT_EQ(file.append(sampleRecord("a", 3)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 3));
    EXPECT_EQ(contentOf(grabbed), document(sampleRecord("a", 1) + sampleRecord("a", 2)));
}

TEST_F(EventLogFileTest, RefusesTheLogThatItKeepsOnceNobodyMayWriteIt) {
    const EventLogFile file = keepingLog();
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    fs::permissions(current(), fs::perms(0444));
    EXPECT_EQ(file.append(sampleRecord("a", 3)), EventLogCode::LogNotReady);
    fs::permissions(current(), fs::perms(0644));
    EXPECT_EQ(file.append(sampleRecord("a", 4)), EventLogCode::Done);
}

// A program's own file that has the number of the log which is kept, as in programs that close every
// descriptor; locked by the program.
class FileInItsPlace {
public:
    FileInItsPlace(fs::path path, const fs::path& log)
        : path_(std::move(path)), number_(onlyDescriptorOf(log)) {
        const int other = open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        EXPECT_EQ(dup3(other, number_, O_CLOEXEC), number_);
        close(other);
        EXPECT_EQ(flock(number_, LOCK_EX), 0);
    }
    ~FileInItsPlace() {
        if (isOpen()) close(number_);
    }
    FileInItsPlace(const FileInItsPlace&) = delete;
    FileInItsPlace& operator=(const FileInItsPlace&) = delete;

    bool isOpen() const { return onlyDescriptorOf(path_) == number_; }
    void expectUntouched() const {
        ASSERT_TRUE(isOpen());
        EXPECT_EQ(fs::file_size(path_), 0u);
        const int other = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_NE(flock(other, LOCK_SH | LOCK_NB), 0) << "the program's lock is gone";
        close(other);
        EXPECT_EQ(write(number_, "x", 1), 1);
        EXPECT_EQ(ftruncate(number_, 0), 0);
    }

private:
    const fs::path path_;
    const int number_;
};

TEST_F(EventLogFileTest, LeavesAloneWhatHasGotTheNumberOfItsLog) {
    struct Use {
        const char* name;
        std::chrono::milliseconds burst;
        std::function<void(std::unique_ptr<EventLogFile>& file)> does;
    };
    const auto record = [](const auto& file) {
        EXPECT_EQ(file->append(sampleRecord("a", 3)), EventLogCode::Done);
    };
    const std::chrono::seconds kShort(2);
    const std::chrono::hours kLong(1);
    for (const auto& [name, burst, use] : std::initializer_list<Use>{
             {"a record", kLong, record},
             {"a record that looks at the name", kLong,
              [&](const auto& file) {
                  waitUntilTheNameIsLookedAt();
                  record(file);
              }},
             {"a record after a pause", kShort,
              [&](const auto& file) {
                  std::this_thread::sleep_for(kShort);
                  record(file);
              }},
             {"being told to close", kLong, [](const auto& file) { file->closeKept(); }},
             {"collecting", kLong,
              [](const auto& file) { EXPECT_EQ(file->grab().code, EventLogCode::Done); }},
             {"its end", kLong, [](auto& file) { file.reset(); }}}) {
        SCOPED_TRACE(name);
        fs::remove(current());
        auto file =
            std::make_unique<EventLogFile>(EventLogFile::Names::inFolder(folder_.path().string()),
                                           test::sampleFacts, EventLogFile::kLargestSize, burst);
        // Until two of them were one burst.
        for (int i = 1; i <= 2 || (openFilesAt(current()) == 0 && i < 100); ++i)
            EXPECT_EQ(file->append(sampleRecord("a", i)), EventLogCode::Done);
        const FileInItsPlace document(folder_.path() / "document", current());
        use(file);
        document.expectUntouched();
    }
}

TEST_F(EventLogFileTest, WritesToNoOtherFileThatHasGotTheNumberOfItsLog) {
    const EventLogFile file = keepingLog();
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    const FileInItsPlace document(folder_.path() / "document", current());
    for (int i = 3; i <= 4; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    EXPECT_EQ(openFilesAt(current()), 1u) << "and keeps it under another number";
    document.expectUntouched();
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1) +
                                              sampleRecord("a", 2) + sampleRecord("a", 3) +
                                              sampleRecord("a", 4));
}

TEST_F(EventLogFileTest, LeavesAloneInAForkedChildWhatHasGotTheNumberOfItsLog) {
    const EventLogFile file = keepingLog();
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    const FileInItsPlace document(folder_.path() / "document", current());
    const auto isOpenInAChild = [&] {
        const pid_t child = fork();
        if (child == 0) _exit(document.isOpen() ? 0 : 1);
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status == 0;
    };
    EXPECT_TRUE(isOpenInAChild());
    EXPECT_EQ(file.append(sampleRecord("a", 3)), EventLogCode::Done);
    EXPECT_TRUE(isOpenInAChild()) << "after the log has noticed";
}

TEST_F(EventLogFileTest, OpensItsLogAgainWhenItsNumberIsClosed) {
    const EventLogFile file = keepingLog();
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    EXPECT_EQ(close(onlyDescriptorOf(current())), 0);
    for (int i = 3; i <= 4; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    EXPECT_EQ(openFilesAt(current()), 1u);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1) +
                                              sampleRecord("a", 2) + sampleRecord("a", 3) +
                                              sampleRecord("a", 4));
}

TEST_F(EventLogFileTest, ClosesTheLogThatItKeepsWhenItIsToldToAndWhenItCollects) {
    const EventLogFile file = keepingLog();
    const auto keepOne = [&] {
        for (int i = 1; i <= 2; ++i)
            EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
        EXPECT_EQ(openFilesAt(current()), 1u);
    };
    keepOne();
    file.closeKept();
    EXPECT_EQ(openFilesAt(current()), 0u);
    keepOne();
    const fs::path link = folder_.path() / "link";
    fs::create_hard_link(current(), link);
    EXPECT_EQ(file.grab().code, EventLogCode::Done);
    EXPECT_EQ(openFilesAt(link), 0u);
}

// Or its room on the disk would not be free when it is collected.
TEST_F(EventLogFileTest, KeepsNoLogOpenInPauses) {
    const EventLogFile file = log();
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
        EXPECT_EQ(openFilesAt(current()), 0u);
        std::this_thread::sleep_for(2 * EventLogFile::kBurst);
    }
}

// Where names cannot be exchanged in one step, a collector can be killed between two.
TEST_F(EventLogFileTest, TakesALogThatHasTwoNamesOnce) {
    EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::Done);
    fs::create_hard_link(current(), taken());
    EXPECT_EQ(contentOf(log().grab()), document(sampleRecord("a", 1)));
    EXPECT_TRUE(fs::is_empty(folder_.path()));
    EXPECT_EQ(log().append(sampleRecord("a", 2)), EventLogCode::Done);
    EXPECT_EQ(contentOf(log().grab()), document(sampleRecord("a", 2)));
}

TEST_F(EventLogFileTest, TakesAnOverflowThatHasTwoNamesOnce) {
    const EventLogFile file = log(1);
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    fs::create_hard_link(more(), taken());
    const std::vector<std::string> expected = {document(sampleRecord("a", 1)),
                                               document(sampleRecord("a", 2))};
    EXPECT_EQ(file.documents(), expected);
    EXPECT_EQ(contentOf(file.grab()), expected[0]);
    EXPECT_FALSE(fs::exists(more()));
    EXPECT_FALSE(fs::exists(taken()));
    EXPECT_EQ(contentOf(file.grab()), expected[1]);
    EXPECT_EQ(file.grab().code, EventLogCode::NothingToGrab);
    EXPECT_TRUE(fs::is_empty(folder_.path()));
}

TEST_F(EventLogFileTest, EndsTheLogThatItKeeps) {
    const EventLogFile file =
        keepingLog(sampleHeader().size() + 2 * sampleRecord("a", 1).size() - 1);
    for (int i = 1; i <= 3; ++i) EXPECT_EQ(file.append(sampleRecord("a", i)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(more()), document(sampleRecord("a", 1) + sampleRecord("a", 2)));
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 3));
}

TEST_F(EventLogFileTest, DoesNotShareTheLogThatItKeepsWithAForkedChild) {
    EventLogFile* const file =
        new EventLogFile(EventLogFile::Names::inFolder(folder_.path().string()), test::sampleFacts,
                         EventLogFile::kLargestSize, std::chrono::hours(1));
    for (int i = 1; i <= 2; ++i) EXPECT_EQ(file->append(sampleRecord("a", i)), EventLogCode::Done);
    const int descriptor = open(current().c_str(), O_RDONLY | O_CLOEXEC);
    const pid_t child = fork();
    if (child == 0) {
        // The kept file's number is another file's here, which must stay open.
        const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
        const bool isAppended = file->append(sampleRecord("child", 1)) == EventLogCode::Done;
        delete file;
        _exit(isAppended && fcntl(other, F_GETFD) >= 0 ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(file->append(sampleRecord("a", 3)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1) +
                                              sampleRecord("a", 2) + sampleRecord("child", 1) +
                                              sampleRecord("a", 3));
    delete file;
    EXPECT_EQ(flock(descriptor, LOCK_EX | LOCK_NB), 0);
    close(descriptor);
    EXPECT_EQ(openFilesAt(current()), 0u);
}

TEST_F(EventLogFileTest, AppendsFromManyThreadsThroughOneObject) {
    constexpr int kThreads = 8;
    constexpr int kRecords = 500;
    const EventLogFile file = keepingLog();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&file, thread] {
            const std::string name = "t" + std::to_string(thread);
            for (int i = 1; i <= kRecords; ++i)
                EXPECT_EQ(file.append(sampleRecord(name, i)), EventLogCode::Done);
        });
    }
    for (std::thread& thread : threads) thread.join();
    const auto parsed =
        XmlDocument::parse(test::contentOf(current()) + std::string(kEventLogFooter));
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->events().size(), static_cast<std::size_t>(kThreads * kRecords));
    EXPECT_EQ(openFilesAt(current()), 1u);
}

TEST_F(EventLogFileTest, HasNothingToGrabWithoutLog) {
    const auto grabbed = log().grab();
    EXPECT_EQ(grabbed.code, EventLogCode::NothingToGrab);
    EXPECT_FALSE(grabbed.isMore);
}

TEST_F(EventLogFileTest, GrabsTheCurrentLog) {
    const EventLogFile file = log();
    file.append(sampleRecord("a", 1));
    const auto grabbed = file.grab();
    ASSERT_EQ(grabbed.code, EventLogCode::Done);
    EXPECT_FALSE(grabbed.isMore);
    EXPECT_EQ(contentOf(grabbed), document(sampleRecord("a", 1)));
    EXPECT_TRUE(fs::is_empty(folder_.path()));
    EXPECT_EQ(file.grab().code, EventLogCode::NothingToGrab);
}

TEST_F(EventLogFileTest, GrabsTheOverflowFirst) {
    const EventLogFile file = log(1);
    file.append(sampleRecord("a", 1));
    file.append(sampleRecord("a", 2));
    const auto first = file.grab();
    ASSERT_EQ(first.code, EventLogCode::Done);
    EXPECT_TRUE(first.isMore);
    EXPECT_EQ(contentOf(first), document(sampleRecord("a", 1)));
    const auto second = file.grab();
    ASSERT_EQ(second.code, EventLogCode::Done);
    EXPECT_FALSE(second.isMore);
    EXPECT_EQ(contentOf(second), document(sampleRecord("a", 2)));
}

TEST_F(EventLogFileTest, GrabsALogOfTheOldNameBeforeTheCurrentOne) {
    const EventLogFile file = log();
    file.append(sampleRecord("a", 1));
    writeTo(legacy(), sampleHeader() + sampleRecord("old", 1));
    const auto first = file.grab();
    ASSERT_EQ(first.code, EventLogCode::Done);
    EXPECT_FALSE(first.isMore);
    EXPECT_EQ(contentOf(first), document(sampleRecord("old", 1)));
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1));
    EXPECT_EQ(contentOf(file.grab()), document(sampleRecord("a", 1)));
}

TEST_F(EventLogFileTest, GrabsAForeignFileOfTheOldNameAsItIs) {
    writeTo(legacy(), "<?xml version=\"1.0\"?><old>\n");
    EXPECT_EQ(contentOf(log().grab()),
              "<?xml version=\"1.0\"?><old>\n" + std::string(kEventLogFooter));
}

TEST_F(EventLogFileTest, HandsOverAWholeDocumentWhateverWasLeftUnfinished) {
    const std::string header = sampleHeader();
    const std::string a = sampleRecord("a", 1);
    const std::string b = sampleRecord("b", 2);
    const std::string footer(kEventLogFooter);
    const std::string cut = sampleRecord("cut", 3).substr(0, 177);
    const std::string blank = std::string(50, ' ') + "\n";
    for (const auto& [name, content] : std::initializer_list<std::pair<const char*, std::string>>{
             {"no footer", header + a + b},
             {"half a footer", header + a + b + footer.substr(0, 25)},
             {"records after the footer", header + a + footer + b},
             {"two footers", header + a + footer + b + footer},
             {"a piece", header + a + cut + b + footer},
             {"a piece at the end", header + a + b + cut},
             {"blanks", header + a + blank + b + footer},
             {"no header", a + b},
             {"half a header", header.substr(0, 200) + a + b},
             {"zeros", header + a + std::string(5000, '\0') + b}}) {
        for (const fs::path& place : {current(), more(), taken(), legacy()}) {
            SCOPED_TRACE(std::string(name) + " in " + place.string());
            writeTo(place, content);
            const auto grabbed = log().grab();
            ASSERT_EQ(grabbed.code, EventLogCode::Done);
            const std::string text = contentOf(grabbed);
            // A file of the old name whose header is not known is not touched.
            if (place == legacy() && !content.starts_with(header)) continue;
            EXPECT_EQ(text, document(a + b));
            EXPECT_TRUE(fs::is_empty(folder_.path()));
        }
    }
}

TEST_F(EventLogFileTest, MakesADocumentOfWhatALogOfOursIsCutTo) {
    const std::string header = sampleHeader();
    const std::string cut = sampleRecord("cut", 1).substr(0, 90);
    std::vector<std::string> contents = {"",       cut, "<", "<event", "<event timestamp=\"2026",
                                         cut + cut};
    for (std::size_t size = 1; size < header.size(); size += 7)
        contents.push_back(header.substr(0, size));
    for (const std::string& content : contents) {
        for (const fs::path& place : {current(), more(), taken()}) {
            SCOPED_TRACE(content);
            writeTo(place, content);
            EXPECT_EQ(contentOf(log().grab()), document(""));
        }
    }
}

TEST_F(EventLogFileTest, CollectsWhatIsThereBesideManyZeros) {
    writeTo(more(), sampleHeader() + sampleRecord("a", 1));
    fs::resize_file(more(), std::uintmax_t{200} << 20);
    std::ofstream(more(), std::ios::app) << sampleRecord("b", 2);
    EXPECT_EQ(contentOf(log().grab()), document(sampleRecord("a", 1) + sampleRecord("b", 2)));
}

TEST_F(EventLogFileTest, ShowsWhatWouldBeGrabbedAndTakesNothing) {
    const EventLogFile file = log(1);
    EXPECT_TRUE(file.documents().empty());
    file.append(sampleRecord("a", 1));
    file.append(sampleRecord("a", 2));
    const std::vector<std::string> expected = {document(sampleRecord("a", 1)),
                                               document(sampleRecord("a", 2))};
    EXPECT_EQ(file.documents(), expected);
    EXPECT_EQ(file.documents(), expected);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 2));
    EXPECT_EQ(contentOf(file.grab()), expected[0]);
    EXPECT_EQ(contentOf(file.grab()), expected[1]);
}

TEST_F(EventLogFileTest, ShowsEachRecordOnceThoughTheLogIsEndedMeanwhile) {
    const EventLogFile file = log();
    writeTo(current(), sampleHeader() + sampleRecord("a", 1));
    const int descriptor = open(current().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_EQ(flock(descriptor, LOCK_EX), 0);
    std::vector<std::string> shown;
    std::thread reader([&] { shown = file.documents(); });
    waitForSomebodyWhoWaits(descriptor);
    fs::rename(current(), more());
    ASSERT_EQ(write(descriptor, kEventLogFooter.data(), kEventLogFooter.size()),
              static_cast<ssize_t>(kEventLogFooter.size()));
    ASSERT_EQ(fchmod(descriptor, 0444), 0);
    writeTo(current(), sampleHeader() + sampleRecord("b", 2));
    close(descriptor);
    reader.join();
    const std::vector<std::string> expected = {document(sampleRecord("a", 1)),
                                               document(sampleRecord("b", 2))};
    EXPECT_EQ(shown, expected);
}

TEST_F(EventLogFileTest, KeepsAForeignFileWhoeverIsKilled) {
    const std::string foreign = "<?xml version=\"1.0\"?><old>";
    const std::string footer(kEventLogFooter);
    for (const std::string& left : {foreign, foreign + footer.substr(0, 7), foreign + footer}) {
        writeTo(taken(), left);
        const auto shown = log().documents();
        const auto grabbed = log().grab();
        ASSERT_EQ(grabbed.code, EventLogCode::Done);
        const std::string text = contentOf(grabbed);
        EXPECT_TRUE(text.starts_with(foreign) && text.ends_with(footer)) << text;
        EXPECT_EQ(shown, std::vector<std::string>{text});
    }
    writeTo(legacy(), foreign);
    const auto shown = log().documents();
    EXPECT_EQ(shown, std::vector<std::string>{contentOf(log().grab())});
}

TEST_F(EventLogFileTest, SaysHowMuchItLeavesOut) {
    const test::TestLog lines;
    writeTo(more(), sampleHeader() + "junk" + std::string(kEventLogFooter));
    EXPECT_EQ(contentOf(log().grab()), document(""));
    writeTo(current(), sampleHeader() + std::string(7, '\0'));
    EXPECT_EQ(log(1).append(sampleRecord("a", 1)), EventLogCode::Done);
    const std::vector<std::string> expected = {
        more().string() + ": 4 bytes that are no whole event are left out",
        more().string() + ": 7 bytes that are no whole event are left out"};
    EXPECT_EQ(lines.lines(), expected);
}

TEST_F(EventLogFileTest, RefusesARecordThatNoReaderWouldAccept) {
    EXPECT_EQ(log().append(std::string(kLongestRecord + 1, 'x')), EventLogCode::RecordNotWritten);
    EXPECT_FALSE(fs::exists(current()));
}

TEST_F(EventLogFileTest, KeepsAHugeRecord) {
    const EventLogFile file = log();
    const std::string huge = sampleRecord("huge", 1, std::size_t{20} << 20);
    EXPECT_EQ(file.append(huge), EventLogCode::Done);
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
    EXPECT_TRUE(contentOf(file.grab()) == document(huge));
    EXPECT_EQ(contentOf(file.grab()), document(sampleRecord("a", 1)));
}

TEST_F(EventLogFileTest, TakesFirstWhatAKilledCollectorHasLeft) {
    const EventLogFile file = log();
    writeTo(taken(), document(sampleRecord("left", 1)));
    file.append(sampleRecord("a", 1));
    const auto first = file.grab();
    EXPECT_TRUE(first.isMore);
    EXPECT_EQ(contentOf(first), document(sampleRecord("left", 1)));
    EXPECT_EQ(contentOf(file.grab()), document(sampleRecord("a", 1)));
}

TEST_F(EventLogFileTest, LosesNoRecordToAWriterWhoWaitedWhileItsCollectorWasKilled) {
    // The collector has renamed the log and died; a writer that had it open appends now.
    const EventLogFile file = log();
    file.append(sampleRecord("a", 1));
    fs::rename(current(), taken());
    std::ofstream(taken(), std::ios::app) << sampleRecord("late", 1);
    EXPECT_EQ(contentOf(file.grab()), document(sampleRecord("a", 1) + sampleRecord("late", 1)));
}

TEST_F(EventLogFileTest, KeepsAFileThatItCannotMendNow) {
    const EventLogFile file = log();
    fs::create_directory(more());
    file.append(sampleRecord("a", 1));
    EXPECT_EQ(file.grab().code, EventLogCode::OverflowNotReadable);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1));
}

// What may lie in a file's place, and the answers of writer and collector.
struct Obstacle {
    const char* name;
    void (*make)(const fs::path& place);
};

const Obstacle kObstacles[] = {
    {"a folder", [](const fs::path& place) { fs::create_directory(place); }},
    {"a full folder",
     [](const fs::path& place) {
         fs::create_directory(place);
         writeTo(place / "file", "x");
     }},
    {"a pipe", [](const fs::path& place) { ASSERT_EQ(mkfifo(place.c_str(), 0644), 0); }},
    {"a link to a file",
     [](const fs::path& place) {
         writeTo(place.string() + ".canary", "canary");
         fs::create_symlink(place.string() + ".canary", place);
     }},
    {"a link to nothing",
     [](const fs::path& place) { fs::create_symlink("/nowhere/at/all", place); }},
    {"a link to itself", [](const fs::path& place) { fs::create_symlink(place, place); }},
};

void expectCanaryUnharmed(const fs::path& place) {
    const std::string canary = place.string() + ".canary";
    if (!fs::exists(canary)) return;
    EXPECT_EQ(test::contentOf(canary), "canary");
    fs::remove(canary);
}

TEST_F(EventLogFileTest, RefusesWhatIsNoFileInTheLogsPlace) {
    for (const Obstacle& obstacle : kObstacles) {
        SCOPED_TRACE(obstacle.name);
        obstacle.make(current());
        EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::LogNotReady);
        const auto grabbed = log().grab();
        EXPECT_EQ(grabbed.code, EventLogCode::LogNotOpened);
        EXPECT_FALSE(grabbed.isMore);
        EXPECT_TRUE(log().documents().empty());
        expectCanaryUnharmed(current());
        fs::remove_all(current());
    }
}

TEST_F(EventLogFileTest, RefusesAPipeThatSomebodyReads) {
    ASSERT_EQ(mkfifo(current().c_str(), 0644), 0);
    const int reader = open(current().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::LogNotReady);
    EXPECT_EQ(log().grab().code, EventLogCode::LogNotExamined);
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 0);
    close(reader);
}

TEST_F(EventLogFileTest, RefusesWhatIsNoFileInTheOverflowsPlace) {
    for (const Obstacle& obstacle : kObstacles) {
        for (const fs::path& place : {more(), taken()}) {
            SCOPED_TRACE(std::string(obstacle.name) + " at " + place.string());
            obstacle.make(place);
            EXPECT_EQ(log().grab().code, EventLogCode::OverflowNotReadable);
            EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::Done);
            expectCanaryUnharmed(place);
            fs::remove_all(place);
            fs::remove(current());
        }
    }
}

TEST_F(EventLogFileTest, ReplacesALinkWithTheOverflowAndNotWhatItLeadsTo) {
    kObstacles[3].make(more());
    const EventLogFile file = log(1);
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
    EXPECT_EQ(file.append(sampleRecord("a", 2)), EventLogCode::Done);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(more())));
    EXPECT_EQ(test::contentOf(more().string() + ".canary"), "canary");
}

TEST_F(EventLogFileTest, CannotRotateOntoAFolder) {
    fs::create_directory(more());
    const EventLogFile file = log(1);
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
    EXPECT_EQ(file.append(sampleRecord("a", 2)), EventLogCode::LogNotReady);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1));
}

TEST_F(EventLogFileTest, RefusesALogThatNobodyHasEndedAndNobodyMayWrite) {
    writeTo(current(), sampleHeader());
    fs::permissions(current(), fs::perms(0444));
    EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::LogNotReady);
    EXPECT_EQ(test::contentOf(current()), sampleHeader());
}

TEST_F(EventLogFileTest, RefusesAnotherUsersFile) {
    ASSERT_EQ(geteuid(), 0u) << "only root can make one";
    writeTo(current(), sampleHeader());
    ASSERT_EQ(chown(current().c_str(), 65534, 65534), 0);
    EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::LogNotReady);
    EXPECT_EQ(log().grab().code, EventLogCode::LogNotExamined);
    fs::rename(current(), more());
    EXPECT_EQ(log().grab().code, EventLogCode::OverflowNotReadable);
    EXPECT_EQ(test::contentOf(more()), sampleHeader());
}

TEST_F(EventLogFileTest, IsRefusedWithoutItsFolder) {
    const EventLogFile file(EventLogFile::Names::inFolder((folder_.path() / "none").string()),
                            test::sampleFacts);
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::LogNotReady);
    EXPECT_EQ(file.grab().code, EventLogCode::NothingToGrab);
    writeTo(folder_.path() / "none", "a file");
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::LogNotReady);
    EXPECT_EQ(file.grab().code, EventLogCode::OverflowNotReadable);
}

TEST_F(EventLogFileTest, HasAnEmptyFileForALogWithoutHeader) {
    writeTo(current(), "");
    EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::Done);
    EXPECT_EQ(test::contentOf(current()), sampleRecord("a", 1));
    EXPECT_EQ(contentOf(log().grab()), document(sampleRecord("a", 1)));
}

TEST_F(EventLogFileTest, HasTheSameNamesEverywhere) {
    const auto names = EventLogFile::Names::inFolder("/L/Logs");
    EXPECT_EQ(names.CEPLogName, "/L/Logs/krv.utilia.ceplog.xml");
    EXPECT_EQ(names.CEPLogNameOld, "/L/Logs/ceplog.xml");
    EXPECT_EQ(names.CEPLogMoreName, "/L/Logs/krv.utilia.ceplog-more.xml");
    EXPECT_EQ(names.CEPLogTakenName, "/L/Logs/krv.utilia.ceplog-taken.xml");
}

}  // namespace
}  // namespace utilia
