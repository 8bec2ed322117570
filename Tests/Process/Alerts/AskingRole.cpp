#include "Tests/Process/Alerts/AskingRole.h"

#include <stdexcept>

#include "Common/Platform/Alert.h"
#include "Common/UtiliaCommon/AgentAlert.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/TestLog.h"

namespace utilia::test {
namespace {

UTILIA_CHILD_ROLE(askAgentQuestion) {
    return sayAnswer(self, [] { return AgentAlert().runModal(); });
}

UTILIA_CHILD_ROLE(askQuestion) {
    platform::Alert alert;
    alert.setAlertStyle(static_cast<platform::AlertStyle>(std::stoi(self.arguments.at(0))));
    alert.setMessageText(self.arguments.at(1));
    for (std::size_t i = 2; i < self.arguments.size(); ++i) {
        alert.addButtonWithTitle(self.arguments[i]);
    }
    return sayAnswer(self, [&alert] { return alert.runModal(); });
}

}  // namespace

int sayAnswer(const ChildRole& self, const std::function<int()>& ask) {
    const TestLog log;
    self.say("asking");
    const int answer = ask();
    self.say(std::to_string(answer));
    self.say(joinFields(log.lines()));
    return 0;
}

std::map<std::string, std::string> environmentWithLanguage(const std::string& language) {
    const std::string unset = "\x01";
    return {{"LANGUAGE", language},
            {"LC_ALL", unset},
            {"LC_MESSAGES", unset},
            {"LANG", unset},
            {"DISPLAY", unset},
            {"WAYLAND_DISPLAY", unset},
            {"DBUS_SESSION_BUS_ADDRESS", unset},
            {"QT_QPA_PLATFORM", unset},
            {"QT_STYLE_OVERRIDE", unset},
            {"QT_QPA_PLATFORMTHEME", unset},
            {"XDG_CURRENT_DESKTOP", unset}};
}

AskingTool::AskingTool(const TestBundle& bundle, const std::string& role,
                       std::vector<std::string> arguments,
                       std::map<std::string, std::string> environment) {
    ChildProcessOptions options;
    options.environment = environmentWithLanguage("en");
    for (auto& [name, value] : environment) options.environment[name] = value;
    options.ownSession = true;
    process_ = bundle.role(role, std::move(arguments), options);
    if (process_.waitForLine() != "asking") throw std::runtime_error("the tool does not ask");
}

int AskingTool::answer() {
    const auto line = process_.waitForLine();
    if (!line) throw std::runtime_error("the tool has no answer");
    return std::stoi(*line);
}

std::vector<std::string> AskingTool::log() {
    return splitFields(process_.waitForLine().value_or("no log"));
}

}  // namespace utilia::test
