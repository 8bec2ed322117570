#include "Common/Foundation/NumericText.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "Common/Foundation/Numbers.h"
#include "Common/Platform/CharacterProperties.h"
#include "Tests/Support/TestVectors.h"

using namespace utilia;
using utilia::test::testVectors;

namespace {

constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

std::vector<std::string_view> runs(std::string_view text, std::size_t maximum = kAll) {
    return digitRuns(text, maximum, platform::systemCharacterProperties());
}

int compare(std::string_view left, std::string_view right) {
    return static_cast<int>(compareNumerically(left, right, platform::systemCharacterProperties()));
}

// Both ways round.
void expectOrder(std::string_view left, std::string_view right, int expected) {
    EXPECT_EQ(compare(left, right), expected)
        << testing::PrintToString(left) << " and " << testing::PrintToString(right);
    EXPECT_EQ(compare(right, left), -expected)
        << testing::PrintToString(right) << " and " << testing::PrintToString(left);
}

bool hasAsciiDigit(const std::string& text) {
    return text.find_first_of("0123456789") != std::string::npos;
}

std::string repeated(std::string_view text, std::size_t count) {
    std::string result;
    result.reserve(text.size() * count);
    for (std::size_t i = 0; i < count; ++i) result += text;
    return result;
}

}  // namespace

TEST(DigitRuns, MatchThePublishedVectors) {
    for (const auto& vector : testVectors("digit-runs")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const std::string text = vector.at("input").at("text");
        std::vector<std::string> found;
        std::vector<std::string> integers;
        for (const std::string_view run : runs(text)) {
            found.emplace_back(run);
            integers.push_back(std::to_string(longLongValue(run)));
        }
        EXPECT_EQ(found, vector.at("expected").at("runs").get<std::vector<std::string>>());
        EXPECT_EQ(integers, vector.at("expected").at("integers").get<std::vector<std::string>>());
    }
}

TEST(DigitRuns, TakeDigitsOfAllScriptsAndNothingElse) {
    // Arabic-Indic, Devanagari, fullwidth, mathematical bold, and scripts side by side in one run.
    EXPECT_EQ(runs("\u0661\u0662"), (std::vector<std::string_view>{"\u0661\u0662"}));
    EXPECT_EQ(runs("x\u0967y\uFF11z\U0001D7CE"),
              (std::vector<std::string_view>{"\u0967", "\uFF11", "\U0001D7CE"}));
    EXPECT_EQ(runs("1\uFF11\u0661"), (std::vector<std::string_view>{"1\uFF11\u0661"}));
    // Superscript two, one half, circled one, Roman one, the ideograph one.
    EXPECT_TRUE(runs("\u00B2\u00BD\u2460\u2160\u4E00").empty());
}

TEST(DigitRuns, EndAtNulAndAtWhatIsNoText) {
    const std::string_view text("1\0002\xFF"
                                "3\xC3",
                                6);
    EXPECT_EQ(runs(text), (std::vector<std::string_view>{"1", "2", "3"}));
    EXPECT_EQ(runs("1\xEF\xBC"), (std::vector<std::string_view>{"1"})) << "half of a digit";
    EXPECT_TRUE(runs("").empty());
}

TEST(DigitRuns, StopAtTheirMaximum) {
    EXPECT_EQ(runs("1 2 3", 2), (std::vector<std::string_view>{"1", "2"}));
    EXPECT_EQ(runs("1 2 3", 3).size(), 3u);
    EXPECT_TRUE(runs("1", 0).empty());
}

TEST(NumericComparison, MatchesThePublishedVectors) {
    for (const auto& vector : testVectors("numeric-compare")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        expectOrder(vector.at("input").at("a").get<std::string>(),
                    vector.at("input").at("b").get<std::string>(),
                    vector.at("expected").get<int>());
    }
}

// Where there are no numbers it is the plain comparison.
TEST(NumericComparison, OrdersTextWithoutNumbersAsPlainComparisonDoes) {
    std::size_t compared = 0;
    for (const auto& vector : testVectors("string-compare")) {
        const std::string left = vector.at("input").at("a");
        const std::string right = vector.at("input").at("b");
        if (vector.at("input").at("mode") != "default" || hasAsciiDigit(left + right)) continue;
        SCOPED_TRACE(vector.at("id").get<std::string>());
        expectOrder(left, right, vector.at("expected").get<int>());
        ++compared;
    }
    EXPECT_GT(compared, 10u);
}

TEST(NumericComparison, KeepsTheLower64BitsOfANumber) {
    expectOrder("18446744073709551616", "0", 0);
    expectOrder("18446744073709551615", "18446744073709551616", 1);
    expectOrder("340282366920938463463374607431768211457", "1", 0);  // 2^128 + 1
}

