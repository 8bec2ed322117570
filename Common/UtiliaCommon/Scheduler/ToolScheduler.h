#pragma once

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"

namespace utilia {

// How a tool schedules itself: each function changes the calling tool's own record in the shared
// store (updateSchedulerForThisTool). Where it says so, the agent is told of the change afterwards,
// by the distributed notification kAgentUpdateSchedulerNotification; the store's lock has been
// given up by then.
//
// What is not mentioned stays as it is in the record. Nothing is reported; see AppGroupStore.h.
//
// Threads: any.
class UTILIA_EXPORT ToolScheduler final {
public:
    ToolScheduler() = delete;

    // Whether the tool wants to be launched at login. The agent is not told: it looks when it needs
    // to know.
    static void scheduleAtLogin(bool launchAtLogin);

    // Launch at the date, and again each `withRepeat` seconds after it; 0 means once. The agent is
    // told.
    static void scheduleAtDate(Date date, double withRepeat);

    // No launch at a date any more; date and interval stay in the record. The agent is told.
    static void cancelDateSchedule();
};

}  // namespace utilia
