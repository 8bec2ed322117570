#include "Common/Platform/NotificationCenter.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Common/Logging/Log.h"

namespace utilia::platform {
namespace {

struct Observer {
    std::string name;
    const void* object = nullptr;
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
    std::vector<std::shared_ptr<Observer>> observers;  // in the order of their registration

    std::vector<std::shared_ptr<Observer>> observersOf(std::string_view name, const void* object) {
        const std::lock_guard guard(mutex);
        std::vector<std::shared_ptr<Observer>> found;
        for (const auto& observer : observers) {
            if (observer->name != name) continue;
            if (!observer->object || observer->object == object) found.push_back(observer);
        }
        return found;
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
    auto added = std::make_shared<Observer>();
    added->name = name;
    added->object = object;
    added->call = std::move(observer);
    {
        const std::lock_guard guard(state_->mutex);
        state_->observers.push_back(added);
    }
    return Handle([state = std::weak_ptr(state_), added] {
        if (const auto living = state.lock()) {
            living->remove(added);
        } else {
            added->isActive = false;
        }
    });
}

void NotificationCenter::post(std::string_view name, const void* object) {
    // The list keeps its observers alive, so that one may end itself, or the centre, from its own
    // call.
    for (const auto& observer : state_->observersOf(name, object)) {
        if (observer->isActive) notify(*observer, object);
    }
}

}  // namespace utilia::platform
