#include <filesystem>
#include <fstream>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Tests/Process/Alerts/AskingRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

// What the library makes of the program that asks, whatever that does: scripts in its place.

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::AskingTool;
using test::TemporaryHome;
using test::TestBundle;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class AlertHelper : public testing::Test {
protected:
    // The tool's framework becomes one of its own, in which the script is utilia-alert.
    void SetUp() override {
        const fs::path library = fs::path(bundle_.path()) / "Contents/lib";
        fs::remove(library);
        programs_ = library / "UtiliaCommon.framework/Resources/UtiliaCommon.bundle/Contents/Linux";
        fs::create_directories(programs_);
    }
    void placeHelper(const std::string& script, mode_t mode = 0755) {
        std::ofstream(programs_ / "utilia-alert") << "#!/bin/sh\n" << script << "\n";
        chmod((programs_ / "utilia-alert").c_str(), mode);
    }
    AskingTool ask(std::map<std::string, std::string> environment = {{"DISPLAY", ":a-display"}}) {
        return AskingTool(bundle_, "askQuestion", {"0", "Which?", "One", "Two", "Three"},
                          std::move(environment));
    }
    static std::string answeredWith(const std::string& why) {
        return "Alert: \"Three\" is taken for the answer to \"Which?\": " + why;
    }

    TemporaryHome home_;
    TestBundle bundle_{home_};
    fs::path programs_;
};

TEST_F(AlertHelper, IsAskedOnItsStandardInputAndAnswersThere) {
    const std::string heard = home_.path() / "heard";
    placeHelper("dd bs=65536 count=1 of='" + heard + "' 2>/dev/null; printf 'button 1' >&0");
    AskingTool tool = ask();
    EXPECT_EQ(tool.answer(), 1001);
    EXPECT_THAT(tool.log(), IsEmpty());
    std::ifstream file(heard, std::ios::binary);
    const std::string question(std::istreambuf_iterator<char>(file), {});
    using namespace std::string_literals;
    EXPECT_EQ(question, "utilia-alert 1\0"
                        "0\0en\0Sample Tool\0Which?\0One\0Two\0Three\0"s);
}

TEST_F(AlertHelper, GetsTheEnvironmentAsItIs) {
    const std::string heard = home_.path() / "heard";
    placeHelper("env >'" + heard + "'; printf 'button 0' >&0");
    AskingTool tool = ask({{"DISPLAY", ":a-display"}, {"A_VARIABLE", "of the user's"}});
    EXPECT_EQ(tool.answer(), 1000);
    std::ifstream file(heard);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    EXPECT_THAT(text, HasSubstr("A_VARIABLE=of the user's\n"));
    EXPECT_THAT(text, HasSubstr("DISPLAY=:a-display\n"));
    EXPECT_THAT(text, HasSubstr("LANGUAGE=en\n"));
}

TEST_F(AlertHelper, IsEnoughWhenThereIsAWaylandDisplayOnly) {
    placeHelper("printf 'button 0' >&0");
    AskingTool tool = ask({{"WAYLAND_DISPLAY", "wayland-7"}});
    EXPECT_EQ(tool.answer(), 1000);
}

TEST_F(AlertHelper, IsNotStartedWithoutADisplay) {
    const std::string started = home_.path() / "started";
    placeHelper("touch '" + started + "'; printf 'button 0' >&0");
    for (const auto& [display, wayland] : {std::pair("\x01", "\x01"), std::pair("", "")}) {
        AskingTool tool = ask({{"DISPLAY", display}, {"WAYLAND_DISPLAY", wayland}});
        EXPECT_EQ(tool.answer(), 1002);
        EXPECT_THAT(tool.log(),
                    ElementsAre(answeredWith("there is no display: there is no terminal")));
        EXPECT_FALSE(fs::exists(started));
    }
}

TEST_F(AlertHelper, IsNotLookedForInThePath) {
    const fs::path folder = home_.path() / "programs";
    fs::create_directories(folder);
    const fs::path started = home_.path() / "started";
    std::ofstream(folder / "utilia-alert")
        << "#!/bin/sh\ntouch '" << started.string() << "'; printf 'button 0' >&0\n";
    chmod((folder / "utilia-alert").c_str(), 0755);
    AskingTool tool =
        ask({{"DISPLAY", ":a-display"}, {"PATH", folder.string() + ":/usr/bin:/bin"}});
    EXPECT_EQ(tool.answer(), 1002);
    EXPECT_THAT(tool.log(), ElementsAre(answeredWith(
                                "utilia-alert is missing from the framework's resource bundle")));
    EXPECT_FALSE(fs::exists(started));
}

