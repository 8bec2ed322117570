#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/Alert.h"
#include "Common/Platform/UniqueFd.h"
#include "Tests/Process/Alerts/AskingRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/VirtualDisplay.h"

// The real window on a display, with somebody who presses keys and clicks.

namespace utilia {
namespace {

namespace fs = std::filesystem;
using platform::UniqueFd;
using test::AskingTool;
using test::ChildRole;
using test::TemporaryHome;
using test::TestBundle;
using test::VirtualDisplay;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kTool = "Sample Tool";

class AlertWindow : public testing::Test {
protected:
    AskingTool ask(const std::string& role, const std::vector<std::string>& arguments = {},
                   std::map<std::string, std::string> environment = {}) {
        for (const auto& [name, value] : display_.environment()) environment[name] = value;
        return AskingTool(bundle_, role, arguments, environment);
    }
    AskingTool askThree() { return ask("askQuestion", {"0", "Which?", "One", "Two", "Three"}); }

    TemporaryHome home_;
    TestBundle bundle_{home_};
    VirtualDisplay display_{home_.path()};
};

// A handle by which the end of any process can be waited for.
UniqueFd handleOf(int process) {
    return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
}

bool endsSoon(const UniqueFd& process) {
    pollfd end{process.get(), POLLIN, 0};
    return poll(&end, 1, 60'000) == 1;
}

TEST_F(AlertWindow, AnswersTheFirstButtonToReturn) {
    AskingTool tool = ask("askAgentQuestion");
    display_.waitForWindow(kTool);
    display_.press({"Return"});
    EXPECT_EQ(tool.answer(), platform::NSAlertFirstButtonReturn);
    EXPECT_THAT(tool.log(), IsEmpty());
}

TEST_F(AlertWindow, AnswersTheLastButtonToEscape) {
    AskingTool tool = ask("askAgentQuestion");
    display_.waitForWindow(kTool);
    display_.press({"Escape"});
    EXPECT_EQ(tool.answer(), platform::NSAlertSecondButtonReturn);
    EXPECT_THAT(tool.log(), IsEmpty());
}

TEST_F(AlertWindow, AnswersTheLastButtonToItsClosing) {
    AskingTool tool = askThree();
    display_.waitForWindow(kTool);
    display_.press({"alt+F4"});
    EXPECT_EQ(tool.answer(), platform::NSAlertThirdButtonReturn);
    EXPECT_THAT(tool.log(), IsEmpty());
}

TEST_F(AlertWindow, AnswersTheOneButtonItHasToEverything) {
    for (const char* key : {"Return", "Escape", "alt+F4", "space"}) {
        AskingTool tool = ask("askQuestion", {"2", "Not allowed."});
        display_.waitForWindow(kTool);
        display_.press({key});
        EXPECT_EQ(tool.answer(), platform::NSAlertFirstButtonReturn) << key;
        EXPECT_THAT(tool.log(), IsEmpty()) << key;
    }
}

TEST_F(AlertWindow, GoesThroughTheButtonsInTheirOrderWithTab) {
    AskingTool second = askThree();
    display_.waitForWindow(kTool);
    display_.press({"Tab", "Return"});
    EXPECT_EQ(second.answer(), 1001);

    AskingTool third = askThree();
    display_.waitForWindow(kTool);
    display_.press({"Tab", "Tab", "space"});
    EXPECT_EQ(third.answer(), 1002);

    AskingTool first = askThree();
    display_.waitForWindow(kTool);
    display_.press({"Tab", "Tab", "Tab", "Tab", "space"});
    EXPECT_EQ(first.answer(), 1000) << "once around, over the text";
}

TEST_F(AlertWindow, AnswersTheButtonThatIsClicked) {
    AskingTool tool = askThree();
    const std::string window = display_.waitForWindow(kTool);
    const auto size = display_.sizeOfWindow(window);
    display_.press({"Tab"});
    display_.click(window, size.width - 40, size.height - 32);
    EXPECT_EQ(tool.answer(), 1000) << "the first button is in the corner";
}

TEST_F(AlertWindow, TakesAnAmpersandForALetterAndNoKey) {
    AskingTool tool = ask("askQuestion", {"0", "&Save <b>it</b>?", "S&ave", "&Quit"});
    display_.waitForWindow(kTool);
    display_.press({"alt+q", "alt+a", "Return"});
    EXPECT_EQ(tool.answer(), 1000);
}

TEST_F(AlertWindow, FitsOnTheScreenWhateverItIsAsked) {
    const std::string word(10'000, 'W');
    AskingTool tool = ask("askQuestion", {"1", word + "\n\n\u202E" + word, word, word, "No"});
    const std::string window = display_.waitForWindow(kTool);
    const auto size = display_.sizeOfWindow(window);
    EXPECT_LE(size.width, 1000);
    EXPECT_LE(size.height, 700);
    EXPECT_GT(size.height, 200);
    display_.press({"Escape"});
    EXPECT_EQ(tool.answer(), 1002);
}

TEST_F(AlertWindow, FitsOnTheScreenWithAHundredButtons) {
    std::vector<std::string> arguments{"1", "Which?"};
    for (int i = 1; i <= 100; ++i) arguments.push_back("Button " + std::to_string(i));
    AskingTool tool = ask("askQuestion", arguments);
    const auto size = display_.sizeOfWindow(display_.waitForWindow(kTool));
    EXPECT_LE(size.height, 700);
    display_.press({"Escape"});
    EXPECT_EQ(tool.answer(), 1099);
}

TEST_F(AlertWindow, StaysAboveOtherWindows) {
    AskingTool tool = ask("askAgentQuestion");
    const std::string window = display_.waitForWindow(kTool);
    EXPECT_THAT(display_.propertyOfWindow(window, "_NET_WM_STATE"),
                HasSubstr("_NET_WM_STATE_ABOVE"));
    EXPECT_THAT(display_.propertyOfWindow(window, "_NET_WM_WINDOW_TYPE"),
                HasSubstr("_NET_WM_WINDOW_TYPE_DIALOG"));
}

TEST_F(AlertWindow, CountsAsTheLastButtonWhenItsProcessIsKilled) {
    AskingTool tool = askThree();
    kill(display_.processOfWindow(display_.waitForWindow(kTool)), SIGKILL);
    EXPECT_EQ(tool.answer(), 1002);
    EXPECT_THAT(tool.log(), ElementsAre("Alert: \"Three\" is taken for the answer to \"Which?\": "
                                        "utilia-alert ended without an answer, by signal 9"));
}

TEST_F(AlertWindow, CountsAsTheLastButtonWhenTheDisplayIsGone) {
    AskingTool tool = ask("askAgentQuestion");
    display_.waitForWindow(kTool);
    display_.end();
    EXPECT_EQ(tool.answer(), 1001);
    ASSERT_EQ(tool.log().size(), 1u);
}

TEST_F(AlertWindow, ClosesWhenItsToolIsKilled) {
    for (const int signal : {SIGKILL, SIGTERM}) {
        AskingTool tool = ask("askAgentQuestion");
        const UniqueFd helper = handleOf(display_.processOfWindow(display_.waitForWindow(kTool)));
        tool.process().signal(signal);
        EXPECT_EQ(tool.process().waitForExit(), 128 + signal);
        EXPECT_TRUE(endsSoon(helper)) << signal;
        EXPECT_TRUE(test::eventually([&] { return !display_.hasWindow(kTool); })) << signal;
    }
}

// The window answers to this role although nothing of the process is as usual.
UTILIA_CHILD_ROLE(askWithSignals) {
    struct sigaction counting {};
    counting.sa_handler = [](int) {};  // without SA_RESTART
    sigaction(SIGUSR1, &counting, nullptr);
    signal(SIGCHLD, SIG_IGN);
    signal(SIGINT, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    return test::sayAnswer(self, [] {
        platform::Alert alert;
        alert.addButtonWithTitle("One");
        alert.addButtonWithTitle("Two");
        return alert.runModal();
    });
}

// The signals of a mask in /proc/PID/status.
std::uint64_t signalMask(int process, const std::string& name) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(name + ":")) {
            return std::stoull(line.substr(name.size() + 1), nullptr, 16);
        }
    }
    return ~std::uint64_t{0};
}

std::uint64_t bit(int signal) { return std::uint64_t{1} << (signal - 1); }

TEST_F(AlertWindow, GoesOnWhenSignalsInterruptTheWait) {
    AskingTool tool = ask("askWithSignals");
    const std::string window = display_.waitForWindow(kTool);
    for (int i = 0; i < 50; ++i) tool.process().signal(SIGUSR1);
    display_.press({"Return"});
    EXPECT_EQ(tool.answer(), 1000);
    EXPECT_THAT(tool.log(), IsEmpty());
}

TEST_F(AlertWindow, CountsAsTheLastButtonAlsoWhereTheKernelReapsChildren) {
    AskingTool tool = ask("askWithSignals");
    kill(display_.processOfWindow(display_.waitForWindow(kTool)), SIGKILL);
    EXPECT_EQ(tool.answer(), 1001);
    EXPECT_THAT(tool.log(), ElementsAre(testing::EndsWith("utilia-alert ended without an answer")));
}

TEST_F(AlertWindow, HasDefaultSignalsWhateverItsToolHas) {
    AskingTool tool = ask("askWithSignals");
    const int helper = display_.processOfWindow(display_.waitForWindow(kTool));
    EXPECT_EQ(signalMask(helper, "SigBlk"), 0u);
    EXPECT_EQ(signalMask(helper, "SigIgn") & (bit(SIGINT) | bit(SIGCHLD)), 0u);
}

UTILIA_CHILD_ROLE(askWithFiles) {
    const int inherited = open(self.arguments.at(0).c_str(), O_RDONLY);  // not close-on-exec
    const std::size_t before = test::openDescriptors();
    platform::Alert alert;
    alert.addButtonWithTitle("One");
    alert.addButtonWithTitle("Two");
    return test::sayAnswer(self, [&] {
        const int answer = alert.runModal();
        const bool isClean = test::openDescriptors() == before && inherited >= 0 &&
                             waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
        return isClean ? answer : -1;
    });
}

TEST_F(AlertWindow, LeavesNoDescriptorAndNoChildBehind) {
    const fs::path file = home_.path() / "a file of the tool";
    std::ofstream(file) << "x";
    AskingTool tool = ask("askWithFiles", {file});
    display_.waitForWindow(kTool);
    display_.press({"Escape"});
    EXPECT_EQ(tool.answer(), 1001);
}

TEST_F(AlertWindow, HoldsNoFileOfItsTool) {
    const fs::path file = home_.path() / "a file of the tool";
    std::ofstream(file) << "x";
    AskingTool tool = ask("askWithFiles", {file});
    const int helper = display_.processOfWindow(display_.waitForWindow(kTool));
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(helper) + "/fd")) {
        std::error_code vanished;  // the window's program opens and closes files meanwhile
        EXPECT_NE(fs::read_symlink(entry.path(), vanished), file);
        ++count;
    }
    EXPECT_GT(count, 3u);
}

TEST_F(AlertWindow, OfACopyOfTheToolBearsTheNameThatTheUserKnows) {
    const TestBundle other(home_, {.name = "Sample Tool 2.0 copy",
                                   .info = {{"CFBundleDisplayName", "Sample & Co. 2.0"}}});
    AskingTool tool(other, "askAgentQuestion", {}, display_.environment());
    display_.waitForWindow("Sample & Co. 2.0");
    display_.press({"Escape"});
    EXPECT_EQ(tool.answer(), 1001);
}

}  // namespace
}  // namespace utilia
