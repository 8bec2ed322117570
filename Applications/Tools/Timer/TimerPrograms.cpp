#include "Applications/Tools/Timer/TimerPrograms.h"

#include <array>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <utility>
#include <vector>

#include <unistd.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Task.h"

namespace utilia::tools {

namespace {

// One log line when it cannot be started.
bool start(const std::string& name, std::vector<std::string> arguments) {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    const auto program = bundle ? bundle->pathForAuxiliaryExecutable(name) : std::nullopt;
    if (!program) {
        KULogVariadic("Timer: there is no %@", name);
        return false;
    }
    platform::Task task;
    task.launchPath = *program;
    task.arguments = std::move(arguments);
    for (char** variable = environ; *variable; ++variable) task.environment.emplace_back(*variable);
    const auto launched = task.launch();
    if (!launched) KULogVariadic("Timer: cannot start %@: %@", name, launched.error());
    return launched.has_value();
}

bool hasDisplay() {
    for (const char* const name : {"WAYLAND_DISPLAY", "DISPLAY"}) {
        const char* const display = std::getenv(name);
        if (display && *display) return true;
    }
    return false;
}

}  // namespace

void showNotification(const std::string& summary, const std::string& body) {
    start("timer-notification", {summary, body});
}

bool showWindow(bool isHeld, std::int64_t lastSeconds) {
    return hasDisplay() &&
           start("timer-window", {isHeld ? "held" : "counts", std::to_string(lastSeconds)});
}

std::string clockTime(Date date) {
    const auto seconds = static_cast<std::time_t>(std::floor(date.unixTime()));
    std::tm parts{};
    localtime_r(&seconds, &parts);
    std::array<char, 32> text;
    const std::size_t length = std::strftime(text.data(), text.size(), "%H:%M", &parts);
    return {text.data(), length};
}

}  // namespace utilia::tools
