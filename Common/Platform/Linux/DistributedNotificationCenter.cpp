#include "Common/Platform/DistributedNotificationCenter.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include "Common/Foundation/Result.h"
#include "Common/Logging/CallbackGuard.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/BusAddress.h"
#include "Common/Platform/Linux/ModuleLoader.h"
#include "Common/Platform/Linux/Modules/Desktop/NotificationsModule.h"
#include "Common/Platform/Linux/NotificationPatience.h"
#include "Common/Platform/RunLoop.h"

// The module speaks to the bus and tells which names were heard; the observers are kept here, and
// called on the main loop. Where the environment names no bus, the module is not even opened.
//
// A flood of signals must not fill the main loop's queue. Of each name only so many calls wait;
// what arrives beyond them is dropped, and the calls that wait come after it.

namespace utilia::platform {
namespace {

constexpr int kMostWaiting = 64;

// "com.example.changed": interface "com.example", member "changed".
struct Halves {
    explicit Halves(std::string_view name) {
        const std::size_t dot = name.rfind('.');
        if (dot == std::string_view::npos) return;
        interface = name.substr(0, dot);
        member = name.substr(dot + 1);
    }
    std::string interface;
    std::string member;
};

struct Observer {
    Observer(std::string_view observed, std::function<void()> observer)
        : name(observed), halves(observed), call(std::move(observer)) {}

    const std::string name;
    const Halves halves;  // kept, since ending an observer must not need memory
    const std::function<void()> call;
    std::atomic<bool> isActive = true;
};

const UtiliaNotificationsModule* loadModule() {
    const auto module = moduleTable<UtiliaNotificationsModule>(
        "Desktop", kUtiliaNotificationsSymbol, kUtiliaNotificationsVersion);
    if (module) return *module;
    KULogVariadic("Distributed notifications: %@", module.error());
    return nullptr;
}

// Opened on the first ask; null, with one log line per process, when there is none.
const UtiliaNotificationsModule* bus() {
    static const UtiliaNotificationsModule* const module = loadModule();
    return module;
}

}  // namespace

std::atomic<std::uint32_t>& notificationPatience() {
    static std::atomic<std::uint32_t> milliseconds = 200;
    return milliseconds;
}

struct DistributedNotificationCenter::State {
    std::mutex mutex;
    std::vector<std::shared_ptr<Observer>> observers;
    std::map<std::string, int, std::less<>> waiting;  // calls of a name in the main loop's queue
    bool hasFailed = false;                           // and was logged; until something succeeds

    // Once for each time that the bus ceases to do what it is asked.
    void report(std::string_view doing, std::string_view name, std::uint32_t progress,
                const char* reason) {
        const bool isFailure = progress != UtiliaNotificationsDone;
        {
            const std::lock_guard guard(mutex);
            if (progress != UtiliaNotificationsRefused && std::exchange(hasFailed, isFailure))
                return;
        }
        if (isFailure) KULogVariadic("Distributed notifications: %@ %@: %s", doing, name, reason);
    }

    void remove(const std::shared_ptr<Observer>& observer, bool isHeard) {
        observer->isActive = false;
        {
            const std::lock_guard guard(mutex);
            std::erase(observers, observer);
        }
        const Halves& halves = observer->halves;
        if (isHeard) bus()->ignore(halves.interface.c_str(), halves.member.c_str());
    }

    void heard(const std::string& name) {
        {
            const std::lock_guard guard(mutex);
            int& count = waiting[name];
            if (count >= kMostWaiting) return;
            ++count;
        }
        try {
            MainQueue::async([this, name] { deliver(name); });
        } catch (...) {
            // Lost calls that stayed counted would in the end shut out all others.
            const std::lock_guard guard(mutex);
            --waiting[name];
            throw;
        }
    }

    void deliver(const std::string& name) {
        std::vector<std::shared_ptr<Observer>> called;
        {
            const std::lock_guard guard(mutex);
            --waiting[name];
            std::copy_if(observers.begin(), observers.end(), std::back_inserter(called),
                         [&name](const auto& observer) { return observer->name == name; });
        }
        for (const auto& observer : called) {
            if (observer->isActive)
                runGuarded("An observer of " + name, [&observer] { observer->call(); });
        }
    }

    // On the module's thread.
    static void heardByModule(const char* interface, const char* member) noexcept {
        runGuarded("Hearing a notification",
                   [&] { defaultCenter().state_.heard(std::string(interface) + "." + member); });
    }
};

DistributedNotificationCenter& DistributedNotificationCenter::defaultCenter() {
    static auto* const center = new DistributedNotificationCenter;
    return *center;
}

DistributedNotificationCenter::DistributedNotificationCenter() : state_(*new State) {}

Handle DistributedNotificationCenter::addObserver(std::string_view name,
                                                  std::function<void()> observer) {
    std::shared_ptr<Observer> added;
    bool isHeard = false;
    try {
        added = std::make_shared<Observer>(name, std::move(observer));
        {
            const std::lock_guard guard(state_.mutex);
            state_.observers.push_back(added);
        }
        const auto address = sessionBusAddress();
        if (const auto* module = address ? bus() : nullptr) {
            const Halves& halves = added->halves;
            std::array<char, kUtiliaNotificationsReasonSize> reason{};
            const std::uint32_t progress =
                module->observe(address->c_str(), halves.interface.c_str(), halves.member.c_str(),
                                notificationPatience(), &State::heardByModule, reason.data());
            isHeard = progress != UtiliaNotificationsRefused;
            state_.report("observe", name, progress, reason.data());
        }
        return Handle([&state = state_, added, isHeard] { state.remove(added, isHeard); });
    } catch (const std::bad_alloc&) {
        // Nobody could end it.
        if (added) state_.remove(added, isHeard);
        KULogVariadic("Distributed notifications: out of memory");
        return Handle();
    }
}

void DistributedNotificationCenter::post(std::string_view name) try {
    const auto address = reachableSessionBusAddress();
    const auto* module = address ? bus() : nullptr;
    if (!module) return;
    const Halves halves(name);
    std::array<char, kUtiliaNotificationsReasonSize> reason{};
    const std::uint32_t progress =
        module->post(address->c_str(), halves.interface.c_str(), halves.member.c_str(),
                     notificationPatience(), reason.data());
    state_.report("post", name, progress, reason.data());
} catch (const std::bad_alloc&) {
    KULogVariadic("Distributed notifications: out of memory");
}

}  // namespace utilia::platform