TEST_F(AlertHelper, ThatCannotBeRunIsTheLastButton) {
    placeHelper("printf 'button 0' >&0", 0644);
    AskingTool unmarked = ask();
    EXPECT_EQ(unmarked.answer(), 1002);
    EXPECT_THAT(
        unmarked.log(),
        ElementsAre(answeredWith("utilia-alert is missing from the framework's resource bundle")));

    std::ofstream(programs_ / "utilia-alert") << "no program";
    chmod((programs_ / "utilia-alert").c_str(), 0755);
    AskingTool damaged = ask();
    EXPECT_EQ(damaged.answer(), 1002);
    EXPECT_THAT(damaged.log(), ElementsAre(AllOf(StartsWith(answeredWith("start ")),
                                                 EndsWith("Exec format error"))));
}

TEST_F(AlertHelper, ThatEndsWithoutAnAnswerIsTheLastButton) {
    const std::pair<const char*, const char*> ends[] = {
        {"exit 0", "with status 0"},
        {"exit 42", "with status 42"},
        {"kill -SEGV $$", "by signal 11"},
        {"exec <&-; kill -KILL $$", "by signal 9"},
        // A child of its own keeps the socket open, until the tool closes its end.
        {"exec 3<&0; cat <&3 >/dev/null & exit 3", "with status 3"},
    };
    for (const auto& [script, how] : ends) {
        placeHelper(script);
        AskingTool tool = ask();
        EXPECT_EQ(tool.answer(), 1002) << script;
        EXPECT_THAT(tool.log(), ElementsAre(answeredWith(
                                    std::string("utilia-alert ended without an answer, ") + how)))
            << script;
    }
}

TEST_F(AlertHelper, ThatAnswersSomethingElseIsTheLastButton) {
    for (const std::string answer : {"button 3", "button -1", "button", "yes", "button 0\\n"}) {
        placeHelper("printf -- '" + answer + "' >&0");
        AskingTool tool = ask();
        EXPECT_EQ(tool.answer(), 1002) << answer;
        EXPECT_THAT(tool.log(), ElementsAre(HasSubstr("Which?\": utilia-alert answered \"" +
                                                      answer.substr(0, answer.find('\\')))))
            << answer;
    }
}

TEST_F(AlertHelper, ThatAnswersAndDoesNotEndIsEnded) {
    const std::string process = home_.path() / "process";
    placeHelper("echo $$ >'" + process + "'; printf 'button 1' >&0; trap '' TERM; exec sleep 3600");
    AskingTool tool = ask();
    EXPECT_EQ(tool.answer(), 1001) << "the answer stands";
    EXPECT_THAT(tool.log(), IsEmpty());
    std::ifstream file(process);
    std::string number;
    file >> number;
    EXPECT_FALSE(fs::exists("/proc/" + number)) << "reaped as well";
}

TEST_F(AlertHelper, ThatCannotOpenTheDisplayLeavesTheTerminal) {
    placeHelper("printf 'no-display it is off' >&0");
    AskingTool tool = ask();
    EXPECT_EQ(tool.answer(), 1002);
    EXPECT_THAT(tool.log(), ElementsAre(answeredWith("the display cannot be opened: it is off: "
                                                     "there is no terminal")));
}

TEST(RealAlertHelper, SaysThatItCannotOpenTheDisplay) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    for (const char* variable : {"DISPLAY", "WAYLAND_DISPLAY"}) {
        AskingTool tool(bundle, "askAgentQuestion", {},
                        {{variable, (home.path() / "no display").string()}});
        EXPECT_EQ(tool.answer(), 1001);
        EXPECT_THAT(tool.log(), ElementsAre(AllOf(HasSubstr("\"Quit\" is taken for the answer"),
                                                  HasSubstr("the display cannot be opened: "),
                                                  EndsWith(": there is no terminal"))))
            << variable;
    }
}

TEST(RealAlertHelper, EndsAtOnceWhenItIsAskedNothing) {
    const TemporaryHome home;
    const std::string program =
        fs::canonical(fs::path(test::ownProgramPath()).parent_path() /
                      "../lib/UtiliaCommon.framework/Resources/UtiliaCommon.bundle/Contents/Linux/"
                      "utilia-alert");
    test::ChildProcessOptions options;
    options.standardError = home.path() / "errors";
    auto helper = test::ChildProcess::program("/bin/sh",
                                              {"-c", "exec '" + program + "' </dev/null"}, options);
    EXPECT_EQ(helper.waitForExit(), 2);
    std::ifstream file(options.standardError);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    EXPECT_THAT(text, StartsWith("utilia-alert: asks what the framework tells it to"));
}

}  // namespace
}  // namespace utilia
