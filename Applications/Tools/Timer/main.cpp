// Timer: counts the seconds while it runs, and goes on from where it last ended. A click on its
// menu icon holds it.

#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>

#include "Applications/Tools/Drawing/IconPainter.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace {

using namespace std::chrono_literals;
using utilia::tools::Colour;

Colour stopwatch(double x, double y) {
    const double radius = std::hypot(x, y);
    const bool isHand = std::abs(x - y / 8) < 0.07 && y > -0.62 && y < 0.1;
    if (isHand || radius < 0.1) return {0.85, 0.2, 0.15, 1};
    if (radius < 0.75) return {0.98, 0.98, 0.96, 1};
    if (radius < 0.92) return {0.2, 0.24, 0.3, 1};
    return {};
}

class TimerTool final {
public:
    TimerTool() {
        goOnFrom(client_.menuText().value_or(""));
        client_.setToolIcon(utilia::tools::paintIcon({32, 64, 128}, stopwatch));
        client_.setMenuIcon(utilia::tools::paintIcon({16, 32}, stopwatch));
        client_.setClickMenuIconBlock([this] {
            isHeld_ = !isHeld_;
            show();
        });
        show();
        // Permanent: the agent shows the timer also while it does not run.
        client_.setToolStatus(utilia::kToolStatusPermanent);
        tick_ = utilia::platform::Timer::scheduledTimer(1s, true, [this] { count(); });
    }

private:
    // The text of the last orderly end is all that a timer has to remember.
    void goOnFrom(const std::string& menuText) {
        int minutes = 0;
        int seconds = 0;
        if (std::sscanf(menuText.c_str(), "%5d:%2d", &minutes, &seconds) != 2) return;
        seconds_ = minutes * 60 + seconds;
        isHeld_ = menuText.ends_with(kHeld);
    }

    void count() {
        if (isHeld_) return;
        ++seconds_;
        show();
    }

    void show() {
        char text[32];
        std::snprintf(text, sizeof text, "%d:%02d%s", seconds_ / 60, seconds_ % 60,
                      isHeld_ ? kHeld : "");
        client_.setMenuText(text);
    }

    static constexpr const char* kHeld = " (held)";
    utilia::ToolDataClientProvider& client_ = utilia::UtiliaCommon::toolDataClientProvider();
    int seconds_ = 0;
    bool isHeld_ = false;
    utilia::Handle tick_;
};

}  // namespace

int main() {
    auto& application = utilia::platform::Application::sharedApplication();
    application.finishLaunching();
    const TimerTool timer;
    return application.run();
}
