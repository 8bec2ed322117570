#include <csignal>

#include "Tests/Process/Agent/AgentFixture.h"
#include "Tests/Process/Agent/DesktopPanel.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/VirtualDisplay.h"

// The agent's status icon in the panel of a real desktop, as its user sees and uses it.

namespace utilia::agent {
namespace {

using testing::AllOf;
using testing::Gt;
using testing::HasSubstr;
using testing::Lt;

constexpr const char* kTitle = "Korvane Utilia";
constexpr const char* kToolRole = "toolOfThePanel";

UTILIA_CHILD_ROLE(toolOfThePanel) {
    test::ReportPipe::report(self.arguments.at(0), self.arguments.at(1) + " started");
    return 0;
}

class AgentPanelTest : public AgentApplicationTest {
protected:
    AgentPanelTest() {
        startBus();
        timer_.install(kToolRole, {reports_.path(), "Timer"});
        clock_.install(kToolRole, {reports_.path(), "World Clock"});
    }
    DesktopPanel makePanel(DesktopPanel::Colors colors = DesktopPanel::Colors::Light) const {
        return {display_, *bus_, displayFolder_.path(), colors};
    }
    test::ChildProcess startAgentOnScreen() const {
        Environment all = display_.environment();
        all["LANGUAGE"] = "en";
        all["DBUS_SESSION_BUS_ADDRESS"] = bus_->address();
        return startAgent(all);
    }
    static auto isItemOf(const test::ChildProcess& agent) {
        return HasSubstr("org.kde.StatusNotifierItem-" + std::to_string(agent.pid()) + "-1");
    }

    test::TemporaryFolder displayFolder_;
    test::VirtualDisplay display_{displayFolder_.path()};
};

TEST_F(AgentPanelTest, IsRegisteredAndSeenInThePanelUntilItQuits) {
    auto panel = makePanel();
    panel.start();
    EXPECT_EQ(panel.icon(), std::nullopt);
    EXPECT_EQ(panel.registeredItems(), "(<@as []>,)");
    auto agent = startAgentOnScreen();
    const auto icon = panel.waitForIcon();
    EXPECT_THAT(panel.registeredItems(), isItemOf(agent));
    EXPECT_THAT(icon.inkedPixels, Gt(100));
    EXPECT_THAT(icon.right - icon.left, AllOf(Gt(10), Lt(32)));
    EXPECT_THAT(icon.bottom - icon.top, AllOf(Gt(10), Lt(32)));
    EXPECT_FALSE(display_.hasWindow(kTitle)) << "the icon is enough";
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.waitForExit(), 0);
    EXPECT_TRUE(panel.becomesEmpty());
}

TEST_F(AgentPanelTest, IsPaintedInTheColoursOfThePanel) {
    auto agent = startAgentOnScreen();
    for (const auto colors : {DesktopPanel::Colors::Light, DesktopPanel::Colors::Dark}) {
        auto panel = makePanel(colors);
        panel.start();
        const auto icon = panel.waitForIcon();
        if (colors == DesktopPanel::Colors::Light) {
            EXPECT_THAT(icon.panelBrightness, Gt(200));
            EXPECT_THAT(icon.inkBrightness, Lt(120));
        } else {
            EXPECT_THAT(icon.panelBrightness, Lt(80));
            EXPECT_THAT(icon.inkBrightness, Gt(150));
        }
        panel.kill();
    }
}

TEST_F(AgentPanelTest, OpensItsWindowOnAClick) {
    auto panel = makePanel();
    panel.start();
    auto agent = startAgentOnScreen();
    panel.clickIcon();
    display_.waitForWindow(kTitle);
}

TEST_F(AgentPanelTest, OpensAMenuWhoseEntriesStartToolsAndFollowThem) {
    auto panel = makePanel();
    panel.start();
    auto agent = startAgentOnScreen();
    const auto plain = display_.sizeOfWindow(panel.openMenu());
    display_.press({"Down", "Down", "Return"});
    EXPECT_EQ(reports_.waitForLine(), "World Clock started");
    EXPECT_TRUE(test::eventually([&] { return !panel.hasMenu(); }));

    const test::RecordingPort timer(portOf(timer_));
    sayStatus(timer_, 2);
    speak(timer_, 108, {"so much to say that the menu has to be wider for it"});
    test::VirtualDisplay::Size wide;
    EXPECT_TRUE(test::eventually([&] {
        wide = display_.sizeOfWindow(panel.openMenu());
        display_.press({"Escape"});
        return test::eventually([&] { return !panel.hasMenu(); }) && wide.width > plain.width + 100;
    })) << plain.width
        << " and " << wide.width;
    EXPECT_EQ(wide.height, plain.height) << "as many entries as before";

    const std::string menu = panel.openMenu();
    const auto size = display_.sizeOfWindow(menu);
    display_.click(menu, size.width / 2, size.height - 16);
    EXPECT_EQ(agent.waitForExit(), 0) << "the last entry quits";
}

TEST_F(AgentPanelTest, ComesBackWhenThePanelWasKilled) {
    auto panel = makePanel();
    panel.start();
    auto agent = startAgentOnScreen();
    const auto before = panel.waitForIcon();
    panel.kill();
    panel.start();
    EXPECT_EQ(panel.waitForIcon(), before);
    EXPECT_THAT(panel.registeredItems(), isItemOf(agent));
    panel.openMenu();
    display_.press({"Down", "Return"});
    EXPECT_EQ(reports_.waitForLine(), "Timer started");
}

TEST_F(AgentPanelTest, AppearsWhenThePanelIsLate) {
    auto agent = startAgentOnScreen();
    sayStatus(timer_, 0);  // waits until the agent is there
    auto panel = makePanel();
    panel.start();
    panel.waitForIcon();
    EXPECT_THAT(panel.registeredItems(), isItemOf(agent));
    panel.clickIcon();
    display_.waitForWindow(kTitle);
}

}  // namespace
}  // namespace utilia::agent
