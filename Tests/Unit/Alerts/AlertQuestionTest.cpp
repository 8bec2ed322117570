#include "Common/Platform/Linux/AlertQuestion.h"

#include <gtest/gtest.h>

#include "Common/Foundation/Unicode.h"

namespace utilia::platform {
namespace {

using namespace std::string_view_literals;

TEST(DisplayableText, LeavesPlainTextOfAnyLanguageAsItIs) {
    for (const char* text : {"", "Quit", "Zwei\nZeilen\tund mehr", "日本語", "العربية",
                             "🙂&<b>%@\\", "a\u200Eb\u200Fc", "\u00A0\u2028"}) {
        EXPECT_EQ(displayableText(text, 100), text);
    }
}

TEST(DisplayableText, ReplacesWhatIsNoText) {
    EXPECT_EQ(displayableText("a\x1b[31mb", 100), "a\uFFFD[31mb");
    EXPECT_EQ(displayableText("a\0b"sv, 100), "a\uFFFDb");
    EXPECT_EQ(displayableText("a\r\x7f\u009bb", 100), "a\uFFFD\uFFFD\uFFFDb");
    EXPECT_EQ(displayableText("a\xff\xc3", 100), "a\uFFFD\uFFFD");
    EXPECT_EQ(displayableText("\xed\xa0\x80", 100), "\uFFFD\uFFFD\uFFFD") << "a lone surrogate";
}

TEST(DisplayableText, TakesOutWhatWouldTurnTheTextAroundIt) {
    EXPECT_EQ(displayableText("\u202Egpj.exe\u202C \u2066a\u2069", 100), "gpj.exe a");
}

TEST(DisplayableText, IsCutBetweenCharacters) {
    EXPECT_EQ(displayableText("12345678", 8), "12345678");
    EXPECT_EQ(displayableText("123456789", 8), "12345…");
    EXPECT_EQ(displayableText("ääää", 8), "ääää");
    EXPECT_EQ(displayableText("äääää", 8), "ää…") << "five bytes are left, and no half letter";
    EXPECT_EQ(displayableText("🙂🙂🙂", 8), "🙂…");
}

TEST(DisplayableText, KeepsToItsLimitForTextsOfAnySize) {
    for (const std::string& unit : {std::string("x"), std::string("\0", 1), std::string("\u202E"),
                                    std::string("🙂"), std::string("\xff")}) {
        for (std::size_t count : {100u, 1000u, 100000u}) {
            std::string text;
            for (std::size_t i = 0; i < count; ++i) text += unit;
            const std::string shown = displayableText(text, 1000);
            EXPECT_LE(shown.size(), 1000u);
            EXPECT_TRUE(isValidUtf8(shown));
        }
    }
}

TEST(AlertQuestion, IsEncodedAsItsPageShows) {
    const AlertQuestion question{.style = AlertStyle::Informational,
                                 .language = "de",
                                 .title = "Timer",
                                 .message = "Was?",
                                 .buttons = {"Ja", "Nein"}};
    EXPECT_EQ(encodeAlertQuestion(question), "utilia-alert 1\0"
                                             "1\0de\0Timer\0Was?\0Ja\0Nein\0"sv);
}

TEST(AlertAnswer, IsTheIndexOfAButton) {
    EXPECT_EQ(decodeAlertAnswer("button 0", 2).value(), 0u);
    EXPECT_EQ(decodeAlertAnswer("button 1", 2).value(), 1u);
    EXPECT_EQ(decodeAlertAnswer("button 12", 13).value(), 12u);
}

TEST(AlertAnswer, MayBeThatThereIsNoDisplay) {
    const auto answer = decodeAlertAnswer("no-display could not connect\x1b", 2);
    ASSERT_FALSE(answer);
    EXPECT_TRUE(answer.error().is(UtiliaErrorCode::Unavailable));
    EXPECT_EQ(answer.error().description, "the display cannot be opened: could not connect\uFFFD");
}

TEST(AlertAnswer, IsRefusedWhenItIsNone) {
    for (const std::string_view packet :
         {""sv, "button"sv, "button "sv, "button 2"sv, "button -1"sv, "button +1"sv, "button 1 "sv,
          "button 1\0"sv, "button 1\n"sv, "button 0x1"sv, "button 99999999999999999999"sv,
          "Button 1"sv, "1"sv, "no-displayed"sv, "\xff\xff"sv}) {
        const auto answer = decodeAlertAnswer(packet, 2);
        ASSERT_FALSE(answer) << packet;
        EXPECT_TRUE(answer.error().is(UtiliaErrorCode::Refused)) << packet;
    }
}

}  // namespace
}  // namespace utilia::platform
