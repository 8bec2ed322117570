#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"

namespace utilia {

// A record without one of them answers nothing in its place.
using EnumerateToolsBlock =
    std::function<void(const std::optional<std::string>& bundleId,
                       const std::optional<std::string>& name, const std::optional<Date>& date)>;

// The agent's side of scheduling: which tools are to be launched, and acting for a tool. The agent
// does the launching itself. A tool is named by its name and its bundle identifier, as in its
// record; mind the order of the arguments, which is that of the original interface.
//
// Nothing is reported; see AppGroupStore.h.
//
// Threads: any, but for upgradeSchedulerData() the one that uses the standard user defaults.
// Observers run on the main run loop.
class UTILIA_EXPORT AgentScheduler final {
public:
    AgentScheduler() = delete;

    // Calls the block for each record that is to be launched at a date, in stored order, on this
    // thread. All records are read before the first call and the store's lock is given up, so the
    // block may use any function here.
    static void enumerateTools(const EnumerateToolsBlock& block);

    // Takes "date" and "launchAtDate" out of the tool's record. Nobody is told: it is the agent
    // that cancels. A tool without a record gets one that only names it.
    static void cancelScheduleByName(std::string_view name, std::string_view toolId);

    // Whether the tool wants to be launched at login; false without a record.
    static bool shouldLaunchAtLoginByName(std::string_view name, std::string_view toolId);

    // Has the tool launched at the date, once ("interval" is the integer 0), and posts
    // kAgentUpdateSchedulerNotification after the lock is given up.
    static void scheduleToolAtDate(Date date, std::string_view withId, std::string_view name);

    // Moves the records that older agents kept under "AgentScheduler" in their own preferences into
    // the shared store. They replace all that is there, also when they are none; without that key
    // nothing happens. The old records are only removed once the new ones are written.
    static void upgradeSchedulerData();

    // Calls the block on the main run loop whenever a process has posted
    // kAgentUpdateSchedulerNotification, this one included. Adding an observer twice has it called
    // twice. The pointer is only compared.
    static void addUpdateObserver(const void* observer, std::function<void()> selector);
    // Ends everything that was added with this pointer; harmless without.
    static void removeUpdateObserver(const void* observer);
};

}  // namespace utilia
