#include <cmath>
#include <cstdlib>
#include <limits>

#include <time.h>

#include "Common/Foundation/Unicode.h"
#include "Common/UtiliaCommon/CEP/AttributeNames.h"
#include "Common/UtiliaCommon/CEP/EventRecord.h"
#include "Tests/Support/TestVectors.h"
#include "Tests/Unit/EventLog/XmlDocument.h"

namespace utilia {
namespace {

using test::XmlDocument;

const EventSource kTool{"com.korvane.utilia.Timer", "/Applications/Timer.app", "1.2-34"};
const std::string kStart = "<event timestamp=\"2021-03-05 05:06:07.123\" tool=\"com.korvane.utilia."
                           "Timer\" toollocation=\"/Applications/Timer.app\" toolversion=\"1.2-34\""
                           " action=\"Start\"";

std::string record(std::string_view action, const Dictionary* attributes, const Dictionary* options,
                   const Dictionary* details, const EventSource& source = kTool) {
    TextBuffer out;
    // A moment whose milliseconds are the same in every binary fraction.
    appendEventRecord(out, Date{636613567.1235}, source, action, attributes, options, details);
    return std::string(out.text());
}

std::string withDetails(const Dictionary& details) {
    return record("Start", nullptr, nullptr, &details);
}

std::string escaped(std::string_view text) {
    TextBuffer out;
    appendEscaped(out, text);
    return std::string(out.text());
}

// What a reader gets back for the value.
std::string readBack(const Value& value) {
    const auto document = XmlDocument::parse(withDetails({{"v", value}}));
    if (!document) return "(not well-formed)";
    return XmlDocument::attribute(XmlDocument::child(document->root(), "details"), "v");
}

class TimeZoneOfTest final {
public:
    explicit TimeZoneOfTest(const char* name) {
        setenv("TZ", name, 1);
        tzset();
    }
    ~TimeZoneOfTest() {
        unsetenv("TZ");
        tzset();
    }
};

TEST(EventRecord, IsOneLineWithoutDictionaries) {
    EXPECT_EQ(record("Start", nullptr, nullptr, nullptr), kStart + "/>\n");
    const Dictionary empty;
    EXPECT_EQ(record("Start", &empty, &empty, &empty), kStart + "/>\n");
}

TEST(EventRecord, WritesSimpleDetailsAsAttributes) {
    EXPECT_EQ(withDetails({{"FromInstaller", true}}),
              kStart + ">\n\t<details FromInstaller=\"true\"/>\n</event>\n");
}

TEST(EventRecord, WritesAnArrayAsAnElementWithNumberedAttributes) {
    EXPECT_EQ(withDetails({{"k", Array{"a", "b"}}}),
              kStart + ">\n\t<details>\n\t\t<k _0=\"a\" _1=\"b\"/>\n\t</details>\n</event>\n");
}

TEST(EventRecord, WritesOptionsBeforeDetailsAndAttributesIntoItsTag) {
    const Dictionary attributes{{"a", 1}, {"list", Array{"x"}}};
    const Dictionary options{{"o", 2}, {"inner", Dictionary{{"p", 3}}}};
    const Dictionary details{{"d", 4}};
    EXPECT_EQ(record("Start", &attributes, &options, &details), kStart + " a=\"1\">\n"
                                                                         "\t<list _0=\"x\"/>\n"
                                                                         "\t<options o=\"2\">\n"
                                                                         "\t\t<inner p=\"3\"/>\n"
                                                                         "\t</options>\n"
                                                                         "\t<details d=\"4\"/>\n"
                                                                         "</event>\n");
}

TEST(EventRecord, WritesAttributesAloneIntoAnEmptyTag) {
    const Dictionary attributes{{"a", 1}};
    EXPECT_EQ(record("Start", &attributes, nullptr, nullptr), kStart + " a=\"1\"/>\n");
    const Dictionary nested{{"inner", Dictionary()}};
    EXPECT_EQ(record("Start", &nested, nullptr, nullptr), kStart + ">\n\t<inner/>\n</event>\n");
}

TEST(EventRecord, WritesEachSimpleType) {
    const TimeZoneOfTest zone("Europe/Berlin");
    EXPECT_EQ(withDetails({{"string", "text"},
                           {"yes", true},
                           {"no", false},
                           {"integer", -42},
                           {"large", std::uint64_t{18446744073709551615U}},
                           {"real", 0.5},
                           {"date", Date{636613567.1236}}}),
              kStart + ">\n\t<details string=\"text\" yes=\"true\" no=\"false\" integer=\"-42\" "
                       "large=\"-1\" real=\"0.5\" date=\"2021-03-05 06:06:07.124 +0100\"/>\n"
                       "</event>\n");
}

TEST(EventRecord, LeavesOutWhatItCannotHold) {
    EXPECT_EQ(withDetails({{"bytes", Data{1, 2}},
                           {"null", nullptr},
                           {"never", Date{std::numeric_limits<double>::infinity()}},
                           {"late", Date{1e15}},
                           {"kept", 1}}),
              kStart + ">\n\t<details kept=\"1\"/>\n</event>\n");
    EXPECT_EQ(withDetails({{"null", nullptr}}), kStart + ">\n\t<details/>\n</event>\n");
}

TEST(EventRecord, CountsItemsOfAnArrayThatItLeavesOut) {
    EXPECT_EQ(withDetails({{"k", Array{nullptr, "a", Array{"x"}, Data{1}, "b"}}}),
              kStart + ">\n\t<details>\n\t\t<k _1=\"a\" _4=\"b\">\n\t\t\t<_2 _0=\"x\"/>\n\t\t</k>\n"
                       "\t</details>\n</event>\n");
}

TEST(EventRecord, HasNoToolWithoutAnIdentifier) {
    EXPECT_EQ(record("Start", nullptr, nullptr, nullptr, {}),
              "<event timestamp=\"2021-03-05 05:06:07.123\" toollocation=\"\" toolversion=\"\" "
              "action=\"Start\"/>\n");
}

TEST(EventRecord, WritesActionPathAndVersionAsTheyAre) {
    const EventSource source{"a<b", "/A & \"B\".app", "1>0-\xC3\xBC"};
    EXPECT_EQ(record("<&\xC3\xBC\">", nullptr, nullptr, nullptr, source),
              "<event timestamp=\"2021-03-05 05:06:07.123\" tool=\"a<b\" toollocation=\"/A & "
              "\"B\".app\" toolversion=\"1>0-\xC3\xBC\" action=\"<&\xC3\xBC\">\"/>\n");
}

TEST(EventRecord, HasNothingInItThatXmlForbidsEvenInAnAction) {
    const std::string action("a\0b\x1F\xFF\xED\xA0\x80\xEF\xBF\xBE"
                             "c\td",
                             14);
    const std::string text = record(action, nullptr, nullptr, nullptr);
    EXPECT_NE(text.find("action=\"a\uFFFDb\uFFFD\uFFFD\uFFFD\uFFFD"
                        "c\td\""),
              std::string::npos)
        << text;
    EXPECT_TRUE(XmlDocument::parse(text));
}

TEST(EventRecord, EscapesInOrder) {
    EXPECT_EQ(escaped("&<>\"'"), "&amp;&lt;&gt;&quot;'");
    EXPECT_EQ(escaped("&amp;"), "&amp;amp;");
    EXPECT_EQ(escaped("na\u00EFve caf\u00E9"), "na&#xEF;ve caf&#xE9;");
    EXPECT_EQ(escaped("a\tb\r\nc"), "a&#x9;b&#xD;&#xA;c");
    EXPECT_EQ(escaped("\U0001F600"), "&#x1F600;");
    EXPECT_EQ(escaped("\x7F\u0080\u0085\u009F"), "&#x7F;&#x80;&#x85;&#x9F;");
}

TEST(EventRecord, ReplacesWhatNoDocumentMayContain) {
    EXPECT_EQ(escaped(std::string_view("\0", 1)), "&#xFFFD;");
    EXPECT_EQ(escaped("\x01\x08\x0B\x1B\x1F"), "&#xFFFD;&#xFFFD;&#xFFFD;&#xFFFD;&#xFFFD;");
    EXPECT_EQ(escaped("\xEF\xBF\xBE\xEF\xBF\xBF"), "&#xFFFD;&#xFFFD;");  // U+FFFE, U+FFFF
    EXPECT_EQ(escaped("\xED\xA0\xBD"), "&#xFFFD;");                      // a lone surrogate
    EXPECT_EQ(escaped("\xED\xA0\xBD\xED\xB8\x80"), "&#xFFFD;&#xFFFD;");
    EXPECT_EQ(escaped("\xFF\xC3"), "&#xFFFD;&#xFFFD;");
    EXPECT_EQ(escaped("\xF0\x9F\x98"), "&#xFFFD;");  // cut
}

// A code unit in UTF-8, surrogates too.
std::string spelling(char32_t unit) {
    std::string text;
    if (unit < 0xD800 || unit > 0xDFFF) {
        appendUtf8(text, unit);
        return text;
    }
    return {'\xED', static_cast<char>(0x80 | (unit >> 6 & 0x3F)),
            static_cast<char>(0x80 | (unit & 0x3F))};
}

// References to characters that XML forbids as references to the replacement character.
std::string withoutForbidden(const std::string& text) {
    std::string result = text;
    std::size_t place = 0;
    while ((place = result.find("&#x", place)) != std::string::npos) {
        const std::size_t end = result.find(';', place);
        const auto code = std::stoul(result.substr(place + 3, end - place - 3), nullptr, 16);
        const bool isControl = code < 0x20 && code != '\t' && code != '\n' && code != '\r';
        if (isControl || (code >= 0xD800 && code <= 0xDFFF) || code == 0xFFFE || code == 0xFFFF)
            result.replace(place, end - place, "&#xFFFD");
        place += 3;
    }
    return result;
}

TEST(EventRecord, TransformsLikeTheOriginalPlatform) {
    std::size_t tried = 0;
    for (const auto& vector : test::testVectors("xml-hex")) {
        SCOPED_TRACE(vector["id"].get<std::string>());
        std::string expected = vector["expected"];
        std::string input;
        if (vector["input"].contains("text")) {
            input = vector["input"]["text"];
        } else {
            for (const auto& unit : vector["input"]["utf16"])
                input += spelling(
                    static_cast<char32_t>(std::stoul(unit.get<std::string>(), nullptr, 16)));
        }
        // The vectors are of the transform alone: before it, markup is escaped and what XML forbids
        // is replaced.
        if (input.starts_with('&')) expected.replace(0, 1, "&amp;");
        expected = withoutForbidden(expected);
        EXPECT_EQ(escaped(input), expected);
        ++tried;
    }
    EXPECT_GT(tried, 40u);
}

TEST(EventRecord, WritesRealsLikeTheOriginalPlatform) {
    std::size_t tried = 0;
    for (const auto& vector : test::testVectors("number-format")) {
        if (vector["input"]["format"] != "%g") continue;
        const std::string text = vector["input"]["value"];
        SCOPED_TRACE(text);
        const double value = std::strtod(text.c_str(), nullptr);
        EXPECT_EQ(readBack(value), vector["expected"].get<std::string>());
        ++tried;
    }
    EXPECT_GT(tried, 10u);
    EXPECT_EQ(readBack(std::numeric_limits<double>::quiet_NaN()), "nan");
    EXPECT_EQ(readBack(-std::numeric_limits<double>::quiet_NaN()), "nan");
    EXPECT_EQ(readBack(-std::numeric_limits<double>::infinity()), "-inf");
    EXPECT_EQ(readBack(std::numeric_limits<double>::denorm_min()), "4.94066e-324");
    EXPECT_EQ(readBack(-1e308), "-1e+308");
}

TEST(EventRecord, WritesDatesLikeTheOriginalPlatformInTheGregorianCalendar) {
    std::size_t tried = 0;
    for (const auto& vector : test::testVectors("date-format")) {
        const std::string locale = vector["input"]["locale"];
        // These have calendars or digits of their own there; here they have not.
        if (locale == "th_TH" || locale == "ar_EG" || locale == "fa_IR") continue;
        SCOPED_TRACE(vector["id"].get<std::string>());
        const std::string zone = vector["input"]["time_zone"];
        const TimeZoneOfTest timeZone(zone == "GMT" ? "UTC" : zone.c_str());
        const std::string time = vector["input"]["absolute_time"];
        EXPECT_EQ(readBack(Date{std::stod(time)}), vector["expected"].get<std::string>());
        ++tried;
    }
    EXPECT_GT(tried, 20u);
}

TEST(EventRecord, CutsMillisecondsOfTheTimestampAndRoundsThoseOfDates) {
    const auto timestamp = [](double time) {
        TextBuffer out;
        appendTimestamp(out, Date{time});
        return std::string(out.text());
    };
    EXPECT_EQ(timestamp(636613567.1236), "2021-03-05 05:06:07.123");
    EXPECT_EQ(timestamp(636613567.9999), "2021-03-05 05:06:07.999");
    EXPECT_EQ(timestamp(-1.5), "2000-12-31 23:59:58.500");
    EXPECT_EQ(timestamp(0), "2001-01-01 00:00:00.000");
    const TimeZoneOfTest zone("UTC");
    EXPECT_EQ(readBack(Date{636613567.9999}), "2021-03-05 05:06:08.000 +0000");
}

TEST(EventRecord, KnowsTheCalendar) {
    const TimeZoneOfTest zone("UTC");
    for (std::int64_t day = -400'000; day < 800'000; day += 97) {
        const double time = static_cast<double>(day) * 86'400;
        const auto moment = static_cast<time_t>(Date{time}.unixTime());
        tm expected{};
        gmtime_r(&moment, &expected);
        char text[64];
        strftime(text, sizeof text, "-%m-%d %H:%M:%S.000 +0000", &expected);
        char year[16];
        snprintf(year, sizeof year, "%04d", expected.tm_year + 1900);
        ASSERT_EQ(readBack(Date{time}), year + std::string(text));
    }
}

TEST(EventRecord, WritesDatesOfTheYears1To9999) {
    const TimeZoneOfTest zone("UTC");
    EXPECT_EQ(readBack(Date{-63113904000.0}), "0001-01-01 00:00:00.000 +0000");
    EXPECT_EQ(readBack(Date{-63113904001.0}), "(none)");
    EXPECT_EQ(readBack(Date{252423993599.0}), "9999-12-31 23:59:59.000 +0000");
    EXPECT_EQ(readBack(Date{252423993600.0}), "(none)");
    EXPECT_EQ(readBack(Date{std::nan("")}), "(none)");
}

TEST(EventRecord, StopsBelowTheSeventhElement) {
    Dictionary deepest{{"v", 99}};
    Value value = deepest;
    for (int depth = 30; depth > 0; --depth)
        value = Dictionary{{"v", depth}, {"e" + std::to_string(depth), value}};
    const std::string text = withDetails(*value.dictionary());
    const auto document = XmlDocument::parse(text);
    ASSERT_TRUE(document) << text;
    EXPECT_NE(text.find("\n\t\t\t\t\t\t\t<e6 v=\"7\"/>\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("e7"), std::string::npos);
}

TEST(EventRecord, MakesNamesOfKeysThatAreNone) {
    EXPECT_EQ(xmlName("Name-1.x_"), "Name-1.x_");
    EXPECT_EQ(xmlName("gr\u00F6\u00DFe"), "gr\u00F6\u00DFe");
    EXPECT_EQ(xmlName(""), "_");
    EXPECT_EQ(xmlName("a b"), "a_b");
    EXPECT_EQ(xmlName("1st"), "_1st");
    EXPECT_EQ(xmlName("-"), "_-");
    EXPECT_EQ(xmlName("x:y"), "x_y");
    EXPECT_EQ(xmlName("\xFF"
                      "a<\""),
              "_a__");
    EXPECT_EQ(xmlName("xmlns"), "_xmlns");
    EXPECT_EQ(xmlName(std::string_view("\0", 1)), "_");
    EXPECT_EQ(xmlName("\U0001F600"), "\U0001F600");  // allowed by XML
    EXPECT_EQ(xmlName(std::string(5000, 'n')), std::string(kLongestName, 'n'));
}

TEST(EventRecord, GivesNoTwoAttributesTheSameName) {
    EXPECT_EQ(withDetails({{"a b", 1}, {"a_b", 2}, {"a\tb", 3}, {"a_b_2", 4}}),
              kStart + ">\n\t<details a_b_3=\"1\" a_b=\"2\" a_b_4=\"3\" a_b_2=\"4\"/>\n</event>\n");
    EXPECT_EQ(withDetails({{"", 1}, {" ", 2}, {"list", Array{"x"}}}),
              kStart + ">\n\t<details _=\"1\" __2=\"2\">\n\t\t<list _0=\"x\"/>\n\t</details>\n"
                       "</event>\n");
}

TEST(EventRecord, KeepsItsOwnAttributes) {
    const Dictionary attributes{{"action", "mine"}, {"timestamp", 1}, {"other", 2}};
    EXPECT_EQ(record("Start", &attributes, nullptr, nullptr),
              kStart + " action_2=\"mine\" timestamp_2=\"1\" other=\"2\"/>\n");
    EXPECT_EQ(withDetails({{"action", "mine"}}),
              kStart + ">\n\t<details action=\"mine\"/>\n</event>\n");
}

TEST(EventRecord, GrowsBeyondItsFirstBuffer) {
    for (const std::size_t size : {3900U, 4095U, 4096U, 4097U, 8192U, 1'000'000U}) {
        const std::string value(size, 'x');
        EXPECT_EQ(withDetails({{"v", value}}),
                  kStart + ">\n\t<details v=\"" + value + "\"/>\n</event>\n");
    }
}

TEST(EventRecord, TakesAContainerForEmptyWithoutEntries) {
    const Dictionary empty;
    const Dictionary filled{{"a", nullptr}};
    EXPECT_TRUE(IsEmptyContainer(nullptr));
    EXPECT_TRUE(IsEmptyContainer(&empty));
    EXPECT_FALSE(IsEmptyContainer(&filled));
}

}  // namespace
}  // namespace utilia
