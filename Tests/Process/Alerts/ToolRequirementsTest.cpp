#include "Common/UtiliaCommon/ToolRequirements.h"

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Common/Foundation/Value.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/Workspace.h"
#include "Tests/Process/Alerts/AskingRole.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/ReportPipe.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

// Tools in bundles of their own, an agent that is installed, runs or is missing, and a program in the place of the
// window that notes the question and gives the answer that the test wants.

namespace utilia {
namespace {

namespace fs = std::filesystem;
using platform::RunningApplication;
using test::AskingTool;
using test::ReportPipe;
using test::TemporaryHome;
using test::TestBundle;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kAgent = "com.korvane.utilia";

// Says 1 or 0, and 2 more when it was brought to the front before there was a question.
UTILIA_CHILD_ROLE(checkRequirements) {
    return test::sayAnswer(self, [&self] {
        int answer = 0;
        platform::Application::sharedApplication().setActivateHandler([&] {
            if (!fs::exists(self.arguments.at(1))) answer += 2;
        });
        const std::string& flag = self.arguments.at(0);
        const bool canRun = flag == "default" ? ToolRequirements::checkToolCanRun()
                                              : ToolRequirements::checkToolCanRun(flag == "yes");
        return answer + (canRun ? 1 : 0);
    });
}

// The agent: reports its start, and is listed as running until the test's folder of stops has a file.
// It outlives the tool that launched it, which may be gone before this has begun.
UTILIA_CHILD_ROLE(runAsAgent) {
    test::outliveLauncher();
    const bool isListed = RunningApplication::registerCurrentApplication().has_value();
    ReportPipe::report(self.arguments.at(0), isListed ? "agent" : "agent without a place");
    return test::eventually([&] { return fs::exists(self.arguments.at(1)); }) ? 0 : 1;
}

class ToolRequirementsTest : public testing::Test {
protected:
    ~ToolRequirementsTest() override {
        std::ofstream(stop()) << "";
        EXPECT_TRUE(test::eventually([] { return agents().empty(); }));
    }

    TestBundle toolWith(const Dictionary& info) {
        TestBundle bundle(home_, {.name = "Tool " + std::to_string(++tools_), .info = info});
        const fs::path library = fs::path(bundle.path()) / "Contents/lib";
        fs::remove(library);
        const fs::path programs =
            library / "UtiliaCommon.framework/Resources/UtiliaCommon.bundle/Contents/Linux";
        fs::create_directories(programs);
        std::ofstream(programs / "utilia-alert")
            << "#!/bin/sh\ndd bs=65536 count=1 2>/dev/null <&0 | tr '\\0' '|' >>'" << asked()
            << "'\nprintf 'button " << answer_ << "' >&0\n";
        chmod((programs / "utilia-alert").c_str(), 0755);
        return bundle;
    }
    TestBundle toolThatNeedsAgent() {
        return toolWith({{"ToolCapabilities", Dictionary{{"NeedAgentForWork", true}}}});
    }

    AskingTool check(const TestBundle& tool, const std::string& flag) {
        return AskingTool(tool, "checkRequirements", {flag, asked()}, {{"DISPLAY", ":a-display"}});
    }
    void installAgent() {
        agent_ = std::make_unique<TestBundle>(
            home_, test::TestBundleOptions{.name = "Korvane Utilia", .bundleIdentifier = kAgent});
        agent_->install("runAsAgent", {reports_.path(), stop()});
    }
    void startAgent() {
        installAgent();
        running_ = agent_->role("runAsAgent", {reports_.path(), stop()});
        ASSERT_EQ(reports_.waitForLine(), "agent");
    }

    static std::vector<RunningApplication> agents() {
        return RunningApplication::runningApplicationsWithBundleIdentifier(kAgent);
    }
    std::string asked() const { return home_.path() / "asked"; }
    std::string stop() const { return home_.path() / "stop"; }
    std::string question() const {
        std::ifstream file(asked());
        return {std::istreambuf_iterator<char>(file), {}};
    }

