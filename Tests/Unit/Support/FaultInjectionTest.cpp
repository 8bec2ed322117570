#include "Tests/Support/FaultInjection.h"

#include <array>
#include <cstring>
#include <fstream>
#include <new>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {
namespace {

constexpr Fault kOpenFails{.call = kUtiliaFaultOpen, .error = EMFILE};

// 0 or the errno of the failed open.
int errorOfOpen() {
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (file < 0) return errno;
    close(file);
    return 0;
}

TEST(FaultInjection, HitsTheCallWithTheNumberAndNoOther) {
    const ArmedFault fault(kOpenFails, 2);
    EXPECT_EQ(errorOfOpen(), 0);
    EXPECT_EQ(errorOfOpen(), EMFILE);
    EXPECT_EQ(errorOfOpen(), 0);
    EXPECT_EQ(fault.calls(), 3u);
    EXPECT_EQ(fault.hits(), 1u);
}

TEST(FaultInjection, HitsEveryLaterCallWhenItLasts) {
    const ArmedFault fault(kOpenFails, 2, FaultRepetition::ForEver);
    EXPECT_EQ(errorOfOpen(), 0);
    EXPECT_EQ(errorOfOpen(), EMFILE);
    EXPECT_EQ(errorOfOpen(), EMFILE);
}

TEST(FaultInjection, EndsWithItsObject) {
    { const ArmedFault fault(kOpenFails, 1, FaultRepetition::ForEver); }
    EXPECT_EQ(errorOfOpen(), 0);
}

TEST(FaultInjection, MeetsOtherThreadsOnlyWhenAsked) {
    for (const auto threads : {FaultThreads::Mine, FaultThreads::All}) {
        const ArmedFault fault(kOpenFails, 1, FaultRepetition::ForEver, threads);
        int error = -1;
        std::thread([&] { error = errorOfOpen(); }).join();
        EXPECT_EQ(error, threads == FaultThreads::All ? EMFILE : 0);
    }
}

TEST(FaultInjection, TwoFaultsCanFollowEachOther) {
    const ArmedFault first(kOpenFails, 1);
    const ArmedFault second({.call = kUtiliaFaultOpen, .error = EIO}, 2);
    EXPECT_EQ(errorOfOpen(), EMFILE);
    EXPECT_EQ(errorOfOpen(), EIO);
}

TEST(FaultInjection, AShortTransferMovesHalf) {
    const TemporaryFolder folder;
    const std::string path = folder.path() / "file";
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    {
        const ArmedFault shortWrite({.call = kUtiliaFaultWrite, .kind = kUtiliaFaultShort});
        EXPECT_EQ(write(file, "12345678", 8), 4);
    }
    char buffer[4];
    const ArmedFault shortRead({.call = kUtiliaFaultRead, .kind = kUtiliaFaultShort});
    EXPECT_EQ(pread(file, buffer, 4, 0), 2);
    close(file);
}

#ifndef UTILIA_FAULTS_WITHOUT_MEMORY
TEST(FaultInjection, MemoryRunsOut) {
    const ArmedFault fault({.call = kUtiliaFaultMemory, .error = ENOMEM});
    EXPECT_THROW(static_cast<void>(::operator new(100)), std::bad_alloc);
}
#endif

TEST(FaultInjection, FindsEveryCallOfAnOperation) {
    const TemporaryFolder folder;
    const std::string path = folder.path() / "made";
    std::vector<std::string> runs;
    constexpr std::array kTable{
        Fault{.call = kUtiliaFaultMkdir, .error = ENOSPC},
        Fault{.call = kUtiliaFaultOpen, .error = EINTR, .isOnceOnly = true}};
    const std::size_t count = forEachFault(
        kTable, [&] { rmdir(path.c_str()); },
        [&] {
            mkdir(path.c_str(), 0700);
            errorOfOpen();
            errorOfOpen();
        },
        [&](const FaultRun& run) { runs.push_back(run.description()); });
    EXPECT_EQ(count, runs.size());
    EXPECT_EQ(runs,
              (std::vector<std::string>{"mkdir number 1 fails once: No space left on device",
                                        "mkdir number 1 fails for ever: No space left on device",
                                        "open number 1 fails once: Interrupted system call",
                                        "open number 2 fails once: Interrupted system call"}));
}

TEST(FaultInjection, NoticesADescriptorThatIsLeftBehind) {
    static int left = -1;
    const auto leaky = [] {
        constexpr std::array kTable{Fault{.call = kUtiliaFaultFstat, .error = EIO}};
        const std::size_t runs = forEachFault(
            kTable,
            [] {
                const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
                struct stat status {};
                if (fstat(file, &status) != 0) {
                    left = file;
                } else {
                    close(file);
                }
            },
            [](const FaultRun&) { close(left); });
        EXPECT_GT(runs, 0u);
    };
    testing::TestPartResultArray results;
    {
        const testing::ScopedFakeTestPartResultReporter reporter(&results);
        leaky();
    }
    ASSERT_EQ(results.size(), 2) << "once, and for ever";
    EXPECT_NE(std::strstr(results.GetTestPartResult(0).message(), "descriptors were left behind"),
              nullptr);
}

TEST(FaultInjection, KillsBeforeAndAfterEachCall) {
    const TemporaryFolder folder;
    const std::string path = folder.path() / "made";
    std::vector<std::string> seen;
    const std::size_t points = forEachKillPoint(
        1,
        [&] {
            errorOfOpen();
            mkdir(path.c_str(), 0700);
        },
        [&](const KillPoint& point) {
            seen.push_back(std::to_string(point.ordinal) + (point.isAfter ? " after" : " before") +
                           (rmdir(path.c_str()) == 0 ? ": made" : ""));
        });
    EXPECT_EQ(points, 4u);
    EXPECT_EQ(seen, (std::vector<std::string>{"1 before", "1 after", "2 before", "2 after: made"}));
}

TEST(FaultInjection, ReachesAProgramThatKnowsNothingOfIt) {
    const TemporaryFolder folder;
    std::ofstream(folder.path() / "file") << "text";
    const auto catWith = [&](const std::map<std::string, std::string>& environment) {
        ChildProcessOptions options;
        options.environment = environment;
        options.standardError = folder.path() / "errors";
        options.standardOutput = folder.path() / "output";
        auto child = ChildProcess::program("/bin/cat", {folder.path() / "file"}, options);
        return child.waitForExit();
    };
    EXPECT_EQ(catWith({}), 0);
    EXPECT_EQ(catWith(preload(folder.path(), {.call = kUtiliaFaultRead, .error = EIO}, 1,
                              FaultRepetition::ForEver)),
              1);
    std::ifstream errors(folder.path() / "errors");
    const std::string text{std::istreambuf_iterator<char>(errors), {}};
    EXPECT_NE(text.find("Input/output error"), std::string::npos) << text;
}

}  // namespace
}  // namespace utilia::test
