#include "Common/UtiliaCommon/Scheduler/ToolScheduler.h"

#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/DistributedNotificationCenter.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

namespace utilia {
namespace {

constexpr std::string_view kWhat = "Scheduler";

void tellAgent() {
    platform::DistributedNotificationCenter::defaultCenter().post(
        kAgentUpdateSchedulerNotification);
}

}  // namespace

void ToolScheduler::scheduleAtLogin(bool launchAtLogin) {
    unlessOutOfMemory(kWhat, [&] {
        updateSchedulerForThisTool([launchAtLogin](Dictionary& record) {
            record.set(kSchedulerLaunchAtLoginKey, launchAtLogin);
        });
    });
}

void ToolScheduler::scheduleAtDate(Date date, double withRepeat) {
    unlessOutOfMemory(kWhat, [&] {
        updateSchedulerForThisTool([date, withRepeat](Dictionary& record) {
            record.set(kSchedulerLaunchAtDateKey, true);
            record.set(kSchedulerDateKey, date);
            record.set(kSchedulerIntervalKey, withRepeat);
        });
        tellAgent();
    });
}

void ToolScheduler::cancelDateSchedule() {
    unlessOutOfMemory(kWhat, [] {
        updateSchedulerForThisTool(
            [](Dictionary& record) { record.set(kSchedulerLaunchAtDateKey, false); });
        tellAgent();
    });
}

}  // namespace utilia
