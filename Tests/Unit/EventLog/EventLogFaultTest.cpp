#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/FileManager.h"
#include "Tests/Process/UnprivilegedUser.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/EventLog/LogSample.h"
#include "Tests/Unit/EventLog/XmlDocument.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::document;
using test::FaultRun;
using test::sampleHeader;
using test::sampleRecord;
using test::XmlDocument;

std::string contentOf(int descriptor) {
    std::string content;
    char chunk[1 << 12];
    for (ssize_t size = 0; (size = read(descriptor, chunk, sizeof chunk)) > 0;)
        content.append(chunk, static_cast<std::size_t>(size));
    return content;
}

class EventLogFaultTest : public testing::Test {
protected:
    EventLogFile log(std::uint64_t largestSize = EventLogFile::kLargestSize,
                     std::chrono::milliseconds burst = EventLogFile::kBurst) const {
        return {EventLogFile::Names::inFolder(folder_.path().string()), test::sampleFacts,
                largestSize, burst};
    }
    fs::path current() const { return folder_.path() / "krv.utilia.ceplog.xml"; }
    fs::path more() const { return folder_.path() / "krv.utilia.ceplog-more.xml"; }

    void empty() const {
        for (const auto& entry : fs::directory_iterator(folder_.path())) fs::remove_all(entry);
    }
    // Everything that can be collected, as one text of documents, each of which is whole.
    std::string collected() const {
        std::string all;
        for (auto grabbed = log().grab(); grabbed.code == EventLogCode::Done;
             grabbed = log().grab()) {
            const std::string text = contentOf(grabbed.file.get());
            EXPECT_TRUE(XmlDocument::parse(text)) << text;
            all += text;
        }
        return all;
    }
    static std::size_t count(const std::string& text, const std::string& part) {
        std::size_t found = 0;
        for (std::size_t at = text.find(part); at != std::string::npos;
             at = text.find(part, at + 1))
            ++found;
        return found;
    }

    // A record is there once if its writer was told so, and at most once otherwise.
    void appendUnderEachFault(std::span<const test::Fault> table, std::uint64_t largestSize,
                              bool isKeptOpen) {
        const EventLogFile file =
            log(largestSize, isKeptOpen ? std::chrono::hours(1) : std::chrono::hours(0));
        const std::string record = sampleRecord("a", 2);
        EventLogCode code = EventLogCode::Done;
        const std::size_t runs = test::forEachFault(
            table,
            [&] {
                empty();
                const EventLogFile other = log();
                EXPECT_EQ(other.append(sampleRecord("before", 1)), EventLogCode::Done);
                EXPECT_EQ((isKeptOpen ? file : other).append(sampleRecord("before", 2)),
                          EventLogCode::Done);
            },
            [&] { code = file.append(record); },
            [&](const FaultRun&) {
                EXPECT_TRUE(code == EventLogCode::Done || code == EventLogCode::LogNotReady ||
                            code == EventLogCode::RecordNotWritten)
                    << static_cast<int>(code);
                EXPECT_EQ(log().append(sampleRecord("after", 3)), EventLogCode::Done)
                    << "the next call without a fault succeeds";
                const std::string all = collected();
                EXPECT_EQ(count(all, "writer=\"before\""), 2u);
                EXPECT_EQ(count(all, "writer=\"after\""), 1u);
                EXPECT_EQ(count(all, "writer=\"a\""), code == EventLogCode::Done ? 1u : 0u);
                EXPECT_TRUE(fs::is_empty(folder_.path()));
            });
        EXPECT_EQ(runs > 0, !table.empty());
    }

    void grabUnderEachFault(std::span<const test::Fault> table, bool hasOverflow) {
        EventLogFile::Grabbed grabbed;
        std::string text;
        const std::size_t runs = test::forEachFault(
            table,
            [&] {
                grabbed = {};
                empty();
                EXPECT_EQ(log().append(sampleRecord("first", 1)), EventLogCode::Done);
                if (hasOverflow) {
                    EXPECT_EQ(log(1).append(sampleRecord("second", 2)), EventLogCode::Done);
                }
            },
            [&] {
                grabbed = {};
                grabbed = log().grab();
                text = grabbed.file ? contentOf(grabbed.file.get()) : "";
                grabbed.file.reset();
            },
            [&](const FaultRun& run) {
                const int code = static_cast<int>(grabbed.code);
                EXPECT_TRUE(code == 0 || code == -1 || code == -748 || code == -755 ||
                            code == -761 || code == -767 || code == -780)
                    << code;
                // Reading what was handed over meets the fault here, in the test.
                if (run.fault.call == kUtiliaFaultRead && grabbed.code == EventLogCode::Done)
                    return;
                text += collected();
                EXPECT_EQ(count(text, "writer=\"first\""), 1u);
                EXPECT_EQ(count(text, "writer=\"second\""), hasOverflow ? 1u : 0u);
            });
        EXPECT_EQ(runs > 0, !table.empty());
    }

