#include "Common/Logging/LogFormatter.h"

#include <array>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "Tests/Support/TestVectors.h"

using namespace utilia;

namespace {

template <class... Arguments>
std::string format(std::string_view text, const Arguments&... arguments) {
    const std::array<LogArgument, sizeof...(arguments)> list{LogArgument(arguments)...};
    return formatLogLine(text, list);
}

std::string format(std::string_view text) { return formatLogLine(text, {}); }

}  // namespace

TEST(LogFormatter, FillsPlaceholdersInOrder) {
    EXPECT_EQ(format("Tool with bundleId %@ is restricted.", "com.korvane.tool"),
              "Tool with bundleId com.korvane.tool is restricted.");
    EXPECT_EQ(format("%s=%d, %u, %ld, %lu, %lx, %lld", "a", -1, 2u, -3L, 4UL, 255UL, -5LL),
              "a=-1, 2, -3, 4, ff, -5");
    EXPECT_EQ(format("%@%@%@", 1, "b", 3), "1b3");
    EXPECT_EQ(format(""), "");
    EXPECT_EQ(format("no placeholders"), "no placeholders");
}

TEST(LogFormatter, MatchesThePublishedNumberVectors) {
    for (const auto& vector : test::testVectors("number-format")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const std::string placeholder = vector.at("input").at("format");
        const std::string value = vector.at("input").at("value");
        const std::string expected = vector.at("expected");
        if (placeholder == "%g" || placeholder == "%f") {
            EXPECT_EQ(format(placeholder, std::stod(value)), expected) << value;
        } else {
            const std::int64_t number = value == "NSNotFound" ? INT64_MAX : std::stoll(value);
            EXPECT_EQ(format(placeholder, number), expected) << value;
        }
    }
}

TEST(LogFormatter, PrintsWholeRangesOfIntegers) {
    EXPECT_EQ(format("%d", INT64_MIN), "-9223372036854775808");
    EXPECT_EQ(format("%u", UINT64_MAX), "18446744073709551615");
    EXPECT_EQ(format("%lx", UINT64_MAX), "ffffffffffffffff");
    EXPECT_EQ(format("%lx", 0), "0");
    EXPECT_EQ(format("%d %d", static_cast<short>(-7), static_cast<unsigned char>(200)), "-7 200");
}

TEST(LogFormatter, PrintsRealsWithoutLocale) {
    EXPECT_EQ(format("%f", 0.5), "0.500000");
    EXPECT_EQ(format("%f", 1e22), "10000000000000000000000.000000");
    EXPECT_EQ(format("%f", -0.0), "-0.000000");
    EXPECT_EQ(format("%g", -0.0), "-0");
    EXPECT_EQ(format("%g", 0.0001), "0.0001");
    EXPECT_EQ(format("%f", -std::numeric_limits<double>::infinity()), "-inf");
    EXPECT_EQ(format("%g", -std::nan("")), "nan");
    EXPECT_EQ(format("%f", -std::numeric_limits<double>::max()).size(), 1u + 309 + 7);
    EXPECT_EQ(format("%@", 0.1), "0.1");
    EXPECT_EQ(format("%@", 1e100), "1e+100");
}

TEST(LogFormatter, AnyArgumentFitsTheObjectPlaceholder) {
    EXPECT_EQ(format("%@", true), "1");
    EXPECT_EQ(format("%@", -5), "-5");
    EXPECT_EQ(format("%@", nullptr), "(null)");
    EXPECT_EQ(format("%@", static_cast<const char*>(nullptr)), "(null)");
    EXPECT_EQ(format("%@", std::optional<std::string>()), "(null)");
    EXPECT_EQ(format("%@", std::optional<std::string>("text")), "text");
    EXPECT_EQ(format("%@", Error::posix(2, "open", "/x")), "open /x: No such file or directory");
    EXPECT_EQ(format("%s|%s", nullptr, std::string("text")), "(null)|text");
}

TEST(LogFormatter, TakesIntegersOfTheOtherSignWhenTheyFit) {
    EXPECT_EQ(format("%d", std::uint64_t{7}), "7");
    EXPECT_EQ(format("%lu", 7), "7");
    EXPECT_EQ(format("%lx", 255), "ff");
    EXPECT_EQ(format("%d", UINT64_MAX), "<%d: 18446744073709551615>");
    EXPECT_EQ(format("%u", -1), "<%u: -1>");
    EXPECT_EQ(format("%lx", -1), "<%lx: -1>");
}

TEST(LogFormatter, MarksArgumentsOfTheWrongType) {
    EXPECT_EQ(format("%d!", "text"), "<%d: text>!");
    EXPECT_EQ(format("%lld", nullptr), "<%lld: (null)>");
    EXPECT_EQ(format("%d", 1.5), "<%d: 1.5>");
    EXPECT_EQ(format("%s", 5), "<%s: 5>");
    EXPECT_EQ(format("%f", 5), "<%f: 5>");
    EXPECT_EQ(format("%g", "1.5"), "<%g: 1.5>");
}

TEST(LogFormatter, MarksArgumentsThatAreMissingOrTooMany) {
    EXPECT_EQ(format("%@ and %d", "a"), "a and <%d: missing>");
    EXPECT_EQ(format("%lld"), "<%lld: missing>");
    EXPECT_EQ(format("text", 1, nullptr), "text <extra: 1> <extra: (null)>");
    EXPECT_EQ(format("%@", "a", "b"), "a <extra: b>");
}

TEST(LogFormatter, MarksUnknownPlaceholdersAndTakesNoArgumentForThem) {
    EXPECT_EQ(format("%q %d", 1), "<%q?> 1");
    EXPECT_EQ(format("%5d"), "<%5?>d");
    EXPECT_EQ(format("%l"), "<%l?>");
    EXPECT_EQ(format("%ll"), "<%ll?>");
    EXPECT_EQ(format("%llu"), "<%llu?>");
    EXPECT_EQ(format("%lll"), "<%lll?>");
    EXPECT_EQ(format("%n", 5), "<%n?> <extra: 5>");
    EXPECT_EQ(format("%"), "<%?>");
    EXPECT_EQ(format("100% sure"), "100<% ?>sure");
    EXPECT_EQ(format("%é"), "<%é?>");
    EXPECT_EQ(format("%\xFF."), "<%\xFF?>.");
    EXPECT_EQ(format("%l%d", 1), "<%l?>1");
}

TEST(LogFormatter, WritesAPercentSign) {
    EXPECT_EQ(format("100%%"), "100%");
    EXPECT_EQ(format("%%d"), "%d");
    EXPECT_EQ(format("%%%d%%", 5), "%5%");
}

TEST(LogFormatter, NeverReadsPlaceholdersInArguments) {
    EXPECT_EQ(format("%@ %d", "%d %s", 5), "%d %s 5");
    EXPECT_EQ(format("x", "%d"), "x <extra: %d>");
}

TEST(LogFormatter, KeepsControlCharactersAndNulOfArguments) {
    EXPECT_EQ(format("[%@]", std::string_view("a\0\n\x1B", 4)), std::string_view("[a\0\n\x1B]", 6));
}

TEST(LogFormatter, HandlesVeryLongFormatsInLinearTime) {
    std::string placeholders;
    for (int i = 0; i < 1'000'000; ++i) placeholders += "%l%%";

    EXPECT_EQ(formatLogLine(placeholders, {}).size(),
              1'000'000 * std::string_view("<%l?>%").size());
    EXPECT_EQ(format("%@", std::string(4'000'000, '%')).size(), 4'000'000u);
}
