#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Handle.h"

namespace utilia::platform {

// Notifications between the objects of one process: posting calls every observer before it returns, in the order
// in which they registered. An observer that is ended during a post is not called any more; one that is added during a post
// is not called by it.
//
// Threads: any; observers run on the posting thread. No lock is held while an observer runs.
class UTILIA_EXPORT NotificationCenter final {
public:
    static NotificationCenter& defaultCenter();

    NotificationCenter();
    ~NotificationCenter();

    // `object` limits the observation to posts of that object; null hears all. It is only compared, never followed.
    // Out of memory the handle is empty, and nothing is observed, with one log line.
    Handle addObserver(std::string_view name, const void* object,
                       std::function<void(const void* object)> observer);
    void post(std::string_view name, const void* object);

private:
    struct State;
    std::shared_ptr<State> state_;
};

inline constexpr std::string_view NSApplicationDidFinishLaunchingNotification =
    "NSApplicationDidFinishLaunchingNotification";
inline constexpr std::string_view NSApplicationWillTerminateNotification =
    "NSApplicationWillTerminateNotification";
inline constexpr std::string_view NSPortDidBecomeInvalidNotification =
    "NSPortDidBecomeInvalidNotification";

}  // namespace utilia::platform