    test::TemporaryFolder folder_{test::folderInMemory()};
};

TEST_F(EventLogFaultTest, AppendsOrSaysThatItDidNot) {
    appendUnderEachFault(test::storageFaults(), EventLogFile::kLargestSize, false);
}

TEST_F(EventLogFaultTest, AppendsToTheLogThatItKeepsOrSaysThatItDidNot) {
    appendUnderEachFault(test::storageFaults(), EventLogFile::kLargestSize, true);
}

TEST_F(EventLogFaultTest, EndsALogOrLeavesItToOthers) {
    appendUnderEachFault(test::storageFaults(), 1, false);
}

TEST_F(EventLogFaultTest, AppendsOrSaysThatMemoryHasRunOut) {
    // Memory that runs out is an exception here; CEPLogEvent() catches it.
    const EventLogFile file = log(1);
    const std::string record = sampleRecord("a", 2);
    bool isThere = false;
    const std::size_t runs = test::forEachFault(
        test::memoryFaults(),
        [&] {
            empty();
            EXPECT_EQ(log().append(sampleRecord("before", 1)), EventLogCode::Done);
        },
        [&] {
            try {
                isThere = file.append(record) == EventLogCode::Done;
            } catch (const std::bad_alloc&) {
                isThere = false;
            }
        },
        [&](const FaultRun&) {
            const std::string all = collected();
            EXPECT_EQ(count(all, "writer=\"before\""), 1u);
            EXPECT_EQ(count(all, "writer=\"a\""), isThere ? 1u : 0u);
        });
    EXPECT_EQ(runs > 0, !test::memoryFaults().empty());
}

// Its name is gone when it is looked at, and there is no memory to say so.
TEST_F(EventLogFaultTest, LeavesTheLogThatItKeptUnlockedWhereMemoryHasRunOut) {
    const EventLogFile file = log(EventLogFile::kLargestSize, std::chrono::hours(1));
    const fs::path moved = folder_.path() / "moved";
    const std::size_t runs = test::forEachFault(
        test::memoryFaults(),
        [&] {
            empty();
            for (int i = 1; i <= 2; ++i)
                EXPECT_EQ(file.append(sampleRecord("kept", i)), EventLogCode::Done);
            fs::rename(current(), moved);
            std::this_thread::sleep_for(std::chrono::milliseconds(15));
        },
        [&] {
            try {
                (void)file.append(sampleRecord("a", 2));
            } catch (const std::bad_alloc&) {
                // The caller answers with a code.
            }
        },
        [&](const FaultRun&) {
            const int descriptor = open(moved.c_str(), O_RDONLY | O_CLOEXEC);
            EXPECT_EQ(flock(descriptor, LOCK_EX | LOCK_NB), 0);
            close(descriptor);
        });
    EXPECT_EQ(runs > 0, !test::memoryFaults().empty());
}

TEST_F(EventLogFaultTest, GrabsTheCurrentLogOrLeavesIt) {
    grabUnderEachFault(test::storageFaults(), false);
}

TEST_F(EventLogFaultTest, GrabsTheOverflowOrLeavesIt) {
    grabUnderEachFault(test::storageFaults(), true);
}

TEST_F(EventLogFaultTest, AnswersTheCodeOfEachStep) {
    using test::ArmedFault;
    const EventLogFile file = log();
    const auto grabWith = [&](UtiliaFaultCall call, unsigned ordinal, int error) {
        empty();
        EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
        const ArmedFault fault({.call = call, .error = error}, ordinal);
        const auto code = file.grab().code;
        EXPECT_EQ(fault.hits(), 1u);
        return static_cast<int>(code);
    };
    EXPECT_EQ(grabWith(kUtiliaFaultOpen, 2, EACCES), -748);  // the overflow
    EXPECT_EQ(grabWith(kUtiliaFaultOpen, 3, EACCES), -755);  // the log
    EXPECT_EQ(grabWith(kUtiliaFaultFlock, 1, ENOLCK), -755);
    EXPECT_EQ(grabWith(kUtiliaFaultFstat, 1, EIO), -761);
    EXPECT_EQ(grabWith(kUtiliaFaultRename, 1, EACCES), -780);
    const auto appendWith = [&](UtiliaFaultCall call, int error) {
        const ArmedFault fault({.call = call, .error = error});
        const auto code = log().append(sampleRecord("a", 1));
        EXPECT_EQ(fault.hits(), 1u);
        return static_cast<int>(code);
    };
    empty();
    EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::Done);
    EXPECT_EQ(appendWith(kUtiliaFaultOpen, EACCES), -1051);
    EXPECT_EQ(appendWith(kUtiliaFaultFlock, ENOLCK), -1051);
    EXPECT_EQ(appendWith(kUtiliaFaultFstat, EIO), -1051);
    EXPECT_EQ(appendWith(kUtiliaFaultWrite, ENOSPC), -1056);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1));
}

