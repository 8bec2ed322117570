#pragma once

#include <atomic>
#include <chrono>
#include <compare>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sys/types.h>

#include "Common/Platform/Linux/Modules/Desktop/LoopObjects.h"
#include "Common/Platform/Linux/Modules/Desktop/NotificationsModule.h"

namespace utilia::platform::desktop {

// The halves of a notification's name, which are the interface and member of a signal.
struct NotificationName {
    std::string interface;
    std::string member;

    friend auto operator<=>(const NotificationName&, const NotificationName&) = default;
};

// The thread that speaks to the session's bus: begun with the first call, and there for as long as
// the process. It makes a connection when there is something to say or to hear, and a new one,
// after a pause that grows, when that one is lost and there is still something to hear.
//
// Threads: any.
class NotificationBus final {
public:
    struct Outcome {
        UtiliaNotificationsProgress progress;
        std::string reason;
    };

    static NotificationBus& shared();

    // As in UtiliaNotificationsModule. May throw std::bad_alloc.
    Outcome observe(const std::string& address, const NotificationName& name,
                    std::chrono::milliseconds timeout, UtiliaNotificationHeard heard);
    void ignore(const NotificationName& name);
    Outcome post(const std::string& address, const NotificationName& name,
                 std::chrono::milliseconds timeout);

    NotificationBus(const NotificationBus&) = delete;
    NotificationBus& operator=(const NotificationBus&) = delete;

private:
    // A turn of the thread: everything that was asked for by the time it began.
    struct Turn {
        std::uint64_t number;
        std::string address;
        std::vector<NotificationName> outgoing;
        std::vector<NotificationName> wanted;
    };

    NotificationBus() = default;
    bool isInForkedChild() const;
    std::string start();  // why not; with mutex_
    Outcome waitForTurn(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds timeout);

    void run();
    void serve();
    Turn beginTurn();
    void endTurn(const Turn& turn, std::string failure);
    std::string attempt(const Turn& turn);  // why not, like those below
    std::string connect(const std::string& address);
    std::string subscribe(const std::vector<NotificationName>& wanted);
    std::string send(const std::vector<NotificationName>& outgoing);
    void disconnect();
    static void closed(NotificationBus* self);
    static void signalled(GDBusConnection*, const char* sender, const char* path,
                          const char* interface, const char* member, GVariant* parameters,
                          gpointer self);

    std::mutex mutex_;
    std::condition_variable turnEnded_;
    std::atomic<pid_t> process_ = 0;  // 0 before the thread
    // Guarded by mutex_.
    std::string address_;
    std::vector<NotificationName> outgoing_;
    std::map<NotificationName, int> wanted_;  // how many want it
    std::uint64_t asked_ = 0;                 // the turn that will serve what was asked last
    std::uint64_t served_ = 0;                // the last turn that has ended
    std::string failure_;                     // of that turn
    bool isLate_ = false;                     // somebody has waited in vain for the turn under way
    std::atomic<UtiliaNotificationHeard> heard_ = nullptr;

    // Made before the thread, and then its own.
    GMainContext* context_ = nullptr;
    std::unique_ptr<WakeUp> work_;  // fireSoon() and fireAt() with mutex_

    // The thread's own.
    ObjectPtr<GDBusConnection> connection_;
    std::map<NotificationName, guint> subscriptions_;
    gint64 pauseBeforeRetry_ = 0;
};

}  // namespace utilia::platform::desktop