TEST(NumericComparison, SeesCanonicalEquivalence) {
    expectOrder("\u00E9", "e\u0301", 0);
    expectOrder("\u212B", "A\u030A", 0);
    expectOrder("\uAC01", "\u1100\u1161\u11A8", 0);  // Hangul
    expectOrder("\u1EA1\u0301", "a\u0301\u0323", 0);
    expectOrder("\u00E1\u0323", "a\u0323\u0301", 0);
    expectOrder("\u00E1\u0323x", "\u1EA1\u0301y", -1);
    expectOrder("1\u0344", "1\u0308\u0301", 0);
    expectOrder("\u00E9"
                "2",
                "e\u0301"
                "10",
                -1);
    expectOrder("\u00E9"
                "02",
                "e\u0301"
                "2",
                0);
    expectOrder("\U0001D15E", "\U0001D157\U0001D165", 0);
}

TEST(NumericComparison, DoesNotTakeFurtherWhatOnlyLooksAlike) {
    expectOrder("\uFB01", "fi", 1);  // a ligature
    expectOrder("\u00E9", "e", 1);
    expectOrder("\u00E9", "ef", 1);
    expectOrder("\u00E9", "f", -1);
    expectOrder("e\u0301", "\u00E8", 1);  // U+0301 comes after U+0300
}

TEST(NumericComparison, OrdersByCodePointBeyondTheBasicPlane) {
    expectOrder("\uFFFD", "\U0001F600", -1);
    expectOrder("\U0001F600", "\U0001F601", -1);
}

TEST(NumericComparison, GoesOnAfterNul) {
    const std::string_view one("a\0001", 3);
    const std::string_view two("a\0002", 3);
    expectOrder(one, two, -1);
    expectOrder(std::string_view("a\0", 2), "a", 1);
}

TEST(NumericComparison, TakesWhatIsNoTextAsReplacementCharacters) {
    expectOrder("\xFF", "\uFFFD", 0);
    expectOrder("\xE2\x82", "\uFFFD", 0);
    expectOrder("\xC0\x80", "\uFFFD\uFFFD", 0);
    expectOrder("1\xFF",
                "1\xFE"
                "2",
                -1);
}

// Every order is the same both ways round, and what follows equal texts decides.
TEST(NumericComparison, IsAnOrderOfRandomTexts) {
    constexpr const char* kPieces[] = {"0",       "1",      "10",     "09",     "a",
                                       "e",       "\u00E9", ".",      "-",      " ",
                                       "e\u0301", "\u0323", "\u0301", "\uFF11", "\xFF"};
    std::mt19937 random(20261121);
    const auto text = [&] {
        std::string result;
        for (auto count = random() % 6; count > 0; --count)
            result += kPieces[random() % std::size(kPieces)];
        return result;
    };
    for (int i = 0; i < 20'000; ++i) {
        const std::string a = text(), b = text();
        ASSERT_EQ(compare(a, b), -compare(b, a)) << testing::PrintToString(a + "|" + b);
        ASSERT_EQ(compare(a, a), 0);
        if (compare(a, b) == 0 && a != b) {
            // Texts that differ only in zeros or spelling.
            EXPECT_EQ(compare(a + "z", b + "z"), 0) << testing::PrintToString(a + "|" + b);
        }
    }
}

// Ten megabytes of the worst. Anything worse than linear would take hours, not seconds.
TEST(NumericText, TakesLinearTimeForHostileTexts) {
    constexpr std::size_t kSize = 10'000'000;
    const std::pair<const char*, std::string_view> hostile[] = {
        {"digits", "9"},
        {"other digits", "\uFF19"},
        {"numbers", "1 "},
        {"marks in the wrong order", "\u0345\u0301\u0323\u0338"},
        {"composed letters", "\u1EA5"},
        {"what is no text", "\xF0\x9F"},
        {"NUL", std::string_view("\0", 1)},
    };
    for (const auto& [name, piece] : hostile) {
        SCOPED_TRACE(name);
        const std::string text = repeated(piece, kSize / piece.size());
        const std::string left = text + "1";
        const std::string right = text + "2";
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(compare(left, left), 0);
        (void)compare(left, right);
        // Every character has to be taken apart.
        (void)compare("\u00E1" + left, "a\u0301" + right);
        EXPECT_LE(runs(text, 5).size(), 5u);
        const auto time = std::chrono::steady_clock::now() - start;
        EXPECT_LT(time, std::chrono::seconds(60));
    }
}