    TemporaryHome home_;
    ReportPipe reports_{home_.path()};
    std::unique_ptr<TestBundle> agent_;
    test::ChildProcess running_;
    int tools_ = 0;
    int answer_ = 0;
};

TEST_F(ToolRequirementsTest, AToolThatDoesNotNeedTheAgentCanRun) {
    installAgent();
    fs::remove(agent_->program());  // so that whoever launches it says that it is not there
    const Dictionary tools[] = {
        {},
        {{"ToolCapabilities", Dictionary{}}},
        {{"ToolCapabilities", Dictionary{{"NeedAgentForWork", false}}}},
        {{"ToolCapabilities", Dictionary{{"NeedAgentForWork", 0}}}},
        {{"ToolCapabilities", Dictionary{{"NeedAgentForWork", "no"}}}},
        {{"ToolCapabilities", Dictionary{{"NeedAgentForWork", ""}}}},
        {{"ToolCapabilities", Dictionary{{"NeedAgentForWork", Array{true}}}}},
        {{"ToolCapabilities", Dictionary{{"needagentforwork", true}}}},
        {{"ToolCapabilities", "NeedAgentForWork"}},
        {{"NeedAgentForWork", true}},
    };
    for (const Dictionary& info : tools) {
        for (const char* flag : {"default", "no"}) {
            AskingTool tool = check(toolWith(info), flag);
            EXPECT_EQ(tool.answer(), 1) << tools_;
            EXPECT_THAT(tool.log(), IsEmpty()) << tools_;
        }
    }
    EXPECT_EQ(question(), "");
    EXPECT_THAT(agents(), IsEmpty());
}

TEST_F(ToolRequirementsTest, AToolNeedsTheAgentByTheRulesOfBooleans) {
    answer_ = 1;
    for (const Value& value : {Value(true), Value(1), Value("YES"), Value("true"), Value("1")}) {
        const Dictionary info{{"ToolCapabilities", Dictionary{{"NeedAgentForWork", value}}}};
        fs::remove(asked());
        AskingTool tool = check(toolWith(info), "no");
        EXPECT_EQ(tool.answer(), 2) << "asked, and the answer was Quit";
    }
}

TEST_F(ToolRequirementsTest, WithARunningAgentNobodyIsAsked) {
    startAgent();
    for (const char* flag : {"default", "no", "yes"}) {
        AskingTool tool = check(toolThatNeedsAgent(), flag);
        EXPECT_EQ(tool.answer(), 1) << flag;
        EXPECT_THAT(tool.log(), IsEmpty());
    }
    EXPECT_EQ(question(), "");
    EXPECT_EQ(agents().size(), 1u);
}

TEST_F(ToolRequirementsTest, TheUserIsAskedInFrontAndTheAgentLaunched) {
    installAgent();
    AskingTool tool = check(toolThatNeedsAgent(), "default");
    EXPECT_EQ(tool.answer(), 3) << "brought to the front, and can run";
    EXPECT_THAT(tool.log(), IsEmpty());
    EXPECT_EQ(
        question(),
        "utilia-alert 1|1|en|Tool 1|Korvane Utilia is required for Tool 1 to function properly. "
        "Would you like to launch Korvane Utilia?|Launch Korvane Utilia|Quit|");
    EXPECT_EQ(reports_.waitForLine(), "agent");
}

TEST_F(ToolRequirementsTest, TheUserMayQuitAndNothingIsLaunched) {
    installAgent();
    fs::remove(agent_->program());  // so that whoever launches it says that it is not there
    answer_ = 1;
    AskingTool tool = check(toolThatNeedsAgent(), "no");
    EXPECT_EQ(tool.answer(), 2);
    EXPECT_THAT(tool.log(), IsEmpty());
    EXPECT_EQ(tool.process().waitForExit(), 0);
    EXPECT_THAT(agents(), IsEmpty());
}

TEST_F(ToolRequirementsTest, WithTheFlagTheAgentIsLaunchedWithoutAQuestion) {
    installAgent();
    AskingTool tool = check(toolWith({}), "yes");
    EXPECT_EQ(tool.answer(), 1) << "not brought to the front";
    EXPECT_THAT(tool.log(), IsEmpty());
    EXPECT_EQ(question(), "");
    EXPECT_EQ(reports_.waitForLine(), "agent");
}

TEST_F(ToolRequirementsTest, AnAgentThatIsNotInstalledIsARefusal) {
    AskingTool asked = check(toolThatNeedsAgent(), "no");
    EXPECT_EQ(asked.answer(), 2) << "the user wanted to launch it";
    EXPECT_THAT(
        asked.log(),
        ElementsAre("The agent cannot be launched: com.korvane.utilia: no desktop entry names "
                    "this application"));
    AskingTool flagged = check(toolWith({}), "yes");
    EXPECT_EQ(flagged.answer(), 0);
    EXPECT_EQ(flagged.log().size(), 1u);
}

TEST(ToolRequirementsWithoutABundle, AProgramOutsideOfBundlesNeedsNothing) {
    const TemporaryHome home;
    EXPECT_TRUE(ToolRequirements::checkToolCanRun());
    EXPECT_FALSE(ToolRequirements::checkToolCanRun(true)) << "no agent is installed";
}

}  // namespace
}  // namespace utilia
