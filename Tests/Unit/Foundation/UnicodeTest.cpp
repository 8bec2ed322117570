#include "Common/Foundation/Unicode.h"

#include <gtest/gtest.h>

using namespace utilia;

namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

}  // namespace

TEST(Unicode, AcceptsTheFirstAndLastCharacterOfEachLength) {
    EXPECT_TRUE(isValidUtf8(""));
    EXPECT_TRUE(isValidUtf8(std::string(1, '\0')));
    for (const char* text :
         {"\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
          "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_TRUE(isValidUtf8(text)) << testing::PrintToString(text);
    }
}

TEST(Unicode, RefusesWhatIsNoCharacter) {
    const char* const refused[] = {
        "\x80",              // a continuation alone
        "\xBF",              //
        "\xC0\x80",          // overlong NUL
        "\xC1\xBF",          // overlong, two bytes
        "\xC2",              // ends early
        "\xC2\x41",          // no continuation
        "\xE0\x9F\xBF",      // overlong, three bytes
        "\xE2\x82",          // ends early
        "\xED\xA0\x80",      // high surrogate
        "\xED\xBF\xBF",      // low surrogate
        "\xF0\x8F\xBF\xBF",  // overlong, four bytes
        "\xF0\x9F\x98",      // ends early
        "\xF4\x90\x80\x80",  // above U+10FFFF
        "\xF5\x80\x80\x80",  //
        "\xFE",              // never in UTF-8
        "\xFF",              //
    };
    for (const char* text : refused)
        EXPECT_FALSE(isValidUtf8(text)) << testing::PrintToString(text);
}

TEST(Unicode, ConvertsCharactersOfEveryLengthBothWays) {
    const std::string utf8 = "a\xC3\xA9\xE6\x97\xA5\xF0\x9F\x8E\xAC";
    const std::u16string utf16 = u"aé日\U0001F3AC";

    EXPECT_EQ(utf16.size(), 5u);
    EXPECT_EQ(utf16FromUtf8(utf8), utf16);
    EXPECT_EQ(utf8FromUtf16(utf16), utf8);
}

TEST(Unicode, ConvertsEveryCharacterThereAndBack) {
    for (char32_t character = 0; character <= 0x10FFFF; ++character) {
        if (character >= 0xD800 && character <= 0xDFFF) continue;
        std::u16string units;
        if (character < 0x10000) {
            units = {static_cast<char16_t>(character)};
        } else {
            units = {static_cast<char16_t>(0xD7C0 + (character >> 10)),
                     static_cast<char16_t>(0xDC00 + (character & 0x3FF))};
        }
        const std::string utf8 = utf8FromUtf16(units);
        ASSERT_TRUE(isValidUtf8(utf8)) << std::hex << static_cast<std::uint32_t>(character);
        ASSERT_EQ(utf16FromUtf8(utf8), units) << std::hex << static_cast<std::uint32_t>(character);
    }
}

TEST(Unicode, ReplacesEachMaximalPartOfAnIllFormedSequence) {
    const struct {
        const char* utf8;
        std::u16string utf16;
    } cases[] = {
        {"\x80", u"\uFFFD"},
        {"a\xFFz", u"a\uFFFDz"},
        {"\xC0\x80", u"\uFFFD\uFFFD"},
        {"\xE2\x82z", u"\uFFFDz"},
        {"\xE2\x82", u"\uFFFD"},
        {"\xF0\x9F\x98", u"\uFFFD"},
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
        // The example of the Unicode standard, table 3-8.
        {"a\xF1\x80\x80\xE1\x80\xC2"
         "b\x80"
         "c\x80\xBF"
         "d",
         u"a\uFFFD\uFFFD\uFFFDb\uFFFDc\uFFFD\uFFFDd"},
    };
    for (const auto& one : cases)
        EXPECT_EQ(utf16FromUtf8(one.utf8), one.utf16) << testing::PrintToString(one.utf8);
}

TEST(Unicode, ReplacesLoneSurrogates) {
    const auto units = [](std::initializer_list<char16_t> list) { return std::u16string(list); };

    EXPECT_EQ(utf8FromUtf16(units({0xD800})), kReplacement);
    EXPECT_EQ(utf8FromUtf16(units({0xDC00})), kReplacement);
    EXPECT_EQ(utf8FromUtf16(units({'a', 0xD83D, 'b'})), "a" + kReplacement + "b");
    EXPECT_EQ(utf8FromUtf16(units({0xDC00, 0xD800})), kReplacement + kReplacement);
    EXPECT_EQ(utf8FromUtf16(units({0xD83D, 0xD83D, 0xDE00})), kReplacement + "\xF0\x9F\x98\x80");
}
