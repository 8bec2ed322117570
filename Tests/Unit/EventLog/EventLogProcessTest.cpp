// Long file: the cases share how records are found again and how children are watched.
#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <thread>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/LockedFile.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/EventLog/LogProcesses.h"
#include "Tests/Unit/EventLog/LogSample.h"

// Processes that share a log. Each record has its writer's name and a number; where they are found
// afterwards is compared with what the writers were told.

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::contentOf;
using test::Found;
using test::sampleRecord;
using test::shared;
using test::statusOf;

void countRecords(std::string content, bool isEnded, Found& found) {
    ASSERT_EQ(test::addRecords(std::move(content), isEnded, found), "");
}

// A forked child that dies with the test.
template <class Body>
pid_t inChild(Body body) {
    return test::forkChild([&body] {
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    });
}

// Until the child has ended, or waits for a lock. Answers whether it has ended, and how.
std::optional<int> untilEndedOrBlocked(pid_t child) {
    for (;;) {
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) return status;
        std::ifstream locks("/proc/locks");
        const std::string process = " " + std::to_string(child) + " ";
        for (std::string line; std::getline(locks, line);) {
            if (line.find("->") != std::string::npos && line.find(process) != std::string::npos)
                return std::nullopt;
        }
        std::this_thread::yield();
    }
}

class EventLogProcessTest : public testing::Test {
protected:
    EventLogFile log(std::uint64_t largestSize,
                     std::chrono::milliseconds burst = EventLogFile::kBurst) const {
        return {EventLogFile::Names::inFolder(folder_.path().string()), test::sampleFacts,
                largestSize, burst};
    }
    fs::path current() const { return folder_.path() / "krv.utilia.ceplog.xml"; }
    fs::path more() const { return folder_.path() / "krv.utilia.ceplog-more.xml"; }

    // Takes everything, as a report would; answers how many documents there were.
    std::size_t collect(const EventLogFile& file, Found& found) const {
        for (std::size_t documents = 0;; ++documents) {
            const auto grabbed = file.grab();
            if (grabbed.code != EventLogCode::Done) {
                EXPECT_EQ(grabbed.code, EventLogCode::NothingToGrab);
                return documents;
            }
            countRecords(contentOf(grabbed.file.get()), true, found);
        }
    }

    test::TemporaryFolder folder_{test::folderInMemory()};
    test::TemporaryFolder links_{test::folderInMemory()};
};

// Each new log gets a second name at once, so that none is gone when it is replaced uncollected.
std::string linksFolder;
void keepLink(const UtiliaFileChange* change) {
    static unsigned number = 0;
    static bool isLinking = false;  // which is such a change itself
    if (isLinking || change->call != kUtiliaFaultLink || !change->from ||
        !std::string_view(change->from).starts_with("/proc/self/fd/"))
        return;
    const std::string name =
        linksFolder + "/" + std::to_string(getpid()) + "-" + std::to_string(++number);
    isLinking = true;
    if (linkat(AT_FDCWD, change->from, AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) != 0) _exit(17);
    isLinking = false;
}

TEST_F(EventLogProcessTest, KeepsEveryRecordOf32ProcessesExactlyOnce) {
    constexpr int kWriters = 32;
    constexpr int kRecords = 10'000;
    const EventLogFile file = log(1 << 20);
    linksFolder = links_.path().string();
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.push_back(inChild([&] {
            utiliaFaultObserve(keepLink);
            const std::string name = "w" + std::to_string(writer);
            for (int i = 1; i <= kRecords; ++i)
                if (file.append(sampleRecord(name, i)) != EventLogCode::Done) _exit(18);
        }));
    }
    for (const pid_t writer : writers) ASSERT_EQ(statusOf(writer), 0);
    // Every log that ever was, the current one and the overflow among them.
    Found found;
    std::size_t logs = 0;
    for (const auto& entry : fs::directory_iterator(links_.path())) {
        const bool isCurrent = fs::equivalent(entry.path(), current());
        struct stat status {};
        ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
        EXPECT_EQ((status.st_mode & 0222) != 0, isCurrent);
        EXPECT_LE(static_cast<std::size_t>(status.st_size), (1u << 20) + 32 * 400 + 2000);
        ASSERT_NO_FATAL_FAILURE(countRecords(contentOf(entry.path()), !isCurrent, found));
        ++logs;
    }
    EXPECT_GT(logs, 50u);
    ASSERT_EQ(found.size(), static_cast<std::size_t>(kWriters));
    for (const auto& [writer, records] : found) {
        EXPECT_EQ(records.size(), static_cast<std::size_t>(kRecords)) << writer;
        for (const auto& [number, count] : records) ASSERT_EQ(count, 1) << writer << " " << number;
    }
}

