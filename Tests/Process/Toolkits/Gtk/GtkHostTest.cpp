#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/VirtualDisplay.h"

// A GTK 4 program in a bundle, with the library that it loads, on a display of its own.

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTitle = "GTK tool";

class GtkHostTest : public testing::Test {
protected:
    GtkHostTest() {
        fs::remove(bundle_.program());
        std::error_code failed;
        fs::create_hard_link(test::places::kGtkTool, bundle_.program(), failed);
        if (failed) fs::copy_file(test::places::kGtkTool, bundle_.program());
    }

    ChildProcess start(const std::vector<std::string>& arguments = {},
                       const std::map<std::string, std::string>& environment = {}) {
        ChildProcessOptions options;
        options.environment = environment;
        options.environment.insert(display_.environment().begin(), display_.environment().end());
        options.environment.insert({{"GDK_BACKEND", "x11"},
                                    {"GSK_RENDERER", "cairo"},
                                    {"GTK_A11Y", "none"},
                                    {"GSETTINGS_BACKEND", "memory"},
                                    // What GTK's libraries keep until the end looks like leaks.
                                    {"ASAN_OPTIONS", "detect_leaks=0"},
                                    {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent"}});
        options.standardError = home_.path() / "log";
        options.ownSession = true;
        options.diesWithTest = true;
        return ChildProcess::program(bundle_.program(), arguments, options);
    }

    // Until the first window shows and has the keyboard.
    std::string showWindow(ChildProcess& tool) {
        EXPECT_EQ(tool.waitForLine(), "activate, windows visible: no");
        EXPECT_EQ(tool.waitForLine(), "served");
        return display_.waitForWindow(kTitle);
    }

    void sendToTool(std::uint32_t id) const {
        const auto path = canonicalToolPath(bundle_.path(), std::nullopt);
        ASSERT_TRUE(RecordingPort::send(toolPortName(path), id, {}));
    }

    void expectOrderlyEnd(ChildProcess& tool) const {
        EXPECT_EQ(tool.waitForLine(), "will terminate");
        EXPECT_EQ(tool.waitForLine(), "ended");
        EXPECT_EQ(tool.waitForLine(), std::nullopt);
        EXPECT_EQ(tool.waitForExit(), 0) << log();
    }
    std::string log() const {
        std::ifstream file(home_.path() / "log");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    TemporaryHome home_;
    VirtualDisplay display_{home_.path()};
    TestBundle bundle_{home_,
                       {.name = "GTK Tool",
                        .bundleIdentifier = "com.korvane.utilia.GtkTool",
                        .program = "gtk-tool"}};
};

TEST_F(GtkHostTest, ServesTheFrameworkAndShowsItsWindow) {
    auto tool = start();
    showWindow(tool);
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(GtkHostTest, EndsInAnOrderlyWayWhenTheLastWindowIsClosed) {
    auto tool = start();
    showWindow(tool);
    display_.press({"alt+F4"});
    expectOrderlyEnd(tool);
}

TEST_F(GtkHostTest, EndsInAnOrderlyWayBySignal) {
    auto tool = start();
    showWindow(tool);
    tool.signal(SIGTERM);
    expectOrderlyEnd(tool);
}

TEST_F(GtkHostTest, EndsWhenTheAgentTurnsItOff) {
    auto tool = start();
    showWindow(tool);
    sendToTool(105);
    expectOrderlyEnd(tool);
}

TEST_F(GtkHostTest, EndsWithoutAWindowWhenItIsStartedToBeTurnedOff) {
    auto tool = start({"--turn-off"});
    EXPECT_EQ(tool.waitForLine(), "will terminate");
    EXPECT_EQ(tool.waitForLine(), "served");
    EXPECT_EQ(tool.waitForLine(), std::nullopt);
    EXPECT_EQ(tool.waitForExit(), 0);
    EXPECT_FALSE(display_.hasWindow(kTitle));
}

TEST_F(GtkHostTest, ShowsAndActivatesItsWindowWhenItIsStartedAgain) {
    auto tool = start();
    const auto window = showWindow(tool);
    display_.click(window, 20, 20);
    ASSERT_EQ(runProgram({"xdotool", "windowminimize", window}, display_.environment()).status, 0);
    ASSERT_TRUE(eventually([&] { return !display_.hasWindow(kTitle); }));
    auto second = start();
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_EQ(tool.waitForLine(), "activate, windows visible: no");
    EXPECT_EQ(display_.waitForWindow(kTitle), window);
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(GtkHostTest, TakesAClickOnItsMenuIconAsAReopen) {
    auto tool = start();
    const auto window = showWindow(tool);
    sendToTool(107);
    EXPECT_EQ(tool.waitForLine(), "activate, windows visible: yes");
    EXPECT_EQ(display_.waitForWindow(kTitle), window);
}

TEST_F(GtkHostTest, TellsTheApplicationsOwnDelegateOfAReopen) {
    auto tool = start({}, {{"OWN_DELEGATE", "1"}});
    showWindow(tool);
    auto second = start({"--from", "elsewhere"});
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_EQ(tool.waitForLine(), "reopen, windows visible: yes --from elsewhere");
}

TEST_F(GtkHostTest, KnowsThatAHiddenWindowIsNotVisible) {
    auto tool = start({}, {{"OWN_DELEGATE", "1"}, {"KEEP_WINDOW", "1"}});
    showWindow(tool);
    display_.press({"alt+F4"});
    ASSERT_TRUE(eventually([&] { return !display_.hasWindow(kTitle); }));
    sendToTool(107);
    EXPECT_EQ(tool.waitForLine(), "reopen, windows visible: no");
    EXPECT_FALSE(display_.hasWindow(kTitle));
    tool.signal(SIGTERM);
    expectOrderlyEnd(tool);
}

TEST_F(GtkHostTest, SaysWhatIsMissingWithoutADisplay) {
    auto tool = start({}, {{"DISPLAY", "\x01"}});
    EXPECT_EQ(tool.waitForExit(), 1);
    const std::string text = log();
    EXPECT_THAT(text, testing::HasSubstr("cannot open display"));
}

}  // namespace
}  // namespace utilia::test
