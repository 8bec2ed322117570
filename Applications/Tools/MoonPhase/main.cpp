// Moon Phase: shows the moon in the menu, and has nothing else: no window, and no display is needed. A click tells when
// the moon will be full, the next one its phase again.

#include <chrono>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "Applications/Tools/Drawing/IconPainter.h"
#include "Applications/Tools/Drawing/ToolText.h"
#include "Applications/Tools/MoonPhase/MoonCalendar.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace {

using utilia::tools::Colour;
using utilia::tools::MoonPhase;
using utilia::tools::toolText;

// Whether the sun shines on this place of the disc, as the north of the earth sees it.
bool isLit(MoonPhase moon, double x, double y, double radius) {
    const double halfWidth = std::sqrt(radius * radius - y * y);
    const double edge = std::cos(2 * std::numbers::pi * moon.fraction) * halfWidth;
    return moon.fraction < 0.5 ? x > edge : x < -edge;
}

// A mask: the menu shows it in its own colour.
Colour menuPicture(MoonPhase moon, double x, double y) {
    const double radius = std::hypot(x, y);
    if (radius > 0.9) return {};
    const bool isRim = radius > 0.8;
    return {0, 0, 0, isRim || isLit(moon, x, y, 0.9) ? 1.0 : 0.15};
}

Colour toolPicture(MoonPhase moon, double x, double y) {
    if (std::hypot(x, y) < 0.7) {
        return isLit(moon, x, y, 0.7) ? Colour{0.98, 0.93, 0.72, 1} : Colour{0.17, 0.2, 0.34, 1};
    }
    const bool isSky =
        std::pow(std::abs(x), 5) + std::pow(std::abs(y), 5) < 0.9;  // a rounded square
    return isSky ? Colour{0.08, 0.1, 0.22, 1} : Colour{};
}

std::string phaseText(MoonPhase moon) {
    const std::string lit = std::to_string(std::lround(moon.litPart() * 100)) + " %";
    return toolText(moon.name()) + ", " + toolText("%@ lit", lit);
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
        client_.setToolIcon(utilia::tools::paintIcon(
            {32, 64, 128}, [moon](double x, double y) { return toolPicture(moon, x, y); }));
        const auto menuIcon = utilia::tools::paintIcon(
            {16, 32}, [moon](double x, double y) { return menuPicture(moon, x, y); });
        menuIcon->setTemplate(true);
        client_.setMenuIcon(menuIcon);
        client_.setMenuText(tellsFullMoon_ ? fullMoonText(moon) : phaseText(moon));
    }

    utilia::ToolDataClientProvider& client_ = utilia::UtiliaCommon::toolDataClientProvider();
    bool tellsFullMoon_ = false;
    utilia::Handle refresh_;
};

}  // namespace

int main() {
    auto& application = utilia::platform::Application::sharedApplication();
    application.finishLaunching();
    MoonPhaseTool tool;
    application.setDelegate(&tool);
    utilia::CEPLog::sharedInstance().log("Start");
    const int status = application.run();
    utilia::CEPLog::sharedInstance().log("Quit");
    return status;
}
