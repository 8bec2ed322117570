#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/JSONSerialization.h"
#include "Tests/Support/TestVectors.h"

namespace utilia::platform {
namespace {

Data bytesOf(std::string_view text) { return Data(text.begin(), text.end()); }

Result<Value> read(std::string_view text, JSONNotes* notes = nullptr) {
    return jsonObjectFromData(bytesOf(text), notes);
}

// The one element of an array that is read; its reading must succeed.
Value element(std::string_view text) {
    const auto array = read("[" + std::string(text) + "]");
    EXPECT_TRUE(array) << array.error().description;
    return array ? (*array->array())[0] : Value(nullptr);
}

// The description of the error of a text that must not be read.
std::string complaint(std::string_view text) {
    const auto refused = read(text);
    EXPECT_FALSE(refused) << text;
    if (refused) return "read";
    EXPECT_EQ(refused.error().domain, kCocoaErrorDomain);
    EXPECT_EQ(refused.error().code, 3840);
    return refused.error().description;
}

std::string nested(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST(JSONReading, FollowsTheVectors) {
    for (const auto& vector : test::testVectors("json-parse")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const auto value = read(vector.at("input").at("text").get<std::string>());
        const auto& expected = vector.at("expected");
        if (expected.contains("code")) {
            ASSERT_FALSE(value);
            EXPECT_EQ(value.error().code, expected.at("code").get<int>());
            EXPECT_EQ(value.error().domain, expected.at("domain").get<std::string>());
        } else {
            ASSERT_TRUE(value) << value.error().description;
            EXPECT_EQ(value->array() ? "array" : "object",
                      expected.at("top_level").get<std::string>());
        }
    }
}

TEST(JSONReading, AnswersEachKindOfValue) {
    EXPECT_EQ(element("true"), Value(true));
    EXPECT_EQ(element("false"), Value(false));
    EXPECT_TRUE(element("null").isNull());
    EXPECT_EQ(element("\"text\""), Value("text"));
    EXPECT_EQ(element("[1, [2]]"), Value(Array{1, Array{2}}));
    EXPECT_EQ(element("{\"a\": {\"b\": []}}"),
              Value(Dictionary{{"a", Dictionary{{"b", Array()}}}}));
}

TEST(JSONReading, KeepsIntegersAndRealsApart) {
    EXPECT_EQ(element("0"), Value(0));
    EXPECT_EQ(element("-0"), Value(0));
    EXPECT_EQ(element("1"), Value(1));
    EXPECT_EQ(element("1.0"), Value(1.0));
    EXPECT_EQ(element("1e2"), Value(100.0));
    EXPECT_EQ(element("-0.25E-1"), Value(-0.025));
    EXPECT_EQ(element("9223372036854775807"), Value(INT64_MAX));
    EXPECT_EQ(element("-9223372036854775808"), Value(INT64_MIN));
    EXPECT_EQ(element("18446744073709551615"), Value(UINT64_MAX));
    EXPECT_EQ(element("18446744073709551616"), Value(18446744073709551616.0));
    EXPECT_EQ(element("-9223372036854775809"), Value(-9223372036854775809.0));
    EXPECT_EQ(element("1e-999"), Value(0.0));
}

TEST(JSONReading, KnowsEveryEscape) {
    EXPECT_EQ(element(R"("\"\\\/\b\f\n\r\t")"), Value("\"\\/\b\f\n\r\t"));
    EXPECT_EQ(element(R"("\u00e9\u65E5\ud83d\ude00")"), Value("é日😀"));
    EXPECT_EQ(element(R"("a\u0000b")"), Value(std::string("a\0b", 3)));
    EXPECT_EQ(element("\"é日😀\x7f\""), Value("é日😀\x7f"));
}

TEST(JSONReading, SaysWhatIsWrongAndWhere) {
    EXPECT_EQ(complaint(""), "there is no text");
    EXPECT_EQ(complaint(" \n "), "line 2, column 2: there is nothing but blanks");
    EXPECT_EQ(complaint("5"), "line 1, column 1: an object or an array must come first");
    EXPECT_EQ(complaint("{} x"), "line 1, column 4: something follows the end");
    EXPECT_EQ(complaint("{\n  \"é\": 1,\n  \"ü\" 2\n}"),
              "line 3, column 7: \":\" is missing after a key");
    EXPECT_EQ(complaint("[1, 2,]"), "line 1, column 7: a value is missing");
    EXPECT_EQ(complaint("[1 2]"), "line 1, column 4: \",\" or \"]\" is missing");
    EXPECT_EQ(complaint("{\"a\": 1,}"), "line 1, column 9: a key in quotes is missing");
    EXPECT_EQ(complaint("{\"a\": 1"), "line 1, column 8: \",\" or \"}\" is missing");
    EXPECT_EQ(complaint("[1,"), "line 1, column 4: the text ends where a value is missing");
    EXPECT_EQ(complaint("[01]"), "line 1, column 2: a number begins with a needless 0");
    EXPECT_EQ(complaint("[-]"), "line 1, column 3: a digit is missing");
    EXPECT_EQ(complaint("[1.]"), "line 1, column 4: a digit is missing after \".\"");
    EXPECT_EQ(complaint("[1e+]"), "line 1, column 5: a digit is missing in the exponent");
    EXPECT_EQ(complaint("[1e999]"), "line 1, column 2: a number is too large");
    EXPECT_EQ(complaint("[\"a"), "line 1, column 2: a text has no closing quote");
    EXPECT_EQ(complaint("[\"\t\"]"),
              "line 1, column 3: a control character in a text must be written as an escape");
    EXPECT_EQ(complaint("[\"\\x\"]"), "line 1, column 3: there is no such escape");
    EXPECT_EQ(complaint("[\"\\u12g4\"]"),
              "line 1, column 5: four hexadecimal digits must follow \"\\u\"");
    EXPECT_EQ(complaint("[\"\\ud834x\"]"), "line 1, column 3: half a surrogate pair stands alone");
    EXPECT_EQ(complaint("[\"\\udc00\"]"), "line 1, column 3: half a surrogate pair stands alone");
    EXPECT_EQ(complaint("{\"a\":\n \"\xff\"}"), "line 2, column 3: the text is not UTF-8");
    EXPECT_EQ(complaint("[tru]"), "line 1, column 2: a value is missing");
}

TEST(JSONReading, RefusesWhatOnlyLooksLikeJson) {
    for (const char* text :
         {"[NaN]",         "[Infinity]",    "[-Infinity]",   "[+1]",       "[.5]",
          "[0x10]",        "[1_000]",       "['a']",         "{a:1}",      "{1:2}",
          "[1] // c",      "/* c */[]",     "[\"a\nb\"]",    "[\xC2\xA0]", "[\v]",
          "[truefalse]",   "[--1]",         "[1e1.5]",       "[]]",        "{}{}",
          "[\"\\U0041\"]", "[\"\\u+041\"]", "[\"\\u 041\"]", "\xEF\xBB"}) {
        EXPECT_THAT(complaint(text), testing::StartsWith("line 1, column ")) << text;
    }
}

TEST(JSONReading, RefusesNestingBeyondItsLimit) {
    EXPECT_TRUE(read(nested(kJSONMaximumDepth)));
    EXPECT_EQ(complaint(nested(kJSONMaximumDepth + 1)),
              "line 1, column 513: arrays and objects are nested too deep");
    EXPECT_FALSE(read(std::string(1'000'000, '[')));
    std::string objects;
    for (std::size_t i = 0; i <= kJSONMaximumDepth; ++i) objects += "{\"a\":";
    EXPECT_FALSE(read(objects));
}

TEST(JSONReading, RefusesTextBeyondItsLimit) {
    const std::string largest = "[" + std::string(kJSONMaximumSize - 2, ' ') + "]";
    EXPECT_TRUE(read(largest));
    EXPECT_EQ(complaint(largest + " "), "the text is too large");
}

TEST(JSONReading, TakesTheLastOfTwoMembersWithOneKey) {
    JSONNotes notes;
    const auto value = read("{\"a\": 1, \"b\": {\"c\": 1,\n \"c\": 2},\n  \"a\": 3}", &notes);
    ASSERT_TRUE(value);
    EXPECT_EQ(*value, Value(Dictionary{{"a", 3}, {"b", Dictionary{{"c", 2}}}}));
    ASSERT_EQ(notes.duplicateKeys.size(), 2u);
    EXPECT_EQ(notes.duplicateKeys[0].key, "c");
    EXPECT_EQ(notes.duplicateKeys[0].position, (JSONPosition{2, 2}));
    EXPECT_EQ(notes.duplicateKeys[1].key, "a");
    EXPECT_EQ(notes.duplicateKeys[1].position, (JSONPosition{3, 3}));
    EXPECT_EQ(notes.error, JSONPosition());
}

TEST(JSONReading, NotesWhereItStopped) {
    JSONNotes notes;
    EXPECT_FALSE(read("{\"a\": 1,\n\"a\": 2,\n  oops}", &notes));
    EXPECT_EQ(notes.error, (JSONPosition{3, 3}));
    EXPECT_TRUE(read("{}", &notes));
    EXPECT_EQ(notes.error, JSONPosition());
}

TEST(JSONReading, CountsManyDuplicatesInReasonableTime) {
    std::string text = "{\"a\":0";
    while (text.size() < 2'000'000) text += ",\"a\":0";
    JSONNotes notes;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(read(text + "}", &notes));
    // A walk over the text for each of them would take minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
    EXPECT_GT(notes.duplicateKeys.size(), 300'000u);
}

std::string utf16(std::u16string_view text, bool isBigEndian) {
    std::string bytes;
    for (const char16_t unit : text) {
        const char high = static_cast<char>(unit >> 8);
        const char low = static_cast<char>(unit & 0xFF);
        bytes += isBigEndian ? std::string{high, low} : std::string{low, high};
    }
    return bytes;
}

std::string utf32(std::u32string_view text, bool isBigEndian) {
    std::string bytes;
    for (const char32_t unit : text) {
        for (int i = 0; i < 4; ++i) {
            const int shift = 8 * (isBigEndian ? 3 - i : i);
            bytes += static_cast<char>(unit >> shift & 0xFF);
        }
    }
    return bytes;
}

TEST(JSONReading, ReadsEveryUnicodeEncodingWithAndWithoutMark) {
    const Value expected(Dictionary{{"é", Array{"😀", 1}}});
    const std::string_view utf8 = "{\"é\": [\"😀\", 1]}";
    const std::u16string_view wide = u"{\"é\": [\"😀\", 1]}";
    const std::u32string_view wider = U"{\"é\": [\"😀\", 1]}";
    std::vector<std::string> texts{std::string(utf8), "\xEF\xBB\xBF" + std::string(utf8)};
    for (const bool isBigEndian : {false, true}) {
        texts.push_back(utf16(wide, isBigEndian));
        texts.push_back(utf16(u"\uFEFF" + std::u16string(wide), isBigEndian));
        texts.push_back(utf32(wider, isBigEndian));
        texts.push_back(utf32(U"\uFEFF" + std::u32string(wider), isBigEndian));
    }
    for (const std::string& text : texts) {
        const auto value = read(text);
        ASSERT_TRUE(value) << value.error().description << " in " << testing::PrintToString(text);
        EXPECT_EQ(*value, expected);
    }
}

TEST(JSONReading, RefusesIllFormedTextInEveryEncoding) {
    EXPECT_EQ(complaint(utf16(u"[\"a\xD800\"]", true)), "the text is not UTF-16");
    EXPECT_EQ(complaint(utf16(u"[]", false) + " "), "the text is not UTF-16");
    EXPECT_EQ(complaint(utf32(U"[\"\x110000\"]", false)), "the text is not UTF-32");
    EXPECT_EQ(complaint(utf32(U"[\"\xD800\"]", true)), "the text is not UTF-32");
    EXPECT_EQ(complaint(utf32(U"[]", true) + " "), "the text is not UTF-32");
    EXPECT_EQ(complaint("\xFF\xFE"), "line 1, column 1: there is nothing but blanks");
}

TEST(JSONReading, NeverTakesACutOrChangedTextForAnotherWholeOne) {
    const std::string text =
        R"({"WhiteToolsList": ["Timer", "MoonPhase"], "UpdatesDisabled": true})";
    for (std::size_t length = 0; length < text.size(); ++length)
        EXPECT_FALSE(read(text.substr(0, length))) << length;
    for (std::size_t i = 0; i < text.size(); ++i) {
        for (const int bit : {1, 2, 4, 8, 16, 32, 64, 128}) {
            std::string damaged = text;
            damaged[i] = static_cast<char>(damaged[i] ^ bit);
            if (const auto value = read(damaged)) {
                EXPECT_TRUE(value->dictionary()) << damaged;
            }
        }
    }
}

}  // namespace
}  // namespace utilia::platform
