#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Contract/LogSinkPlaces.h"
#include "Tests/Support/FaultInjection.h"

// A sink answers truly whether a line was taken, whatever fails on the way, keeps no descriptor of
// it, and takes the next line.

using namespace utilia;
using Lines = std::vector<std::string>;

namespace {

// What a descriptor and a socket can answer, and memory that runs out.
std::vector<test::Fault> allFaults() {
    std::vector<test::Fault> faults;
    for (const auto& table : {test::storageFaults(), test::socketFaults(), test::memoryFaults()}) {
        faults.insert(faults.end(), table.begin(), table.end());
    }
    return faults;
}

template <class Place>
struct LogSinkFaults : testing::Test {
    // Answers in how many runs a fault was met.
    std::size_t writeUnderFaults(const std::string& line) {
        std::shared_ptr<LogSink> sink = place.makeSink();
        EXPECT_TRUE(sink->write(line));
        const std::string expected = place.takeLines().at(0);
        bool isTaken = false;
        return test::forEachFault(
            allFaults(),
            [&] {
                place.takeLines();
                sink = place.makeSink();
            },
            [&] { isTaken = sink->write(line); },
            [&](const test::FaultRun&) {
                EXPECT_TRUE(sink->write("next"));
                const Lines lines = place.takeLines();
                EXPECT_EQ(std::count(lines.begin(), lines.end(), expected), isTaken ? 1 : 0);
                ASSERT_FALSE(lines.empty());
                EXPECT_EQ(lines.back(), "next");
            });
    }
    Place place;
};

TYPED_TEST_SUITE(LogSinkFaults, test::LogSinkPlaces, test::LogSinkPlaceNames);

// Only memory can fail a sink that calls no system, and a sanitizer keeps that to itself.
template <class Place>
constexpr bool kCallsTheSystem = !std::is_same_v<Place, test::CollectingPlace>;

}  // namespace

TYPED_TEST(LogSinkFaults, LeaveALineTakenOrRefused) {
    const std::size_t runs = this->writeUnderFaults("a line that is longer than a short string");
    EXPECT_EQ(runs > 0, kCallsTheSystem<TypeParam> || !test::memoryFaults().empty());
}

TYPED_TEST(LogSinkFaults, LeaveALongLineTakenOrRefused) {
    const std::size_t runs = this->writeUnderFaults(std::string(250'000, 'x'));
    EXPECT_EQ(runs > 0, kCallsTheSystem<TypeParam> || !test::memoryFaults().empty());
}

TEST(SystemLogFaults, LeaveALineInOnePlaceOrNone) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path() / "socket";
    const test::JournalSocket journal(path);
    const test::LogPipe standardError;
    std::shared_ptr<LogSink> sink;
    bool isTaken = false;
    std::size_t elsewhere = 0;
    const std::size_t runs = test::forEachFault(
        allFaults(),
        [&] {
            journal.receiveLines();
            standardError.readAll();
            sink = platform::makeJournalOrDescriptorLogSink(path, standardError.writer.get());
        },
        [&] { isTaken = sink->write("line"); },
        [&](const test::FaultRun&) {
            const bool isInJournal = journal.receiveLines() == Lines{"line"};
            const bool isInStderr = standardError.readAll().ends_with("]: line\n");
            EXPECT_EQ(isInJournal + isInStderr, isTaken ? 1 : 0);
            elsewhere += isInStderr;
            EXPECT_TRUE(sink->write("next"));
        });
    EXPECT_GT(runs, elsewhere);
    EXPECT_GT(elsewhere, 0u);
}
