#include "Common/UtiliaCommon/AdminSettings/KAVKeyValueHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

using Pieces = std::vector<std::string>;
using testing::ElementsAre;

struct Answer {
    bool isAccepted = false;
    std::optional<Pieces> pieces = Pieces{"untouched"};
    std::int64_t error = 77;
};

Answer parse(std::optional<std::string_view> text) {
    Answer answer;
    answer.isAccepted =
        KAVKeyValueHelper::arrayFromWhiteListString(text, &answer.pieces, &answer.error);
    return answer;
}

TEST(WhiteListText, IsSplitAtCommasAndTrimmed) {
    const std::vector<std::pair<std::string, Pieces>> table{
        {"Timer", {"Timer"}},
        {" Timer ,\tMoonPhase ", {"Timer", "MoonPhase"}},
        {"b,a,b", {"b", "a", "b"}},
        {"timer,TIMER", {"timer", "TIMER"}},
        {"Timer,,MoonPhase", {"Timer", "", "MoonPhase"}},
        {"Timer, ,MoonPhase", {"Timer", "", "MoonPhase"}},
        {",", {"", ""}},
        {"Timer,", {"Timer", ""}},
        {"\nTimer\n,Moon Phase", {"\nTimer\n", "Moon Phase"}},
        {"\u00a0Timer\u3000,\u2003M\u200b", {"Timer", "M"}},
        {"\xff Timer \xff", {"\xff Timer \xff"}},
        {"business-toolset-only", {"business-toolset-only"}},
        {" business-toolset-only\t", {"business-toolset-only"}},
        {"Business-Toolset-Only,Timer", {"Business-Toolset-Only", "Timer"}},
        {"\n", {"\n"}},
    };
    const test::TestLog log;
    for (const auto& [text, pieces] : table) {
        SCOPED_TRACE(text);
        const Answer answer = parse(text);
        EXPECT_TRUE(answer.isAccepted);
        EXPECT_EQ(answer.pieces, pieces);
        EXPECT_EQ(answer.error, 0);
    }
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST(WhiteListText, OfBlanksAloneRemovesTheKey) {
    for (const char* text : {"", " ", " \t "}) {
        const Answer answer = parse(text);
        EXPECT_TRUE(answer.isAccepted);
        EXPECT_EQ(answer.pieces, std::nullopt);
        EXPECT_EQ(answer.error, 0);
    }
}

TEST(WhiteListText, ThatIsMissingIsAnError) {
    const Answer answer = parse(std::nullopt);
    EXPECT_FALSE(answer.isAccepted);
    EXPECT_EQ(answer.pieces, std::nullopt);
    EXPECT_EQ(answer.error, -1);
}

TEST(WhiteListText, NamesTheSubsetAloneOrNotAtAll) {
    for (const char* text :
         {"business-toolset-only,Timer", "Timer , business-toolset-only", "business-toolset-only,",
          "business-toolset-only,business-toolset-only"}) {
        const test::TestLog log;
        const Answer answer = parse(text);
        EXPECT_FALSE(answer.isAccepted);
        EXPECT_EQ(answer.pieces, std::nullopt);
        EXPECT_EQ(answer.error, -1);
        EXPECT_THAT(log.lines(), ElementsAre("Ambigius white-tools-list parameters. Value "
                                             "'business-toolset-only' must be used singly."));
    }
}

TEST(WhiteListText, TouchesNothingWithoutBothPlaces) {
    std::optional<Pieces> pieces = Pieces{"untouched"};
    std::int64_t error = 77;
    EXPECT_FALSE(KAVKeyValueHelper::arrayFromWhiteListString("Timer", nullptr, &error));
    EXPECT_FALSE(KAVKeyValueHelper::arrayFromWhiteListString("Timer", &pieces, nullptr));
    EXPECT_EQ(pieces, Pieces{"untouched"});
    EXPECT_EQ(error, 77);
}

}  // namespace
}  // namespace utilia
