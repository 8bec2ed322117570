#include "Applications/utiliactl/JsonText.h"

#include <cmath>
#include <limits>

#include "Applications/utiliactl/PlainText.h"

namespace utilia::control {
namespace {

TEST(JsonText, KeepsTheTypesOfValues) {
    const struct {
        Value value;
        const char* json;
    } table[] = {
        {true, "true"},
        {false, "false"},
        {1, "1"},
        {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
        {std::numeric_limits<std::int64_t>::max(), "9223372036854775807"},
        {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
        {0.1, "0.1"},
        {1.0, "1.0"},
        {604800.5, "604800.5"},
        {INFINITY, "null"},
        {NAN, "null"},
        {"ü \"\n", "\"ü \\\"\\n\""},
        {Data{0, 0xff, 0x10}, "\"AP8Q\""},
        {Data{}, "\"\""},
        {Date{0}, "\"2001-01-01T00:00:00.000Z\""},
        {Array{}, "[]"},
        {Dictionary{}, "{}"},
        {Array{1, "a", Array{true}}, "[1,\"a\",[true]]"},
        {Dictionary{{"b", 1}, {"a", 2}}, "{\"b\":1,\"a\":2}"},
    };
    for (const auto& row : table) EXPECT_EQ(jsonFromValue(row.value).dump(), row.json);
}

TEST(JsonText, DatesAreRoundedToMilliseconds) {
    const struct {
        double seconds;
        const char* text;
    } table[] = {
        {0, "2001-01-01T00:00:00.000Z"},
        {636613567.1236, "2021-03-05T05:06:07.124Z"},
        {-0.0004, "2001-01-01T00:00:00.000Z"},
        {-0.001, "2000-12-31T23:59:59.999Z"},
        {59.9996, "2001-01-01T00:01:00.000Z"},
        {-978307200, "1970-01-01T00:00:00.000Z"},
        {-63145526400, "0000-01-01T00:00:00.000Z"},
        {-63145526401, "@-63145526401"},  // the year before 0000
        {252423993598, "9999-12-31T23:59:58.000Z"},
        {1e300, "@1.0000000000000001e+300"},
        {-1e300, "@-1.0000000000000001e+300"},
    };
    for (const auto& row : table) EXPECT_EQ(dateText(Date{row.seconds}), row.text);
}

TEST(PlainText, OutlinesContainers) {
    const Dictionary value{{"list", Array{Dictionary{{"a", true}}, "text"}},
                           {"empty", Dictionary{}},
                           {"data", Data{1, 2, 3}},
                           {"date", Date{0.5}}};
    EXPECT_EQ(outline(value), "\"list\":\n"
                              "  -\n"
                              "    \"a\": true\n"
                              "  - \"text\"\n"
                              "\"empty\": {}\n"
                              "\"data\": <3 bytes> AQID\n"
                              "\"date\": 2001-01-01T00:00:00.500Z\n");
    EXPECT_EQ(outline(Value("a\x1b[31m")), "\"a\\u001b[31m\"\n");
    EXPECT_EQ(outline(Array{}), "[]\n");
}

TEST(PlainText, AlignsColumnsAndShowsNoControlCharacters) {
    EXPECT_EQ(table({"A", "B"}, {}, "Nothing."), "Nothing.\n");
    EXPECT_EQ(table({"A", "LONG"}, {{"ü", "x"}, {"\x1b[31m", "y"}}, ""),
              "A      LONG\nü      x\n?[31m  y\n");
}

}  // namespace
}  // namespace utilia::control