TEST_F(EventLogFaultTest, TellsOfAFailedLookAtTheName) {
    const EventLogFile file = log();
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
    for (unsigned ordinal = 1; ordinal < 5; ++ordinal) {
        const test::ArmedFault fault({.call = kUtiliaFaultStat, .error = EIO}, ordinal);
        if (const auto grabbed = file.grab(); fault.hits() == 1 && !grabbed.file) {
            EXPECT_EQ(grabbed.code, EventLogCode::LogNameNotExamined);
            return;
        }
        EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
    }
    ADD_FAILURE() << "no look at the name was met";
}

TEST_F(EventLogFaultTest, WritesTheHeaderInOneStepOf23Pieces) {
    static std::vector<unsigned long> writes;
    writes.clear();
    utiliaFaultObserve([](const UtiliaFileChange* change) {
        if (change->call == kUtiliaFaultWrite) writes.push_back(change->size);
    });
    EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::Done);
    utiliaFaultObserve(nullptr);
    EXPECT_EQ(kHeaderPieces, 23u);
    EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1));
    // A gathered write is told without its size.
    const std::vector<unsigned long> expected = {0, sampleRecord("a", 1).size()};
    EXPECT_EQ(writes, expected);
}

// As on file systems of a network.
TEST_F(EventLogFaultTest, BeginsALogWhereThereAreNoFilesWithoutName) {
    for (const auto& [call, ordinal, error] :
         {std::tuple{kUtiliaFaultOpen, 2U, EOPNOTSUPP}, {kUtiliaFaultLink, 1U, ENOENT}}) {
        for (const bool canRename : {true, false}) {
            empty();
            const test::ArmedFault unnamed({.call = call, .error = error}, ordinal);
            const test::ArmedFault rename({.call = kUtiliaFaultRename, .error = EINVAL},
                                          canRename ? 99 : 1);
            EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::Done);
            EXPECT_EQ(unnamed.hits(), 1u);
            EXPECT_EQ(rename.hits(), canRename ? 0u : 1u);
            EXPECT_EQ(test::contentOf(current()), sampleHeader() + sampleRecord("a", 1));
            EXPECT_EQ(std::distance(fs::directory_iterator(folder_.path()), {}), 1);
        }
    }
}

