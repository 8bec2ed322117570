#pragma once

#include <functional>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Handle.h"

namespace utilia::platform {

// Notifications between the processes of one user's session. A notification is a name and nothing
// else, of letters, digits and underscores in at least three parts: "com.example.changed".
// Documentation/Formats/Notifications.md says how it travels.
//
// Who observes a name is called for every post of it by any process, the poster included, as long
// as both reach the session's bus. Nothing is kept for processes that start later or have lost the
// bus; an observer that registers before there is a bus hears as soon as there is one. Observers
// that do not keep up are called fewer times than was posted, but always once more after the last
// post.
//
// Threads: any. Observers run on the main run loop, never inside a post.
class UTILIA_EXPORT DistributedNotificationCenter final {
public:
    static DistributedNotificationCenter& defaultCenter();

    // Waits until the bus knows of the observer, at most 200 ms; whatever is posted after that is
    // heard. The handle may be ended on any thread; on another than the main one the end may meet a
    // call that is under way. Failures are logged once; without the module, and for what is no
    // name, the observer is never called.
    Handle addObserver(std::string_view name, std::function<void()> observer);

    // Returns when the notification is with the bus, so that the process may end at once: at most
    // 200 ms later. After that time it goes out when it can. Where there is no bus this does
    // nothing at once. Failures are logged once.
    void post(std::string_view name);

    DistributedNotificationCenter(const DistributedNotificationCenter&) = delete;
    DistributedNotificationCenter& operator=(const DistributedNotificationCenter&) = delete;

private:
    DistributedNotificationCenter();
    struct State;
    State& state_;  // never destroyed
};

}  // namespace utilia::platform