TEST_F(EventLogProcessTest, KeepsEveryRecordWhileTwoCollectorsTakeThem) {
    constexpr int kWriters = 8;
    constexpr int kRecords = 5'000;
    const EventLogFile file = log(64 << 10);
    linksFolder = links_.path().string();
    auto* const isOver = shared<std::atomic<bool>>(1);
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.push_back(inChild([&] {
            utiliaFaultObserve(keepLink);
            const std::string name = "w" + std::to_string(writer);
            for (int i = 1; i <= kRecords; ++i)
                if (file.append(sampleRecord(name, i)) != EventLogCode::Done) _exit(18);
        }));
    }
    // What another collector takes is told by its inode; it lies under its link, too.
    std::vector<pid_t> collectors;
    for (int collector = 0; collector < 2; ++collector) {
        collectors.push_back(inChild([&, collector] {
            const fs::path report = links_.path() / ("report-" + std::to_string(collector));
            for (int i = 0; !isOver->load();) {
                const auto grabbed = file.grab();
                if (grabbed.code == EventLogCode::NothingToGrab) continue;
                if (grabbed.code != EventLogCode::Done) _exit(19);
                struct stat status {};
                if (fstat(grabbed.file.get(), &status) != 0 || status.st_mode & 0222) _exit(20);
                test::writeTo(report.string() + "-" + std::to_string(++i) + "-" +
                                  std::to_string(status.st_ino),
                              contentOf(grabbed.file.get()));
            }
        }));
    }
    for (const pid_t writer : writers) ASSERT_EQ(statusOf(writer), 0);
    isOver->store(true);
    for (const pid_t collector : collectors) ASSERT_EQ(statusOf(collector), 0);

    Found found;
    std::set<std::string> collected;
    for (const auto& entry : fs::directory_iterator(links_.path())) {
        const std::string name = entry.path().filename();
        if (!name.starts_with("report-")) continue;
        // No log is handed over twice.
        EXPECT_TRUE(collected.insert(name.substr(name.rfind('-') + 1)).second) << name;
        ASSERT_NO_FATAL_FAILURE(countRecords(contentOf(entry.path()), true, found));
    }
    EXPECT_GT(collected.size(), 5u);
    for (const auto& entry : fs::directory_iterator(links_.path())) {
        struct stat status {};
        ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
        const bool isReport = entry.path().filename().string().starts_with("report-");
        if (isReport || collected.contains(std::to_string(status.st_ino))) continue;
        const bool isEnded = (status.st_mode & 0222) == 0;
        ASSERT_NO_FATAL_FAILURE(countRecords(contentOf(entry.path()), isEnded, found));
    }
    ASSERT_EQ(found.size(), std::size_t{kWriters});
    for (const auto& [writer, records] : found) {
        EXPECT_EQ(records.size(), static_cast<std::size_t>(kRecords)) << writer;
        for (const auto& [number, count] : records) ASSERT_EQ(count, 1) << writer << " " << number;
    }
}

