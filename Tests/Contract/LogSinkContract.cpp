#include <array>
#include <atomic>
#include <charconv>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Logging/Log.h"
#include "Tests/Contract/LogSinkPlaces.h"

using namespace utilia;
using Lines = std::vector<std::string>;

namespace {

template <class Place>
struct LogSinkContract : testing::Test {
    Place place;
    std::shared_ptr<LogSink> sink = place.makeSink();
};

TYPED_TEST_SUITE(LogSinkContract, test::LogSinkPlaces, test::LogSinkPlaceNames);

// The lines of several threads ("THREAD NUMBER"), and how many were said to be missing.
struct Arrived {
    std::array<Lines, 4> ofThread;
    std::size_t dropped = 0;
    std::size_t taken = 0;

    void add(const Lines& lines) {
        for (const std::string& line : lines) {
            if (line.find(" dropped") != std::string::npos) {
                std::size_t count = 0;
                std::from_chars(line.data(), line.data() + line.size(), count);
                dropped += count;
            } else {
                ofThread.at(static_cast<std::size_t>(line.at(0) - '0')).push_back(line);
                ++taken;
            }
        }
    }
};

std::string lineOf(std::size_t thread, int number) {
    return std::to_string(thread) + ' ' + std::to_string(number) + std::string(200, 'x');
}

}  // namespace

TYPED_TEST(LogSinkContract, TakesLinesWholeAndInOrder) {
    Lines expected;
    for (int i = 0; i < 200; ++i) {
        const std::string line = "line é " + std::to_string(i);
        EXPECT_TRUE(this->sink->write(line));
        expected.push_back(line);
        if (i % 5 == 4) {
            EXPECT_EQ(this->place.takeLines(), expected);
            expected.clear();
        }
    }
}

TYPED_TEST(LogSinkContract, TakesAnEmptyLine) {
    EXPECT_TRUE(this->sink->write(""));
    EXPECT_TRUE(this->sink->write("next"));
    EXPECT_EQ(this->place.takeLines(), (Lines{"", "next"}));
}

TYPED_TEST(LogSinkContract, KeepsALineOneEntryWhateverStandsInIt) {
    using namespace std::string_literals;
    const std::array texts{
        "a\nb"s,    "\n"s,   "ends\n"s,         "a\r\nb"s,           "nul \0 inside"s,
        "\x1B[2K"s, "\xFF"s, "tool[1]: x\n\n"s, "a\nPRIORITY=0\nb"s, "a\nMESSAGE=b"s,
    };
    for (const std::string& text : texts) {
        EXPECT_TRUE(this->sink->write(text));
        EXPECT_TRUE(this->sink->write("next"));
        EXPECT_EQ(this->place.takeLines(), (Lines{this->place.asRead(text), "next"}));
    }
}

TYPED_TEST(LogSinkContract, TakesALineOfAnyLengthAsOneEntry) {
    for (const std::size_t length : {4'000u, 5'000u, 70'000u, 300'000u, 5'000'000u}) {
        const std::string line(length, 'x');
        EXPECT_TRUE(this->sink->write(line));
        EXPECT_TRUE(this->sink->write("next"));

        const Lines lines = this->place.takeLines();
        ASSERT_EQ(lines.size(), 2u) << length;
        const std::size_t kept = lines[0].find_first_not_of('x');
        EXPECT_GT(std::min(kept, lines[0].size()), 3'900u);
        EXPECT_TRUE(lines[0] == line || lines[0].ends_with(" more bytes]")) << length;
        EXPECT_EQ(lines[1], "next");
    }
}

TYPED_TEST(LogSinkContract, LosesNoLineOfSeveralThreadsWithoutCountingIt) {
    constexpr int kLines = 300;
    setLogSink(this->sink);
    std::atomic<int> running{4};
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread, &running] {
            for (int i = 0; i < kLines; ++i) KULogVariadic(lineOf(thread, i));
            --running;
        });
    }
    Arrived arrived;
    while (running > 0) arrived.add(this->place.takeLines());
    for (std::thread& thread : threads) thread.join();
    arrived.add(this->place.takeLines());
    KULogVariadic(lineOf(0, kLines));
    arrived.add(this->place.takeLines());
    setLogSink(nullptr);

    EXPECT_EQ(arrived.taken + arrived.dropped, 4u * kLines + 1);
    for (std::size_t thread = 0; thread < 4; ++thread) {
        int number = 0;
        for (const std::string& line : arrived.ofThread[thread]) {
            while (number <= kLines && line != lineOf(thread, number)) ++number;
            ASSERT_LE(number, kLines) << "not a whole line in its place: " << line;
        }
    }
    EXPECT_EQ(arrived.ofThread[0].back(), lineOf(0, kLines));
}
