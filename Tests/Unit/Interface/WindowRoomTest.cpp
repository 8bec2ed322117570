#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

// Whether every text has the room that it needs, in every language, with letters of the usual and of twice the size.

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kLanguages[] = {"ar", "de", "en", "es", "fr", "ja", "pl"};

class WindowRoom : public testing::Test {
protected:
    // Runs the role as an application with the texts of that one.
    void expectRoom(const std::string& role, const fs::path& program, std::size_t states) {
        const TestBundle bundle(home_);
        fs::create_directory_symlink(program.parent_path() / "../Resources",
                                     fs::path(bundle.path()) / "Contents/Resources");
        for (const char* language : kLanguages) {
            for (const char* size : {"1", "2"}) {
                auto window = bundle.role(role, {size}, {.environment = {{"LANGUAGE", language}}});
                std::vector<std::string> said;
                while (const auto line = window.waitForLine()) said.push_back(*line);
                EXPECT_EQ(window.waitForExit(), 0);
                EXPECT_EQ(said.size(), states);
                EXPECT_THAT(said, testing::Each(testing::MatchesRegex("[1-9][0-9]* texts")))
                    << language << ", letters of size " << size;
            }
        }
    }
    TemporaryHome home_;
};

TEST_F(WindowRoom, IsEnoughInTheAgent) {
    const TestBundle timer(home_,
                           {.name = "Timer", .bundleIdentifier = "com.korvane.utilia.Timer"});
    timer.install("none");
    expectRoom("roomInAgentWindow", test::places::kAgentProgram, 3);
}

// Also the messages that name nothing.
TEST_F(WindowRoom, IsFilledWithMessagesInTheLanguage) {
    const TestBundle bundle(home_);
    fs::create_directory_symlink(fs::path(test::places::kAgentProgram).parent_path() /
                                     "../Resources",
                                 fs::path(bundle.path()) / "Contents/Resources");
    const auto said = [&](const char* language) {
        auto agent =
            bundle.role("sayStandingMessages", {}, {.environment = {{"LANGUAGE", language}}});
        std::vector<std::string> lines;
        while (const auto line = agent.waitForLine()) lines.push_back(*line);
        EXPECT_EQ(agent.waitForExit(), 0);
        return lines;
    };
    using testing::HasSubstr;
    EXPECT_THAT(said("en"), testing::ElementsAre(HasSubstr("Your desktop shows no"),
                                                 HasSubstr("There is no session"),
                                                 HasSubstr("The session bus (D-Bus) is lost"),
                                                 HasSubstr("/home/x")));
    EXPECT_THAT(said("de"), testing::ElementsAre(HasSubstr("Ihr Desktop zeigt keine"),
                                                 HasSubstr("Es gibt keinen Sitzungsbus"),
                                                 HasSubstr("Der Sitzungsbus (D-Bus) ist verloren"),
                                                 HasSubstr("/home/x")));
    EXPECT_THAT(said("ar"),
                testing::ElementsAre(HasSubstr("سطح المكتب لا يعرض"), HasSubstr("لا توجد ناقلة"),
                                     HasSubstr("فُقدت ناقلة"), HasSubstr("/home/x")));
}

TEST_F(WindowRoom, IsEnoughInScreenCapture) {
    expectRoom("roomInCaptureWindow", test::places::kScreenCaptureProgram, 3);
}

TEST_F(WindowRoom, IsEnoughInTimer) {
    expectRoom("roomInTimerWindow", test::places::kTimerProgram, 2);
}

}  // namespace
}  // namespace utilia::test
