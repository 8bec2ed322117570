#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"

#include <mutex>
#include <utility>
#include <vector>

#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/DistributedNotificationCenter.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

namespace utilia {
namespace {

using platform::DistributedNotificationCenter;
using platform::UserDefaults;

constexpr std::string_view kLegacySchedulerKey = "AgentScheduler";
constexpr std::string_view kWhat = "Scheduler";

struct ScheduledTool {
    std::optional<std::string> bundleId;
    std::optional<std::string> name;
    std::optional<Date> date;
};

std::optional<Date> dateOf(const Dictionary& record) {
    const Value* const date = record.find(kSchedulerDateKey);
    if (!date || !date->date()) return std::nullopt;
    return *date->date();
}

struct Observers {
    std::mutex mutex;
    std::vector<std::pair<const void*, Handle>> registrations;
};

Observers& observers() {
    static Observers* const all = new Observers;
    return *all;
}

}  // namespace

void AgentScheduler::enumerateTools(const EnumerateToolsBlock& block) {
    const auto tools = unlessOutOfMemory(kWhat, [] {
        Array records;
        accessAppGroupPlist([&records](UserDefaults& suite) {
            records = suite.arrayForKey(kSchedulerKey).value_or(Array());
        });
        std::vector<ScheduledTool> scheduled;
        for (const Value& each : records) {
            const Dictionary* const record = each.dictionary();
            if (!record || !record->boolean(kSchedulerLaunchAtDateKey)) continue;
            scheduled.push_back({record->string(kSchedulerBundleIdKey),
                                 record->string(kSchedulerNameKey), dateOf(*record)});
        }
        return scheduled;
    });
    if (!block) return;
    for (const ScheduledTool& tool : tools) block(tool.bundleId, tool.name, tool.date);
}

void AgentScheduler::cancelScheduleByName(std::string_view name, std::string_view toolId) {
    unlessOutOfMemory(kWhat, [&] {
        updateSchedulerPlist(toolId, name, [](Dictionary& record) {
            record.remove(kSchedulerDateKey);
            record.remove(kSchedulerLaunchAtDateKey);
        });
    });
}

bool AgentScheduler::shouldLaunchAtLoginByName(std::string_view name, std::string_view toolId) {
    bool shouldLaunch = false;
    readSchedulerPlist(toolId, name, [&shouldLaunch](const Dictionary& record) {
        shouldLaunch = record.boolean(kSchedulerLaunchAtLoginKey);
    });
    return shouldLaunch;
}

void AgentScheduler::scheduleToolAtDate(Date date, std::string_view withId, std::string_view name) {
    unlessOutOfMemory(kWhat, [&] {
        updateSchedulerPlist(withId, name, [date](Dictionary& record) {
            record.set(kSchedulerLaunchAtDateKey, true);
            record.set(kSchedulerDateKey, date);
            record.set(kSchedulerIntervalKey, 0);
        });
        DistributedNotificationCenter::defaultCenter().post(kAgentUpdateSchedulerNotification);
    });
}

void AgentScheduler::upgradeSchedulerData() {
    UserDefaults& own = UserDefaults::standardUserDefaults();
    auto legacy = own.arrayForKey(kLegacySchedulerKey);
    if (!legacy) return;
    bool isWritten = false;
    accessAppGroupPlist([&](UserDefaults& suite) {
        suite.setObject(*std::move(legacy), kSchedulerKey);
        isWritten = suite.synchronize();
    });
    // A full disk must not cost the user every schedule.
    if (isWritten) own.removeObjectForKey(kLegacySchedulerKey);
}

void AgentScheduler::addUpdateObserver(const void* observer, std::function<void()> selector) {
    unlessOutOfMemory(kWhat, [&] {
        Handle registration = DistributedNotificationCenter::defaultCenter().addObserver(
            kAgentUpdateSchedulerNotification, std::move(selector));
        Observers& all = observers();
        const std::lock_guard guard(all.mutex);
        all.registrations.emplace_back(observer, std::move(registration));
    });
}

void AgentScheduler::removeUpdateObserver(const void* observer) {
    unlessOutOfMemory(kWhat, [&] {
        // Ended without the lock: what a block holds may register observers in its destructor.
        std::vector<Handle> ended;
        Observers& all = observers();
        const std::lock_guard guard(all.mutex);
        // Before anything is taken out: there is no way back half-way.
        ended.reserve(all.registrations.size());
        std::erase_if(all.registrations, [&](auto& registration) {
            if (registration.first != observer) return false;
            ended.push_back(std::move(registration.second));
            return true;
        });
    });
}

}  // namespace utilia
