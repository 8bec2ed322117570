#include <cstdio>
#include <map>
#include <string>

#include "Common/Platform/Linux/NotificationPatience.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/ToolScheduler.h"
#include "Tests/Support/ChildScript.h"

// A process that schedules, as a tool or as the agent.

using namespace utilia;
using namespace utilia::test;

namespace {

Date dateOf(const std::string& seconds) { return Date{std::stod(seconds)}; }

// With the argument "patient" it waits for a slow bus.
UTILIA_CHILD_ROLE(scheduler) {
    if (!self.arguments.empty()) platform::notificationPatience() = 60'000;
    std::map<std::string, int> calls;
    ChildScript script(self);
    script.on("tool-at-login", [](const auto& arguments) {
        ToolScheduler::scheduleAtLogin(arguments[0] == "yes");
        return "";
    });
    script.on("tool-at-date", [](const auto& arguments) {
        ToolScheduler::scheduleAtDate(dateOf(arguments[0]), std::stod(arguments[1]));
        return "";
    });
    script.on("tool-cancel", [](const auto&) {
        ToolScheduler::cancelDateSchedule();
        return "";
    });
    script.on("agent-at-date", [](const auto& arguments) {
        AgentScheduler::scheduleToolAtDate(dateOf(arguments[0]), arguments[1], arguments[2]);
        return "";
    });
    script.on("agent-cancel", [](const auto& arguments) {
        AgentScheduler::cancelScheduleByName(arguments[0], arguments[1]);
        return "";
    });
    // Each observer adds itself twice or more with the same pointer when asked to.
    script.on("observe", [&](const auto& arguments) {
        int& count = calls[arguments[0]];
        AgentScheduler::addUpdateObserver(&count, [&count] { ++count; });
        return "";
    });
    script.on("stop-observing", [&](const auto& arguments) {
        AgentScheduler::removeUpdateObserver(&calls[arguments[0]]);
        return "";
    });
    script.on("wait", [&](const auto& arguments) {
        const int& count = calls[arguments[0]];
        ChildScript::waitUntil([&] { return count >= std::stoi(arguments[1]); });
        return std::to_string(count);
    });
    script.on("calls", [&](const auto& arguments) { return std::to_string(calls[arguments[0]]); });
    script.on("set-legacy", [](const auto& arguments) {
        Array legacy;
        for (const std::string& note : arguments) {
            legacy.append(Dictionary{{"bundleid", "old"}, {"name", note}, {"launchAtDate", true}});
        }
        platform::UserDefaults::standardUserDefaults().setObject(legacy, "AgentScheduler");
        return "";
    });
    script.on("set-legacy-text", [](const auto&) {
        platform::UserDefaults::standardUserDefaults().setObject("text", "AgentScheduler");
        return "";
    });
    script.on("has-legacy", [](const auto&) {
        return platform::UserDefaults::standardUserDefaults().objectForKey("AgentScheduler") ? "yes"
                                                                                             : "no";
    });
    script.on("upgrade", [](const auto&) {
        AgentScheduler::upgradeSchedulerData();
        return "";
    });
    return script.run();
}

}  // namespace