// In a file system of 64 KiB, until it is full, and on.
TEST_F(EventLogFaultTest, SurvivesAFullDisk) {
    test::PrivateMounts mounts;
    mounts.limitSpace(folder_.path().string(), 64 << 10);
    EXPECT_TRUE(mounts.run([&] {
        const EventLogFile file = log(30'000);
        std::size_t told = 0;
        std::size_t refused = 0;
        for (int i = 1; i <= 1000; ++i) {
            const auto code = file.append(sampleRecord("a", i, 300));
            told += code == EventLogCode::Done;
            refused += code != EventLogCode::Done;
            if (i == 500) {
                // Room for a moment, so that something follows a record that was cut.
                fs::remove(more());
            } else if (i > 100) {
                test::writeTo(folder_.path() / "filling", std::string(64 << 10, 'f'));
            }
        }
        EXPECT_GT(told, 20u);
        EXPECT_GT(refused, 100u);
        fs::remove(folder_.path() / "filling");
        const std::string all = collected();
        EXPECT_GT(count(all, "<event "), 0u);
        EXPECT_EQ(count(all, "<event "), count(all, "</event>\n"));
        EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
    }));
}

TEST_F(EventLogFaultTest, KeepsTheRecordThatFollowsOneCutByAFullDisk) {
    const EventLogFile file = log();
    EXPECT_EQ(file.append(sampleRecord("a", 1)), EventLogCode::Done);
    {
        const test::ArmedFault cut({.call = kUtiliaFaultWrite, .kind = kUtiliaFaultShort});
        EXPECT_EQ(file.append(sampleRecord("cut", 2)), EventLogCode::RecordNotWritten);
    }
    EXPECT_EQ(file.append(sampleRecord("b", 3)), EventLogCode::Done);
    EXPECT_EQ(collected(), document(sampleRecord("a", 1) + sampleRecord("b", 3)));
}

TEST_F(EventLogFaultTest, SurvivesAReadOnlyFolder) {
    EXPECT_EQ(log(1).append(sampleRecord("a", 1)), EventLogCode::Done);
    EXPECT_EQ(log(1).append(sampleRecord("a", 2)), EventLogCode::Done);
    test::PrivateMounts mounts;
    mounts.makeReadOnly(folder_.path().string());
    EXPECT_TRUE(mounts.run([&] {
        EXPECT_EQ(log().append(sampleRecord("b", 1)), EventLogCode::LogNotReady);
        EXPECT_EQ(log(1).append(sampleRecord("b", 1)), EventLogCode::LogNotReady);
        EXPECT_EQ(log().grab().code, EventLogCode::OverflowNotReadable);
        EXPECT_EQ(log().documents().size(), 2u);
    }));
    fs::remove(more());
    EXPECT_TRUE(mounts.run([&] { EXPECT_EQ(log().grab().code, EventLogCode::LogNotOpened); }));
    EXPECT_EQ(collected(), document(sampleRecord("a", 2)));
}

// Somebody whom permissions stop, which root is not.
TEST_F(EventLogFaultTest, AnswersAnUnprivilegedUserAsDocumented) {
    ASSERT_EQ(geteuid(), 0u);
    constexpr uid_t kNobody = 65534;
    test::PrivateMounts mounts;
    EXPECT_EQ(log().append(sampleRecord("root", 1)), EventLogCode::Done);
    EXPECT_TRUE(mounts.run(
        [&] {
            // Another user's file, in a folder that only that one may enter.
            EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::LogNotReady);
            EXPECT_EQ(log().grab().code, EventLogCode::OverflowNotReadable);
        },
        kNobody));
    ASSERT_EQ(chown(folder_.path().c_str(), kNobody, kNobody), 0);
    EXPECT_TRUE(mounts.run(
        [&] {
            // Another user's file in the own folder.
            EXPECT_EQ(log().append(sampleRecord("a", 1)), EventLogCode::LogNotReady);
            EXPECT_EQ(log().grab().code, EventLogCode::LogNotOpened);
            fs::remove(current());
            // The whole way, with files that become read-only for their owner, too.
            EXPECT_EQ(log(1).append(sampleRecord("a", 1)), EventLogCode::Done);
            EXPECT_EQ(log(1).append(sampleRecord("a", 2)), EventLogCode::Done);
            EXPECT_EQ(test::contentOf(more()), document(sampleRecord("a", 1)));
            EXPECT_EQ(collected(), document(sampleRecord("a", 1)) + document(sampleRecord("a", 2)));
            // A file that was left unfinished is mended all the same.
            test::writeTo(more(), sampleHeader() + sampleRecord("a", 3));
            fs::permissions(more(), fs::perms(0444));
            EXPECT_EQ(collected(), document(sampleRecord("a", 3)));
            // What may not be read.
            test::writeTo(more(), document(sampleRecord("a", 4)));
            fs::permissions(more(), fs::perms(0));
            EXPECT_EQ(log().grab().code, EventLogCode::OverflowNotReadable);
            fs::remove(more());
            // A folder in which nothing can be made or renamed.
            EXPECT_EQ(log().append(sampleRecord("a", 5)), EventLogCode::Done);
            fs::permissions(folder_.path(), fs::perms(0500));
            EXPECT_EQ(log().append(sampleRecord("a", 6)), EventLogCode::Done);
            EXPECT_EQ(log(1).append(sampleRecord("a", 7)), EventLogCode::LogNotReady);
            EXPECT_EQ(log().grab().code, EventLogCode::LogNotMoved);
            fs::permissions(folder_.path(), fs::perms(0));
            EXPECT_EQ(log().append(sampleRecord("a", 8)), EventLogCode::LogNotReady);
            EXPECT_EQ(log().grab().code, EventLogCode::OverflowNotReadable);
            fs::permissions(folder_.path(), fs::perms(0700));
            EXPECT_EQ(collected(), document(sampleRecord("a", 5) + sampleRecord("a", 6)));
        },
        kNobody));
}

}  // namespace
}  // namespace utilia
