#include "Common/Foundation/Numbers.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "Tests/Support/TestVectors.h"

using namespace utilia;
using utilia::test::testVectors;

TEST(Numbers, MatchThePublishedVectors) {
    for (const auto& vector : testVectors("integer-parse")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const std::string function = vector.at("input").at("op");
        const std::string text = vector.at("input").at("text");
        const auto& expected = vector.at("expected");
        if (function == "boolValue") {
            EXPECT_EQ(boolValue(text), expected.get<bool>()) << text;
        } else if (function == "intValue") {
            EXPECT_EQ(std::to_string(intValue(text)), expected.get<std::string>()) << text;
        } else {
            ASSERT_TRUE(function == "integerValue" || function == "longLongValue") << function;
            EXPECT_EQ(std::to_string(longLongValue(text)), expected.get<std::string>()) << text;
        }
    }
}

TEST(Numbers, SaturateExactlyAtTheEndsOfTheRange) {
    EXPECT_EQ(longLongValue("9223372036854775806"), INT64_MAX - 1);
    EXPECT_EQ(longLongValue("-9223372036854775807"), INT64_MIN + 1);
    EXPECT_EQ(longLongValue("9223372036854775810"), INT64_MAX);
    EXPECT_EQ(longLongValue("-9223372036854775810"), INT64_MIN);
    EXPECT_EQ(intValue("2147483647"), INT32_MAX);
    EXPECT_EQ(intValue("2147483648"), INT32_MAX);
    EXPECT_EQ(intValue("-2147483647"), INT32_MIN + 1);
}

TEST(Numbers, SkipWhiteSpaceAndLineBreaksOfAllScripts) {
    EXPECT_EQ(
        longLongValue(" \t\n\v\f\r-\u00A0\u1680\u2000\u200B\u202F\u205F\u3000\u0085\u2028\u20297"),
        -7);
    EXPECT_EQ(longLongValue("\u200C7"), 0);  // no white space
    EXPECT_EQ(longLongValue("\uFEFF7"), 0);
    EXPECT_EQ(longLongValue("\xC2 7"), 0);  // ill-formed
    EXPECT_EQ(longLongValue(std::string_view("\0007", 2)), 0);
}

TEST(Numbers, TakeOneSignOnly) {
    EXPECT_EQ(longLongValue("+-5"), 0);
    EXPECT_EQ(longLongValue("- -5"), 0);
    EXPECT_EQ(longLongValue("- + 5"), 0);
    EXPECT_EQ(longLongValue("\u22125"), 0);  // the typographic minus
}

TEST(Numbers, ReadBooleansFromTheirFirstCharacters) {
    for (const char* yes :
         {"t", "T", "y", "Y", "\t \tyes", "truth", "+01", "-9", "5", "Yikes", "+0000001"}) {
        EXPECT_TRUE(boolValue(yes)) << yes;
    }
    for (const char* no : {"", " ", "\t", "+", "-", "+t", "- 1", "+-1", "0", "00", "0x1", "n", "f",
                           ".5", "\n1", "\u00A0y", "\uFF11", "0 1"}) {
        EXPECT_FALSE(boolValue(no)) << testing::PrintToString(no);
    }
}

TEST(Numbers, ReadDecimalFractionsAndExponents) {
    EXPECT_EQ(doubleValue("1.5"), 1.5);
    EXPECT_EQ(doubleValue(" \n- 2.25e2xyz"), -225.0);
    EXPECT_EQ(doubleValue("+.5"), 0.5);
    EXPECT_EQ(doubleValue("5."), 5.0);
    EXPECT_EQ(doubleValue("1e"), 1.0);
    EXPECT_EQ(doubleValue("1e+"), 1.0);
    EXPECT_EQ(doubleValue("0.1"), 0.1);
    EXPECT_EQ(doubleValue("1,5"), 1.0);
    EXPECT_EQ(doubleValue("0x10"), 0.0);
    EXPECT_EQ(doubleValue("1.7976931348623157e308"), std::numeric_limits<double>::max());
    EXPECT_EQ(doubleValue("4.9406564584124654e-324"), std::numeric_limits<double>::denorm_min());
}

TEST(Numbers, ReadNoWordsAndNoBrokenNumbersAsReals) {
    for (const char* text :
         {"", " ", ".", "-", "-.", "e5", ".e5", "inf", "nan", "infinity", "--1", "+-1", "abc"}) {
        const double value = doubleValue(text);
        EXPECT_EQ(value, 0.0) << text;
    }
}

TEST(Numbers, AnswerInfinityOrZeroForRealsThatNoDoubleHolds) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(doubleValue("1e309"), kInfinity);
    EXPECT_EQ(doubleValue("-1e999999999999999999999999"), -kInfinity);
    EXPECT_EQ(doubleValue("1e-999999999999999999999999"), 0.0);
    EXPECT_TRUE(std::signbit(doubleValue("-1e-400")));
    EXPECT_EQ(doubleValue("0e999999999999"), 0.0);
    EXPECT_EQ(doubleValue("0.000e400"), 0.0);
    EXPECT_EQ(doubleValue(std::string(400, '9')), kInfinity);
    EXPECT_EQ(doubleValue("0." + std::string(400, '0') + "1"), 0.0);
    EXPECT_EQ(doubleValue("0." + std::string(400, '0') + "1e401"), 1.0);
    EXPECT_EQ(doubleValue(std::string(401, '0') + "1e-400"), 0.0);
}

TEST(Numbers, HandleVeryLongTextsInLinearTime) {
    const std::string digits(4'000'000, '9');
    const std::string blanks(4'000'000, ' ');
    const std::string zeros(4'000'000, '0');

    EXPECT_EQ(longLongValue(digits), INT64_MAX);
    EXPECT_EQ(longLongValue(blanks + "-" + blanks + "5"), -5);
    EXPECT_EQ(longLongValue(zeros + "5"), 5);
    EXPECT_TRUE(boolValue(blanks + "+" + zeros + "1"));
    EXPECT_EQ(doubleValue(digits), std::numeric_limits<double>::infinity());
    EXPECT_EQ(doubleValue("0." + digits), 1.0);
    EXPECT_EQ(doubleValue(zeros + "5"), 5.0);
    EXPECT_EQ(doubleValue("1e" + digits), std::numeric_limits<double>::infinity());
}
