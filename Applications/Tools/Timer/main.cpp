// Timer: counts the seconds while it runs, and goes on from where it last ended. A click on its menu icon opens a window to
// set it; without a display a click holds it. Started with a time ("timer 25", "timer 1:30") it counts down instead, and
// says when the time is up; the agent starts it for that, should it not run by then.

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "Applications/CommandLine.h"
#include "Applications/Tools/Drawing/IconPainter.h"
#include "Applications/Tools/Drawing/ToolText.h"
#include "Applications/Tools/Timer/Countdown.h"
#include "Applications/Tools/Timer/Stopwatch.h"
#include "Applications/Tools/Timer/StopwatchPicture.h"
#include "Applications/Tools/Timer/TimerPrograms.h"
#include "Applications/Tools/Timer/TimerText.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/ProcessInfo.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/StartUpVerdict.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace {

using namespace utilia;
using tools::textFromSeconds;
using tools::toolText;

constexpr const char* kHelp = R"(Usage: timer [TIME | hold | go-on | stop]

Counts seconds, and goes on from where it last ended. With a time it counts down: 25 (minutes), 1:30
or 1:00:00. A timer that runs already takes the time, and is held, goes on or is stopped.

  --turn-off  end at once, with nothing started
  --help      this text
  --version   the version
)";

class TimerTool final : public platform::ApplicationDelegate {
public:
    explicit TimerTool(const std::vector<std::string>& arguments) {
        if (countdown_.isSet()) {
            isHeld_ = countdown_.isHeld();
        } else {
            takeLastText(client_.menuText().value_or(""));
        }
        client_.setToolIcon(tools::paintIcon({32, 64, 128}, tools::stopwatchIcon));
        const auto menuIcon = tools::paintIcon({16, 32}, tools::stopwatchMask);
        menuIcon->setTemplate(true);
        client_.setMenuIcon(menuIcon);
        client_.setClickMenuIconBlock([this] { clicked(); });
        client_.setDateScheduleBlock([this] {
            if (countdown_.isSet()) show();
        });
        follow(arguments);
        // Permanent: the agent shows the timer also while it does not run.
        client_.setToolStatus(kToolStatusPermanent);
        isHeld_ ? hold() : goOn();
    }

    // A second start brings its arguments here.
    bool applicationShouldHandleReopen(bool, const std::vector<std::string>& arguments) override {
        if (arguments.empty()) {
            tools::showWindow(isHeld_, lastLength_);
        } else {
            follow(arguments);
            isHeld_ ? hold() : goOn();
        }
        return false;
    }

    static bool isCommand(const std::string& word) {
        return word == tools::kHoldWord || word == tools::kGoOnWord || word == tools::kStopWord ||
               tools::secondsFromText(word);
    }

private:
    // The text of the last orderly end is all that counting up has to remember. After a kill it may still be that of a
    // countdown which is gone.
    void takeLastText(const std::string& last) {
        const std::int64_t seconds = tools::leadingSeconds(last).value_or(0);
        const std::string time = textFromSeconds(seconds);
        const std::string left = toolText("%@ left", time);
        if (last == left || last == toolText("%@ (held)", left)) return;
        stopwatch_ = tools::Stopwatch(seconds);
        isHeld_ = last == toolText("%@ (held)", time);
    }

    void clicked() {
        if (tools::showWindow(isHeld_, lastLength_)) return;
        isHeld_ ? goOn() : hold();
    }

    // Takes a command over, before hold() or goOn().
    void follow(const std::vector<std::string>& arguments) {
        if (arguments.empty()) return;
        const std::string& word = arguments.front();
        if (word == tools::kStopWord) {
            countdown_.clear();
            stopwatch_ = tools::Stopwatch();
        }
        if (const auto seconds = tools::secondsFromText(word)) {
            countdown_.start(*seconds);
            stopwatch_ = tools::Stopwatch();
            lastLength_ = *seconds;
            isHeld_ = false;
        } else if (word == tools::kGoOnWord) {
            isHeld_ = false;
        } else if (word == tools::kHoldWord || word == tools::kStopWord) {
            isHeld_ = true;
        }
    }

    // While it is held nothing wakes the process.
    void hold() {
        isHeld_ = true;
        tick_.reset();
        stopwatch_.hold();
        countdown_.hold();
        show();
    }

    void goOn() {
        isHeld_ = false;
        countdown_.goOn();
        if (!countdown_.isSet()) stopwatch_.goOn();
        tick_ = platform::Timer::repeatingTimer(stopwatch_.untilNextSecond(),
                                                std::chrono::seconds(1), [this] { show(); });
        show();
    }

    void show() {
        const bool isCountdown = countdown_.isSet();
        if (isCountdown && !isHeld_ && countdown_.secondsLeft() == 0) return ring();
        const std::string time =
            textFromSeconds(isCountdown ? countdown_.secondsLeft() : stopwatch_.seconds());
        const std::string text = isCountdown ? toolText("%@ left", time) : time;
        client_.setMenuText(isHeld_ ? toolText("%@ (held)", text) : text);
    }

    void ring() {
        isHeld_ = true;
        tick_.reset();
        client_.setMenuText(toolText("Time is up"));
        // Before it is forgotten: of a tool that is killed now, twice is better than never.
        const std::string length = textFromSeconds(countdown_.length());
        tools::showNotification(toolText("Time is up"),
                                toolText("Your timer of %@ has ended.", length));
        countdown_.clear();
    }

    // What the agent shows while a countdown goes on without the tool.
    void showEnd() {
        if (const auto end = countdown_.end())
            client_.setMenuText(toolText("Until %@", tools::clockTime(*end)));
    }

    // Before the client, which stores the text that it has by the time it is told.
    Handle end_ = platform::NotificationCenter::defaultCenter().addObserver(
        platform::NSApplicationWillTerminateNotification, nullptr,
        [this](const void*) { showEnd(); });
    ToolDataClientProvider& client_ = UtiliaCommon::toolDataClientProvider();
    tools::Countdown countdown_{platform::UserDefaults::standardUserDefaults()};
    tools::Stopwatch stopwatch_;
    std::int64_t lastLength_ = countdown_.length();
    bool isHeld_ = false;
    Handle tick_;
};

}  // namespace

int main(int count, char** words) {
    const auto line = CommandLine::read(
        {.program = "timer", .help = kHelp, .options = {kTurnOffArgument}, .maximumOperands = 1},
        count, words);
    if (line.exitStatus) return *line.exitStatus;
    if (!line.operands.empty() && !TimerTool::isCommand(line.operands[0])) {
        std::fprintf(stderr,
                     "timer: \"%s\" is no time; 25 (minutes), 1:30 and 1:00:00 are. It also takes "
                     "hold, go-on and stop\n",
                     line.operands[0].c_str());
        return 2;
    }
    auto& application = platform::Application::sharedApplication();
    application.setHandedOverArguments(line.operands);
    application.finishLaunching();
    TimerTool timer(line.operands);
    application.setDelegate(&timer);
    // For usage reporting, unless the user has switched it off.
    CEPLog::sharedInstance().log("StartPermanent");
    const int status = application.run();
    CEPLog::sharedInstance().log("Quit");
    return status;
}
