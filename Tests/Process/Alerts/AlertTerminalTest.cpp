#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "Common/Platform/Alert.h"
#include "Common/Platform/UniqueFd.h"
#include "Tests/Process/Alerts/AskingRole.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

// Without a display, on a real terminal.

namespace utilia {
namespace {

using platform::UniqueFd;
using test::AskingTool;
using test::TemporaryHome;
using test::TestBundle;
using testing::AllOf;
using testing::AnyOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// A terminal and the person in front of it.
class Terminal final {
public:
    Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        if (!master_ || grantpt(master_.get()) != 0 || unlockpt(master_.get()) != 0) {
            throw std::runtime_error("there are no terminals");
        }
    }

    std::string path() const { return ptsname(master_.get()); }

    void type(const std::string& text) const {
        if (write(master_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            throw std::runtime_error("the terminal takes nothing");
        }
    }
    // What is on the screen, from the last call on, as soon as it ends with `end`; what there is after 60 s otherwise.
    std::string readUntil(const std::string& end) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        std::string text;
        while (!text.ends_with(end) && std::chrono::steady_clock::now() < deadline) {
            pollfd ready{master_.get(), POLLIN, 0};
            if (poll(&ready, 1, 100) <= 0) continue;
            char block[4096];
            const ssize_t count = read(master_.get(), block, sizeof block);
            if (count <= 0) break;
            text.append(block, static_cast<std::size_t>(count));
        }
        return text;
    }
    termios settings() const {
        termios found{};
        tcgetattr(master_.get(), &found);
        return found;
    }
    void hangUp() { master_.reset(); }

private:
    UniqueFd master_;
};

// The terminal at the path becomes that of this process's session.
void attachTo(const std::string& terminal) {
    if (open(terminal.c_str(), O_RDWR | O_CLOEXEC) < 0) throw std::runtime_error(terminal);
}

platform::Alert alertOf(const std::vector<std::string>& arguments) {
    platform::Alert alert;
    alert.setMessageText(arguments.at(1));
    for (std::size_t i = 2; i < arguments.size(); ++i) alert.addButtonWithTitle(arguments[i]);
    return alert;
}

UTILIA_CHILD_ROLE(askOnTerminal) {
    attachTo(self.arguments.at(0));
    signal(SIGHUP, SIG_IGN);
    struct sigaction counting {};
    counting.sa_handler = [](int) {};  // without SA_RESTART
    sigaction(SIGINT, &counting, nullptr);
    const platform::Alert alert = alertOf(self.arguments);
    return test::sayAnswer(self, [&alert] { return alert.runModal(); });
}

// In a child, which is no part of the group in the terminal's foreground.
UTILIA_CHILD_ROLE(askInTheBackground) {
    attachTo(self.arguments.at(0));
    const platform::Alert alert = alertOf(self.arguments);
    self.say("asking");
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        const test::TestLog log;
        const bool isRight = alert.runModal() == 1001 && log.lines().size() == 1 &&
                             log.count("in the background of its terminal") == 1;
        _exit(isRight ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, WUNTRACED);
    self.say(std::to_string(status));
    return 0;
}

class AlertOnTerminal : public testing::Test {
protected:
    AskingTool ask(const std::vector<std::string>& question,
                   const std::string& role = "askOnTerminal") {
        std::vector<std::string> arguments{terminal_.path()};
        arguments.insert(arguments.end(), question.begin(), question.end());
        return AskingTool(bundle_, role, arguments, {});
    }
    AskingTool askTwo() { return ask({"Go on?", "Yes", "No"}); }