// Whoever holds a lock may be stopped. The others wait as long as it takes, and say so once.
TEST_F(EventLogProcessTest, WaitsForAHolderThatIsStoppedAndSaysSoOnce) {
    const EventLogFile file = log(100'000);
    ASSERT_EQ(file.append(sampleRecord("before", 1)), EventLogCode::Done);
    const pid_t holder = inChild([&] {
        const auto held = platform::LockedFile::open(
            current(), platform::LockedFile::Access::Append, platform::LockedFile::Lock::Exclusive);
        if (!held) _exit(22);
        raise(SIGSTOP);
    });
    int status = 0;
    ASSERT_EQ(waitpid(holder, &status, WUNTRACED), holder);
    ASSERT_TRUE(WIFSTOPPED(status));

    const test::TestLog messages;
    std::atomic<bool> isWritten = false;
    std::thread writer([&] {
        EXPECT_EQ(file.append(sampleRecord("waiting", 2)), EventLogCode::Done);
        isWritten = true;
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (messages.count("krv.utilia.ceplog.xml") == 0 &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(messages.count("krv.utilia.ceplog.xml"), 1u);
    EXPECT_FALSE(isWritten);
    kill(holder, SIGCONT);
    EXPECT_EQ(statusOf(holder), 0);
    writer.join();
    EXPECT_EQ(messages.lines().size(), 1u);
    Found found;
    ASSERT_NO_FATAL_FAILURE(collect(file, found));
    EXPECT_EQ(found, (Found{{"before", {{1, 1}}}, {"waiting", {{2, 1}}}}));
}

// A writer that ends the log, killed at each of its system calls.
TEST_F(EventLogProcessTest, LosesNothingToADeathWhileALogIsEnded) {
    const EventLogFile file = log(100'000);
    const EventLogFile ending = log(300);
    int round = 0;
    const auto prepare = [&] {
        Found before;
        collect(file, before);
        EXPECT_EQ(file.append(sampleRecord("before", ++round)), EventLogCode::Done);
    };
    prepare();
    const std::size_t points = test::forEachKillPoint(
        2, [&] { ending.append(sampleRecord("killed", round)); },
        [&](const test::KillPoint&) {
            EXPECT_EQ(file.append(sampleRecord("after", round)), EventLogCode::Done);
            Found found;
            ASSERT_NO_FATAL_FAILURE(collect(file, found));
            EXPECT_EQ(found["before"][round], 1);
            EXPECT_EQ(found["after"][round], 1);
            EXPECT_LE(found["killed"][round], 1);
            for (const auto& entry : fs::directory_iterator(folder_.path()))
                ADD_FAILURE() << entry.path() << " is left";
            prepare();
        });
    EXPECT_GT(points, 20u);
}

// A collector, killed at each of its system calls: what it had not taken yet the next one takes.
TEST_F(EventLogProcessTest, LosesNothingToACollectorThatDiesBeforeItHasTaken) {
    for (const bool hasOverflow : {false, true}) {
        const EventLogFile file = log(100'000);
        const EventLogFile ending = log(300);
        int round = 0;
        const auto prepare = [&] {
            Found before;
            collect(file, before);
            ++round;
            EXPECT_EQ(file.append(sampleRecord("first", round)), EventLogCode::Done);
            EXPECT_EQ((hasOverflow ? ending : file).append(sampleRecord("second", round)),
                      EventLogCode::Done);
        };
        prepare();
        std::size_t lost = 0;
        const std::size_t points = test::forEachKillPoint(
            1, [&] { (void)file.grab(); },
            [&](const test::KillPoint&) {
                EXPECT_EQ(file.append(sampleRecord("after", round)), EventLogCode::Done);
                Found found;
                ASSERT_NO_FATAL_FAILURE(collect(file, found));
                EXPECT_EQ(found["after"][round], 1);
                EXPECT_LE(found["first"][round], 1);
                // From the removal of its name on, a file is the collector's alone, and dies with it.
                lost += found["first"][round] == 0;
                EXPECT_TRUE(!hasOverflow || found["second"][round] == 1);
                prepare();
            });
        EXPECT_GT(points, 20u);
        EXPECT_LE(lost, 6u) << "of " << points;
    }
}

// A collector that stops before each of its system calls while writers fill and end logs.
TEST_F(EventLogProcessTest, LosesNothingWhateverWritersDoWhileOneCollects) {
    for (const bool hasOverflow : {false, true}) {
        for (const int meanwhile : {1, 2, 3, 4}) {
            SCOPED_TRACE(std::to_string(meanwhile) + (hasOverflow ? " with" : " without") +
                         " overflow");
            // Small enough to be ended by the second record.
            const EventLogFile file = log(900);
            linksFolder = links_.path().string();
            const fs::path report = links_.path() / "report";
            int round = 0;
            pid_t writer = -1;
            std::optional<int> ended;
            const auto prepare = [&] {
                for (const auto& entry : fs::directory_iterator(folder_.path()))
                    fs::remove(entry.path());
                for (const auto& entry : fs::directory_iterator(links_.path()))
                    fs::remove(entry.path());
                ++round;
                const int before = hasOverflow ? 2 : 1;
                utiliaFaultObserve(keepLink);
                for (int i = 1; i <= before; ++i)
                    EXPECT_EQ(file.append(sampleRecord("before", i, hasOverflow ? 900 : 0)),
                              EventLogCode::Done);
                utiliaFaultObserve(nullptr);
            };
            prepare();
            const std::size_t points = test::forEachStopPoint(
                [&] {
                    auto grabbed = file.grab();
                    if (grabbed.code != EventLogCode::Done) _exit(19);
                    struct stat status {};
                    if (fstat(grabbed.file.get(), &status) != 0) _exit(20);
                    test::writeTo(report, contentOf(grabbed.file.get()));
                    test::writeTo(report.string() + "-inode", std::to_string(status.st_ino));
                },
                [&] {
                    writer = inChild([&] {
                        utiliaFaultObserve(keepLink);
                        for (int i = 1; i <= meanwhile; ++i)
                            if (file.append(sampleRecord("meanwhile", i, 900)) !=
                                EventLogCode::Done)
                                _exit(18);
                    });
                    ended = untilEndedOrBlocked(writer);
                },
                [&] {
                    EXPECT_EQ(ended ? *ended : statusOf(writer), 0);
                    // The report, what the next collector takes, and overflows that were replaced.
                    Found found;
                    ASSERT_NO_FATAL_FAILURE(countRecords(contentOf(report), true, found));
                    std::set<std::string> collected = {contentOf(report.string() + "-inode")};
                    for (auto grabbed = file.grab(); grabbed.code == EventLogCode::Done;
                         grabbed = file.grab()) {
                        struct stat status {};
                        ASSERT_EQ(fstat(grabbed.file.get(), &status), 0);
                        EXPECT_TRUE(collected.insert(std::to_string(status.st_ino)).second);
                        ASSERT_NO_FATAL_FAILURE(
                            countRecords(contentOf(grabbed.file.get()), true, found));
                    }
                    std::size_t replaced = 0;
                    for (const auto& entry : fs::directory_iterator(links_.path())) {
                        if (entry.path().filename().string().starts_with("report")) continue;
                        struct stat status {};
                        ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
                        if (collected.contains(std::to_string(status.st_ino))) continue;
                        ++replaced;
                        ASSERT_NO_FATAL_FAILURE(countRecords(contentOf(entry.path()), true, found));
                    }
                    // Only writers replace an overflow file, and only by another one.
                    EXPECT_LE(replaced, static_cast<std::size_t>(meanwhile));
                    EXPECT_EQ(found["before"].size(), hasOverflow ? 2u : 1u);
                    EXPECT_EQ(found["meanwhile"].size(), static_cast<std::size_t>(meanwhile));
                    for (const auto& [name, records] : found)
                        for (const auto& [number, count] : records)
                            EXPECT_EQ(count, 1) << name << " " << number;
                    prepare();
                });
            EXPECT_GT(points, 15u);
        }
    }
}

// The documents that were handed over, and what is left; then the folder is empty.
class Collected final {
public:
    explicit Collected(fs::path folder) : folder_(std::move(folder)) {}

    // In any process: keeps what it is handed.
    static void keep(const EventLogFile& file, const fs::path& folder, const std::string& name) {
        const auto grabbed = file.grab();
        if (grabbed.code == EventLogCode::NothingToGrab) return;
        if (grabbed.code != EventLogCode::Done) _exit(19);
        test::writeTo(folder / name, contentOf(grabbed.file.get()));
    }

    void countAll(const EventLogFile& file, Found& found) const {
        for (const auto& entry : fs::directory_iterator(folder_)) {
            ASSERT_NO_FATAL_FAILURE(countRecords(contentOf(entry.path()), true, found));
            fs::remove(entry.path());
        }
        for (auto grabbed = file.grab(); grabbed.code == EventLogCode::Done; grabbed = file.grab())
            ASSERT_NO_FATAL_FAILURE(countRecords(contentOf(grabbed.file.get()), true, found));
    }

private:
    fs::path folder_;
};

// Two collectors, of which one stops before each of its system calls, and files that must be mended.
TEST_F(EventLogProcessTest, HandsNoFileOverTwiceThatMustBeMended) {
    const EventLogFile file = log(100'000);
    const Collected collected(links_.path());
    const std::string cut = sampleRecord("cut", 9).substr(0, 120);
    for (const char* place :
         {"krv.utilia.ceplog-taken.xml", "krv.utilia.ceplog-more.xml", "krv.utilia.ceplog.xml"}) {
        SCOPED_TRACE(place);
        const auto prepare = [&] {
            test::writeTo(folder_.path() / place,
                          test::sampleHeader() + sampleRecord("a", 1) + cut + sampleRecord("a", 2));
        };
        prepare();
        pid_t second = -1;
        std::optional<int> ended;
        const std::size_t points = test::forEachStopPoint(
            [&] { Collected::keep(file, links_.path(), "first"); },
            [&] {
                second = inChild([&] {
                    Collected::keep(file, links_.path(), "second");
                    if (file.append(sampleRecord("b", 3)) != EventLogCode::Done) _exit(18);
                    Collected::keep(file, links_.path(), "third");
                });
                ended = untilEndedOrBlocked(second);
            },
            [&] {
                EXPECT_EQ(ended ? *ended : statusOf(second), 0);
                Found found;
                ASSERT_NO_FATAL_FAILURE(collected.countAll(file, found));
                EXPECT_EQ(found, (Found{{"a", {{1, 1}, {2, 1}}}, {"b", {{3, 1}}}}));
                EXPECT_TRUE(fs::is_empty(folder_.path()));
                prepare();
            });
        EXPECT_GT(points, 10u);
        // Of the last run, which nothing stopped.
        Found rest;
        ASSERT_NO_FATAL_FAILURE(collected.countAll(file, rest));
    }
}

// A writer that stops before each of its system calls, while others end the log, collect, or both.
TEST_F(EventLogProcessTest, LosesNothingWhateverOthersDoWhileOneWrites) {
    const EventLogFile file = log(100'000);
    // Ends a log of two records and none of one: what the stopped writer begins meanwhile must not be
    // ended as well, which would replace the first one uncollected.
    const EventLogFile ending =
        log(test::sampleHeader().size() + sampleRecord("stopped", 1).size() * 3 / 2);
    const Collected collected(links_.path());
    for (const char* begin : {"small", "too large", "none"}) {
        for (const char* others : {"collect", "end", "end and collect", "collect and write"}) {
            SCOPED_TRACE(std::string(begin) + ", " + others);
            const std::string_view words = others;
            // Each ends at most one log, so that none is replaced uncollected.
            const bool ends = std::string_view(begin) == "too large";
            const bool endsMeanwhile = words.starts_with("end") && !ends;
            const auto prepare = [&] {
                if (std::string_view(begin) != "none") {
                    EXPECT_EQ(file.append(sampleRecord("before", 1, ends ? 5'000 : 0)),
                              EventLogCode::Done);
                }
            };
            prepare();
            pid_t other = -1;
            std::optional<int> ended;
            const std::size_t points = test::forEachStopPoint(
                [&] {
                    // The third time with a log that it has kept open.
                    const EventLogFile own = log(ends ? 3'000 : 100'000, std::chrono::hours(1));
                    for (const int number : {1, 2, 3}) {
                        if (own.append(sampleRecord("stopped", number)) != EventLogCode::Done)
                            _exit(18);
                    }
                },
                [&] {
                    other = inChild([&] {
                        if (words.starts_with("collect"))
                            Collected::keep(file, links_.path(), "first");
                        if (words != "collect" &&
                            (endsMeanwhile ? ending : file).append(sampleRecord("other", 3)) !=
                                EventLogCode::Done)
                            _exit(18);
                        if (words.ends_with("collect"))
                            Collected::keep(file, links_.path(), "second");
                    });
                    ended = untilEndedOrBlocked(other);
                },
                [&] {
                    EXPECT_EQ(ended ? *ended : statusOf(other), 0);
                    Found found;
                    ASSERT_NO_FATAL_FAILURE(collected.countAll(file, found));
                    Found expected{{"stopped", {{1, 1}, {2, 1}, {3, 1}}}};
                    if (std::string_view(begin) != "none") expected["before"][1] = 1;
                    if (words != "collect") expected["other"][3] = 1;
                    EXPECT_EQ(found, expected);
                    EXPECT_TRUE(fs::is_empty(folder_.path()));
                    prepare();
                });
            // Twice open, flock, fstat, write and their ends; flock, fstat, write, flock.
            EXPECT_GE(points, 14u);
            Found rest;
            ASSERT_NO_FATAL_FAILURE(collected.countAll(file, rest));
        }
    }
}

}  // namespace
}  // namespace utilia
