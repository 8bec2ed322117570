#include <nlohmann/json.hpp>

#include "Common/Platform/UserDefaults.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Unit/Utiliactl/ControlProgram.h"

namespace utilia {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kTool = "com.korvane.utilia.SampleTool";

UTILIA_CHILD_ROLE(runPausingTool) {
    if (!platform::RunningApplication::registerCurrentApplication()) return 1;
    self.say("up");
    self.waitForLine();
    return 0;
}

class SuggestionsCommandTest : public test::ControlProgramTest {
protected:
    json status() { return json::parse(answer({"suggestions", "status", "--json"})); }

    const json notPaused_{{"paused", false}, {"by", json::array()}};
    const json pausedByTool_{{"paused", true}, {"by", {kTool}}};
};

TEST_F(SuggestionsCommandTest, ArePausedForAsLongAsTheToolRuns) {
    const test::TestBundle bundle(home_);
    auto tool = bundle.role("runPausingTool");
    ASSERT_EQ(tool.waitForLine(), "up");
    EXPECT_EQ(answer({"suggestions", "pause", kTool}), "");
    EXPECT_EQ(status(), pausedByTool_);
    EXPECT_EQ(answer({"suggestions", "status"}), "PAUSED BY\ncom.korvane.utilia.SampleTool\n");
    tool.kill();
    EXPECT_EQ(status(), notPaused_);
}

TEST_F(SuggestionsCommandTest, AreResumed) {
    const test::TestBundle bundle(home_);
    auto tool = bundle.role("runPausingTool");
    ASSERT_EQ(tool.waitForLine(), "up");
    answer({"suggestions", "pause", kTool});
    EXPECT_EQ(answer({"suggestions", "resume", kTool}), "");
    EXPECT_EQ(status(), notPaused_);
    EXPECT_EQ(answer({"suggestions", "resume", kTool}), "") << "it need not be paused";
}

TEST_F(SuggestionsCommandTest, AreResumedAlsoWhenTheToolIsListedTwice) {
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        suite.setObject(Array{kTool, "other", kTool}, kToolsSuggestionsPausedByKey);
    });
    EXPECT_EQ(answer({"suggestions", "resume", kTool}), "");
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        EXPECT_EQ(suite.arrayForKey(kToolsSuggestionsPausedByKey), Array{"other"});
    });
}

TEST_F(SuggestionsCommandTest, TheUserIsToldWhenThePauseWillNotLast) {
    EXPECT_EQ(answer({"suggestions", "pause", kTool}),
              "\"com.korvane.utilia.SampleTool\" does not run: this is forgotten when the state is "
              "next asked for.\n");
    EXPECT_EQ(answer({"suggestions", "status"}), "Suggestions are not paused.\n");
}

TEST_F(SuggestionsCommandTest, WithoutAStoreTheyAreNotPaused) { EXPECT_EQ(status(), notPaused_); }

TEST_F(SuggestionsCommandTest, SayWhenTheWishCannotBeStored) {
    std::filesystem::create_directories(home_.groupContainer() / "Library/Preferences" /
                                        "7QK2M9ZD4R.com.korvane.utilia.plist.new" / "not empty");
    EXPECT_THAT(refusal(1, {"suggestions", "pause", kTool}),
                HasSubstr("utiliactl: the pause cannot be stored\n"));
}

TEST_F(SuggestionsCommandTest, WrongUsageIsAnsweredWithStatus2) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"suggestions"},
                                                      {"suggestions", "pause"},
                                                      {"suggestions", "pause", ""},
                                                      {"suggestions", "pause", kTool, "more"},
                                                      {"suggestions", "resume"},
                                                      {"suggestions", "status", kTool}}) {
        EXPECT_THAT(refusal(2, arguments), StartsWith("utiliactl: "));
    }
}

}  // namespace
}  // namespace utilia
