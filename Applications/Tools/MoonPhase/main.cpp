// Moon Phase: shows the moon in the menu, and has nothing else: no window, and no display is needed. A click tells when
// the moon will be full, the next one its phase again.

#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include "Applications/CommandLine.h"
#include "Applications/Tools/Drawing/IconPainter.h"
#include "Applications/Tools/Drawing/ToolText.h"
#include "Applications/Tools/MoonPhase/MoonCalendar.h"
#include "Applications/Tools/MoonPhase/MoonPicture.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/StartUpVerdict.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace {

using utilia::tools::MoonPhase;
using utilia::tools::toolText;

constexpr const char* kHelp = R"(Usage: moon-phase

Shows the phase of the moon in the agent's menu. When it runs already, it tells when the moon will
be full, or its phase again.

  --turn-off  end at once, with nothing started
  --help      this text
  --version   the version
)";

std::string phaseText(MoonPhase moon) {
    const std::string lit = std::to_string(std::lround(moon.litPart() * 100)) + " %";
    return toolText(moon.name()) + toolText(", ") + toolText("%@ lit", lit);
}

std::string fullMoonText(MoonPhase moon) {
    const int days = moon.daysToFullMoon();
    if (days == 0) return toolText("Full moon today");
    if (days == 1) return toolText("Full moon tomorrow");
    return toolText("Full moon in %@ days", std::to_string(days));
}

class MoonPhaseTool final : public utilia::platform::ApplicationDelegate {
public:
    MoonPhaseTool() {
        show();
        client_.setToolStatus(utilia::kToolStatusActive);
        refresh_ = utilia::platform::Timer::scheduledTimer(std::chrono::hours(1), true,
                                                           [this] { show(); });
    }

    // A click on the menu icon arrives here, because the tool has no block for it; so does a second
    // start.
    bool applicationShouldHandleReopen(bool, const std::vector<std::string>&) override {
        tellsFullMoon_ = !tellsFullMoon_;
        show();
        return false;
    }

private:
    void show() {
        const MoonPhase moon = utilia::tools::moonPhaseAt(utilia::Date::now());
        client_.setToolIcon(utilia::tools::paintIcon({32, 64, 128}, [moon](double x, double y) {
            return utilia::tools::moonIcon(moon, x, y);
        }));
        const auto menuIcon = utilia::tools::paintIcon(
            {16, 32}, [moon](double x, double y) { return utilia::tools::moonMask(moon, x, y); });
        menuIcon->setTemplate(true);
        client_.setMenuIcon(menuIcon);
        client_.setMenuText(tellsFullMoon_ ? fullMoonText(moon) : phaseText(moon));
    }

    utilia::ToolDataClientProvider& client_ = utilia::UtiliaCommon::toolDataClientProvider();
    bool tellsFullMoon_ = false;
    utilia::Handle refresh_;
};

}  // namespace

int main(int count, char** words) {
    const auto line = utilia::CommandLine::read(
        {.program = "moon-phase", .help = kHelp, .options = {utilia::kTurnOffArgument}}, count,
        words);
    if (line.exitStatus) return *line.exitStatus;
    auto& application = utilia::platform::Application::sharedApplication();
    application.finishLaunching();
    MoonPhaseTool tool;
    application.setDelegate(&tool);
    utilia::CEPLog::sharedInstance().log("Start");
    const int status = application.run();
    utilia::CEPLog::sharedInstance().log("Quit");
    return status;
}
