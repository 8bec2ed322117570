#include "Applications/Tools/Timer/TimerNotification.h"

#include <array>
#include <cmath>
#include <ctime>

#include <unistd.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Task.h"

namespace utilia::tools {

void showNotification(const std::string& summary, const std::string& body) {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    const auto program =
        bundle ? bundle->pathForAuxiliaryExecutable("timer-notification") : std::nullopt;
    if (!program) {
        KULogVariadic("Timer: there is no timer-notification to show: %@", summary);
        return;
    }
    platform::Task task;
    task.launchPath = *program;
    task.arguments = {summary, body};
    for (char** variable = environ; *variable; ++variable) task.environment.emplace_back(*variable);
    if (const auto launched = task.launch(); !launched)
        KULogVariadic("Timer: cannot show a notification: %@", launched.error());
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
