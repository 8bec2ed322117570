#include "Common/Platform/NotificationCenter.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"

namespace utilia::platform {
namespace {

struct Observer {
    std::string name;
    const void* object = nullptr;
    std::uint64_t number = 0;
    std::function<void(const void*)> call;
    std::atomic<bool> isActive = true;
};

// One observer that throws must not keep the others from hearing the notification.
void notify(const Observer& observer, const void* object) noexcept {
    try {
        observer.call(object);
    } catch (const std::exception& thrown) {
        KULogVariadic("An observer of %@ threw: %s", observer.name, thrown.what());
    } catch (...) {
        KULogVariadic("An observer of %@ threw something that is no exception", observer.name);
    }
}

}  // namespace

struct NotificationCenter::State {
    std::mutex mutex;
    std::vector<std::shared_ptr<Observer>> observers;  // in the order of their numbers
    std::uint64_t nextNumber = 0;

    // The first one from `from` on, and before `end`, that observes this; null when there is none.
    std::shared_ptr<Observer> observerOf(std::string_view name, const void* object,
                                         std::uint64_t from, std::uint64_t end) {
        const std::lock_guard guard(mutex);
        auto each = std::lower_bound(
            observers.begin(), observers.end(), from,
            [](const auto& observer, std::uint64_t number) { return observer->number < number; });
        for (; each != observers.end() && (*each)->number < end; ++each) {
            if ((*each)->name != name) continue;
            if (!(*each)->object || (*each)->object == object) return *each;
        }
        return nullptr;
    }

    std::uint64_t next() {
        const std::lock_guard guard(mutex);
        return nextNumber;
    }

    void remove(const std::shared_ptr<Observer>& observer) {
        observer->isActive = false;
        const std::lock_guard guard(mutex);
        std::erase(observers, observer);
    }
};

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter* const center = new NotificationCenter;
    return *center;
}

NotificationCenter::NotificationCenter() : state_(std::make_shared<State>()) {}
NotificationCenter::~NotificationCenter() = default;

Handle NotificationCenter::addObserver(std::string_view name, const void* object,
                                       std::function<void(const void* object)> observer) {
    return unlessOutOfMemory("Notifications", [&] {
        auto added = std::make_shared<Observer>();
        added->name = name;
        added->object = object;
        added->call = std::move(observer);
        // Made first: an observer that nobody could end must not be registered.
        Handle handle([state = std::weak_ptr(state_), added] {
            if (const auto living = state.lock()) {
                living->remove(added);
            } else {
                added->isActive = false;
            }
        });
        const std::lock_guard guard(state_->mutex);
        added->number = state_->nextNumber;
        state_->observers.push_back(added);
        ++state_->nextNumber;
        return handle;
    });
}

void NotificationCenter::post(std::string_view name, const void* object) {
    // One observer may end itself, the others, or the centre. It takes no memory to find the next
    // one: ports that end and applications that terminate have to be told of in any case.
    const auto state = state_;
    const std::uint64_t end = state->next();
    std::uint64_t from = 0;
    while (const auto observer = state->observerOf(name, object, from, end)) {
        from = observer->number + 1;
        if (observer->isActive) notify(*observer, object);
    }
}

}  // namespace utilia::platform
