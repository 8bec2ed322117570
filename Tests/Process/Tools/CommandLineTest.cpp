#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/VirtualDisplay.h"

// What the tools answer to words on their command line, with nothing there that they could be started in.

namespace utilia::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

struct Tool {
    const char* bundle;
    const char* program;
};

constexpr Tool kTimer{test::places::kTimerBundle, "timer"};
constexpr Tool kCapture{test::places::kScreenCaptureBundle, "screen-capture"};

class CommandLineTest : public testing::TestWithParam<Tool> {
protected:
    static ProgramOutput run(const Tool& tool, std::vector<std::string> words) {
        words.insert(words.begin(),
                     std::string(tool.bundle) + "/Contents/Linux/" + std::string(tool.program));
        return runProgram(words, {{"DISPLAY", ":4711"}});
    }
    static std::string name() { return GetParam().program; }
    TemporaryHome home_;
};

TEST_P(CommandLineTest, PrintsHelpAndVersion) {
    const auto help = run(GetParam(), {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.text, StartsWith("Usage: " + name()));
    EXPECT_THAT(help.text, HasSubstr("  --version "));
    const auto version = run(GetParam(), {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.text, name() + " " UTILIA_VERSION);
}

TEST_P(CommandLineTest, RefusesOptionsThatItDoesNotKnow) {
    for (const std::string option : {"--bogus", "-b", "--help-me", "--show-ui"}) {
        const auto refused = run(GetParam(), {option});
        EXPECT_EQ(refused.status, 2) << option;
        EXPECT_THAT(refused.errors, HasSubstr(name() + ": \"" + option + "\" is no option\nRun \"" +
                                              name() + " --help\" for more.\n"));
    }
}

TEST_P(CommandLineTest, RefusesMoreWordsThanItTakes) {
    const auto refused = run(GetParam(), {"1:30", "30"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.errors, HasSubstr(" is one word too many\n"));
}

INSTANTIATE_TEST_SUITE_P(EachTool, CommandLineTest,
                         testing::Values(kTimer, kCapture,
                                         Tool{test::places::kMoonPhaseBundle, "moon-phase"},
                                         Tool{test::places::kKeepAwakeBundle, "keep-awake"}),
                         [](const auto& parameter) {
                             std::string name = parameter.param.program;
                             std::erase(name, '-');
                             return name;
                         });

using CommandLineWords = CommandLineTest;

TEST_F(CommandLineWords, ThatAreOptionsOfTheToolkitNeedTheirValues) {
    const auto refused = run(kCapture, {"-session"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.errors, HasSubstr("\"-session\" needs a value\n"));
    EXPECT_EQ(run(kTimer, {"-session", "1"}).status, 2);
}

TEST_F(CommandLineWords, ThatFollowTwoHyphensAreNoOptions) {
    const auto refused = run(kTimer, {"--", "--help"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.errors, HasSubstr("timer: \"--help\" is no time; "));
}

TEST_F(CommandLineWords, ThatAskForTheEndGoOnDoingSo) {
    EXPECT_EQ(run(kTimer, {"--turn-off"}).status, 0);
}

TEST_F(CommandLineWords, ThatCannotBeAnsweredEndInAFailure) {
    const std::string command =
        std::string("'") + test::places::kTimerBundle + "/Contents/Linux/timer' --help >/dev/full";
    EXPECT_EQ(runProgram({"sh", "-c", command}).status, 1);
}

}  // namespace
}  // namespace utilia::test
