// Keep Awake: while it is on, the screen stays on and the computer does not go to sleep by itself. It is on when it
// starts; a click on its menu icon turns it off and on.

#include <string>
#include <vector>

#include "Applications/CommandLine.h"
#include "Applications/Tools/Drawing/IconPainter.h"
#include "Applications/Tools/Drawing/ToolText.h"
#include "Applications/Tools/KeepAwake/CupPicture.h"
#include "Applications/Tools/KeepAwake/Inhibitor.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/StartUpVerdict.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace {

using namespace utilia;
using tools::Cup;
using tools::toolText;
using State = tools::Inhibitor::State;

constexpr const char* kHelp = R"(Usage: keep-awake

Keeps the screen on and the computer awake until it is turned off. When it runs already, it is
turned on again.

  --turn-off  end at once, with nothing started
  --help      this text
  --version   the version
)";

class KeepAwakeTool final : public platform::ApplicationDelegate {
public:
    KeepAwakeTool() {
        client_.setToolIcon(tools::paintIcon({32, 64, 128}, tools::cupIcon));
        client_.setClickMenuIconBlock([this] { inhibitor_.isStarted() ? turnOff() : turnOn(); });
        client_.setDateScheduleBlock([this] { turnOn(); });
        show(Cup::Empty, "Off");
        client_.setToolStatus(kToolStatusPermanent);
        turnOn();
    }

    // Whoever starts it once more wants it on.
    bool applicationShouldHandleReopen(bool, const std::vector<std::string>&) override {
        turnOn();
        return false;
    }

private:
    void turnOn() { inhibitor_.start(); }

    void turnOff() {
        inhibitor_.stop();
        show(Cup::Empty, "Off");
    }

    // Says nothing until both have answered: one of them is enough to be on.
    void answered() {
        const State session = inhibitor_.session();
        const State system = inhibitor_.system();
        if (session == State::Asked || system == State::Asked) return;
        if (!inhibitor_.refusals().empty()) KULogVariadic("Keep Awake: %@", inhibitor_.refusals());
        if (session == State::Granted && system == State::Granted) {
            show(Cup::Full, "On");
        } else if (session == State::Granted) {
            show(Cup::Full, "On, but the computer may go to sleep");
        } else if (system == State::Granted) {
            show(Cup::Full, "On, but the screen may go dark");
        } else {
            show(Cup::Struck, "Not possible: nothing here lets programs keep the computer awake");
        }
    }

    void show(Cup cup, std::string_view text) {
        const auto icon = tools::paintIcon(
            {16, 22, 24, 32, 48}, [cup](double x, double y) { return cupMask(cup, x, y); });
        icon->setTemplate(true);
        client_.setMenuIcon(icon);
        client_.setMenuText(toolText(text));
    }

    // Before the client, which stores what the agent shows from the end on: by then nothing is kept awake any more.
    Handle end_ = platform::NotificationCenter::defaultCenter().addObserver(
        platform::NSApplicationWillTerminateNotification, nullptr,
        [this](const void*) { turnOff(); });
    ToolDataClientProvider& client_ = UtiliaCommon::toolDataClientProvider();
    tools::Inhibitor inhibitor_{toolText("Keep Awake"), toolText("Keep Awake is on"),
                                [this] { answered(); }};
};

}  // namespace

int main(int count, char** words) {
    const auto line = CommandLine::read(
        {.program = "keep-awake", .help = kHelp, .options = {kTurnOffArgument}}, count, words);
    if (line.exitStatus) return *line.exitStatus;
    auto& application = platform::Application::sharedApplication();
    application.finishLaunching();
    KeepAwakeTool tool;
    application.setDelegate(&tool);
    CEPLog::sharedInstance().log("StartPermanent");
    const int status = application.run();
    CEPLog::sharedInstance().log("Quit");
    return status;
}
