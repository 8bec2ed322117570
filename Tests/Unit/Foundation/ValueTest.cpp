#include "Common/Foundation/Value.h"

#include <chrono>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "Tests/Support/TestVectors.h"

using namespace utilia;

TEST(Value, KnowsItsType) {
    EXPECT_EQ(Value(true).type(), Value::Type::Boolean);
    EXPECT_EQ(Value(1).type(), Value::Type::Integer);
    EXPECT_EQ(Value(UINT64_MAX).type(), Value::Type::Integer);
    EXPECT_EQ(Value(1.0).type(), Value::Type::Real);
    EXPECT_EQ(Value("text").type(), Value::Type::String);
    EXPECT_EQ(Value(Data{1, 2}).type(), Value::Type::Bytes);
    EXPECT_EQ(Value(Date{}).type(), Value::Type::Date);
    EXPECT_EQ(Value(Array{}).type(), Value::Type::Array);
    EXPECT_EQ(Value(Dictionary{}).type(), Value::Type::Dictionary);
    EXPECT_EQ(Value(nullptr).type(), Value::Type::Null);
}

TEST(Value, NullEqualsItselfAloneAndConvertsToNothing) {
    const Value null(nullptr);
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null, Value(nullptr));
    EXPECT_NE(null, Value(false));
    EXPECT_NE(null, Value(0));
    EXPECT_FALSE(Value("").isNull());
    EXPECT_FALSE(null.boolValue());
    EXPECT_EQ(null.longLongValue(), 0);
    EXPECT_EQ(null.string(), nullptr);
}

TEST(Value, NeverConfusesBooleanIntegerAndReal) {
    EXPECT_NE(Value(true), Value(1));
    EXPECT_NE(Value(1), Value(1.0));
    EXPECT_NE(Value(false), Value(0.0));
    EXPECT_NE(Value("1"), Value(1));
    EXPECT_EQ(Value(1).boolean(), nullptr);
    EXPECT_EQ(Value(true).integer(), nullptr);
    EXPECT_EQ(Value(1.0).integer(), nullptr);
    EXPECT_EQ(Value(1).real(), nullptr);
}

TEST(Value, KeepsIntegersThatFitSigned) {
    const Value largest(static_cast<std::uint64_t>(INT64_MAX));

    ASSERT_NE(largest.integer(), nullptr);
    EXPECT_EQ(*largest.integer(), INT64_MAX);
    EXPECT_EQ(largest.largeInteger(), nullptr);
    EXPECT_EQ(largest, Value(std::int64_t{INT64_MAX}));
    EXPECT_EQ(Value(std::uint64_t{5}), Value(5));
}

TEST(Value, KeepsIntegersAboveTheSignedRange) {
    const Value large(std::uint64_t{1} << 63);

    EXPECT_EQ(large.integer(), nullptr);
    ASSERT_NE(large.largeInteger(), nullptr);
    EXPECT_EQ(*large.largeInteger(), std::uint64_t{1} << 63);
    EXPECT_NE(large, Value(std::int64_t{INT64_MIN}));
    EXPECT_TRUE(large.boolValue());
    EXPECT_EQ(large.longLongValue(), INT64_MAX);
    EXPECT_EQ(large.doubleValue(), 9223372036854775808.0);
}

TEST(Value, ComparesTextUnitByUnit) {
    EXPECT_EQ(Value("é"), Value("é"));
    EXPECT_NE(Value("\u00E9"), Value("e\u0301"));
    EXPECT_NE(Value("a"), Value("A"));
    EXPECT_NE(Value(std::string_view("a\0b", 3)), Value("a"));
}

TEST(Value, EqualsItsOwnCopyWhateverItHolds) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Array array{nan, 1.5};
    Array copy = array;
    copy.append(1);
    copy.removeAt(2);

    EXPECT_EQ(Value(nan), Value(nan));
    EXPECT_EQ(Value(array), Value(copy));
    EXPECT_EQ(Value(0.0), Value(-0.0));
    EXPECT_NE(Value(nan), Value(0.0));
}

TEST(Value, ConvertsNumbersToBooleansByBeingZero) {
    EXPECT_TRUE(Value(true).boolValue());
    EXPECT_FALSE(Value(false).boolValue());
    EXPECT_TRUE(Value(-3).boolValue());
    EXPECT_FALSE(Value(0).boolValue());
    EXPECT_TRUE(Value(0.5).boolValue());
    EXPECT_FALSE(Value(-0.0).boolValue());
}

TEST(Value, ConvertsTextByTheRulesOfText) {
    EXPECT_TRUE(Value(" YES").boolValue());
    EXPECT_FALSE(Value("on").boolValue());
    EXPECT_EQ(Value(" -12x").longLongValue(), -12);
    EXPECT_EQ(Value("2.5 pixels").doubleValue(), 2.5);
}

TEST(Value, TruncatesRealsTowardZeroAndSaturates) {
    EXPECT_EQ(Value(2.9).longLongValue(), 2);
    EXPECT_EQ(Value(-2.9).longLongValue(), -2);
    EXPECT_EQ(Value(1e300).longLongValue(), INT64_MAX);
    EXPECT_EQ(Value(-1e300).longLongValue(), INT64_MIN);
    EXPECT_EQ(Value(9223372036854775808.0).longLongValue(), INT64_MAX);
    EXPECT_EQ(Value(-9223372036854775808.0).longLongValue(), INT64_MIN);
    EXPECT_EQ(Value(std::numeric_limits<double>::quiet_NaN()).longLongValue(), 0);
    EXPECT_EQ(Value(-std::numeric_limits<double>::infinity()).longLongValue(), INT64_MIN);
}

TEST(Value, ConvertsOtherTypesToNothing) {
    for (const Value& value :
         {Value(Data{1}), Value(Date{5}), Value(Array{1}), Value(Dictionary{{"a", 1}})}) {
        EXPECT_FALSE(value.boolValue());
        EXPECT_EQ(value.longLongValue(), 0);
        EXPECT_EQ(value.doubleValue(), 0);
    }
    EXPECT_EQ(Value(true).longLongValue(), 1);
    EXPECT_EQ(Value(true).doubleValue(), 1.0);
    EXPECT_EQ(Value(7).doubleValue(), 7.0);
}

TEST(Date, CountsFromItsReferenceMoment) {
    for (const auto& vector : test::testVectors("constants")) {
        if (vector.at("input").at("name") != "kCFAbsoluteTimeIntervalSince1970") continue;
        EXPECT_EQ(Date::kReferenceUnixTime, vector.at("expected").get<double>());
    }
    EXPECT_EQ(Date::fromUnixTime(978307200.25).secondsSinceReferenceDate, 0.25);
    EXPECT_EQ(Date{-978307200.0}.unixTime(), 0.0);
}

TEST(Date, NowLiesBetweenTwoReadingsOfTheClock) {
    const auto clock = [] {
        return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const double before = clock();
    const double now = Date::now().unixTime();
    const double after = clock();

    // Seconds since 1970 and since 2001 are rounded differently, by less than a microsecond.
    EXPECT_GE(now, before - 1e-6);
    EXPECT_LE(now, after + 1e-6);
}