    TemporaryHome home_;
    TestBundle bundle_{home_};
    Terminal terminal_;
};

constexpr const char* kPrompt = "1-2 [1]: ";

TEST_F(AlertOnTerminal, ShowsTheQuestionAndTakesANumber) {
    AskingTool tool = askTwo();
    EXPECT_EQ(terminal_.readUntil(kPrompt), "\r\nSample Tool\r\nGo on?\r\n  1) Yes\r\n  2) No\r\n"
                                            "1-2 [1]: ");
    terminal_.type("2\n");
    EXPECT_EQ(tool.answer(), 1001);
    EXPECT_THAT(tool.log(), IsEmpty());
}

TEST_F(AlertOnTerminal, TakesReturnAloneForTheFirstButton) {
    for (const char* line : {"\n", "  \t\n", "1\n", " 1 \n", "\r"}) {
        AskingTool tool = askTwo();
        terminal_.readUntil(kPrompt);
        terminal_.type(line);
        EXPECT_EQ(tool.answer(), 1000) << line;
    }
}

TEST_F(AlertOnTerminal, AsksAgainForWhatIsNoAnswer) {
    AskingTool tool = askTwo();
    terminal_.readUntil(kPrompt);
    for (const std::string& line :
         {std::string("0"), std::string("3"), std::string("-1"), std::string("yes"),
          std::string("1 2"), std::string("1.0"), std::string("99999999999999999999"),
          std::string(1000, '1'), std::string("\xff\xfe")}) {
        terminal_.type(line + "\n");
        EXPECT_THAT(terminal_.readUntil(kPrompt), EndsWith(kPrompt)) << line;
    }
    terminal_.type("2\n");
    EXPECT_EQ(tool.answer(), 1001);
    EXPECT_THAT(tool.log(), IsEmpty());
}

TEST_F(AlertOnTerminal, TakesTheEndOfInputForTheLastButton) {
    AskingTool tool = askTwo();
    terminal_.readUntil(kPrompt);
    terminal_.type("\x04");
    EXPECT_EQ(tool.answer(), 1001);
    EXPECT_THAT(tool.log(), IsEmpty());
}

TEST_F(AlertOnTerminal, GoesOnAfterASignalThatTheToolHandles) {
    AskingTool tool = askTwo();
    terminal_.readUntil(kPrompt);
    for (int i = 0; i < 20; ++i) tool.process().signal(SIGINT);
    terminal_.type("2\n");
    EXPECT_EQ(tool.answer(), 1001);
}

TEST_F(AlertOnTerminal, CountsAsTheLastButtonWhenTheTerminalGoesAway) {
    AskingTool tool = askTwo();
    terminal_.readUntil(kPrompt);
    terminal_.hangUp();
    EXPECT_EQ(tool.answer(), 1001);
}

TEST_F(AlertOnTerminal, ChangesNoSettingOfTheTerminal) {
    termios before = terminal_.settings();
    before.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    const UniqueFd held(open(terminal_.path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(tcsetattr(held.get(), TCSANOW, &before), 0);
    before = terminal_.settings();
    AskingTool tool = askTwo();
    terminal_.readUntil(kPrompt);
    terminal_.type("7\r2\r");
    EXPECT_EQ(tool.answer(), 1001) << "also when the terminal hands on each key";
    const termios after = terminal_.settings();
    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(after.c_oflag, before.c_oflag);
    EXPECT_EQ(after.c_cflag, before.c_cflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_THAT(after.c_cc, testing::ElementsAreArray(before.c_cc));
}

TEST_F(AlertOnTerminal, GivesNoOrdersToTheTerminal) {
    AskingTool tool = ask({"\x1b]0;title\x07\x1b[2J\u009b31m\u202Eevil", "\x1b[31mYes", "N\ro"});
    const std::string screen = terminal_.readUntil(kPrompt);
    EXPECT_THAT(screen, AllOf(HasSubstr("]0;title"), HasSubstr("[31mYes"), Not(HasSubstr("\x1b")),
                              Not(HasSubstr("\x07")), Not(HasSubstr("\u009b")),
                              Not(HasSubstr("N\ro")), Not(HasSubstr("\u202E"))));
    terminal_.type("\n");
    EXPECT_EQ(tool.answer(), 1000);
}

TEST_F(AlertOnTerminal, HasOneNumberForOneButton) {
    AskingTool tool = ask({"Not allowed."});
    EXPECT_EQ(terminal_.readUntil("1 [1]: "),
              "\r\nSample Tool\r\nNot allowed.\r\n  1) OK\r\n1 [1]: ");
    terminal_.type("2\n");
    EXPECT_THAT(terminal_.readUntil("1 [1]: "), EndsWith("1 [1]: "));
    terminal_.type("\n");
    EXPECT_EQ(tool.answer(), 1000);
}

TEST_F(AlertOnTerminal, IsNotAskedFromItsBackground) {
    AskingTool tool = ask({"Go on?", "Yes", "No"}, "askInTheBackground");
    EXPECT_EQ(tool.answer(), 0) << "neither stopped nor waiting";
}

TEST(AlertWithoutDisplayAndTerminal, TakesTheLastButtonAndSaysWhy) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    AskingTool agent(bundle, "askAgentQuestion", {}, {});
    EXPECT_EQ(agent.answer(), 1001);
    EXPECT_THAT(agent.log(), ElementsAre("Alert: \"Quit\" is taken for the answer to \"Korvane "
                                         "Utilia is required for Sample Tool "
                                         "to function properly. Would you like to launch Korvane "
                                         "Utilia?\": there is no display: "
                                         "there is no terminal"));
    AskingTool one(bundle, "askQuestion", {"2", "Not allowed."}, {});
    EXPECT_EQ(one.answer(), 1000);
    EXPECT_THAT(one.log(), ElementsAre(HasSubstr("\"OK\" is taken for the answer")));
}

}  // namespace
}  // namespace utilia
