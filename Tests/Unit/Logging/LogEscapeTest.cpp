#include "Common/Logging/LogEscape.h"

#include <gtest/gtest.h>

using namespace utilia;

TEST(LogEscape, KeepsOrdinaryTextOfAllScripts) {
    const std::string text = "a\tb \\ \"~ é 日本語 🎬 \u00A0\uFEFF";

    EXPECT_EQ(escapedLogLine(text), text);
    EXPECT_EQ(escapedLogLine(""), "");
}

TEST(LogEscape, ShowsWhateverCouldEndALine) {
    EXPECT_EQ(escapedLogLine("a\nb\rc"), "a\\nb\\rc");
    EXPECT_EQ(escapedLogLine("\v\f\u0085\u2028\u2029"), "\\u000B\\u000C\\u0085\\u2028\\u2029");
}

TEST(LogEscape, ShowsWhateverCouldSteerATerminal) {
    EXPECT_EQ(escapedLogLine("\x1B[31mred\a\b\x7F"), "\\u001B[31mred\\u0007\\u0008\\u007F");
    EXPECT_EQ(escapedLogLine("\u009B31m"), "\\u009B31m");
    EXPECT_EQ(escapedLogLine(std::string_view("a\0b", 3)), "a\\u0000b");
    EXPECT_EQ(escapedLogLine("\u202Egpj.exe\u2066"), "\\u202Egpj.exe\\u2066");
}

TEST(LogEscape, ShowsBytesThatAreNoText) {
    EXPECT_EQ(escapedLogLine("a\xFF\xC0z"), "a\\xFF\\xC0z");
    EXPECT_EQ(escapedLogLine("\xE2\x82"), "\\xE2\\x82");
    EXPECT_EQ(escapedLogLine("\x9B"), "\\x9B");  // a C1 control to terminals that read single bytes
}
