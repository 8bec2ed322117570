#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Common/Platform/Linux/Modules/Desktop/DesktopModule.h"
#include "Common/Platform/Linux/Modules/Desktop/LoopObjects.h"
#include "Common/Platform/Linux/Modules/Desktop/NetlinkSocket.h"
#include "Common/Platform/Linux/Modules/Desktop/NetworkManagerWatch.h"

namespace utilia::platform::desktop {

// What all watches look at.
struct Network {
    GMainContext* context = nullptr;
    NetlinkSocket routes;
    NetlinkSocket changes;
    std::unique_ptr<NetworkManagerWatch> manager;
};

// Follows one host: looks its name up, and looks for a route to its addresses.
//
// Threads: end() and isEnded() any; all else the module's.
class HostWatch final : public std::enable_shared_from_this<HostWatch> {
public:
    HostWatch(std::string host, UtiliaDesktopHostChanged changed, void* context);

    // No call after the return.
    void end();
    bool isEnded() const;

    void start(const Network& network);
    void networkChanged();
    // Gives up a lookup that is under way. The last call.
    void stop();

private:
    void lookUp();
    void lookUpBy(gint64 time);
    static void lookedUp(GObject* resolver, GAsyncResult* result, gpointer watch);
    void finishLookUp(GList* addresses, ErrorPtr error);
    std::uint32_t currentFlags() const;
    void publish(std::uint32_t flags);

    mutable std::mutex mutex_;
    UtiliaDesktopHostChanged changed_;  // guarded by mutex_; null: ended
    void* const context_;

    const std::string host_;
    const Network* network_ = nullptr;
    std::vector<ObjectPtr<GInetAddress>> addresses_;
    std::uint32_t flags_ = 0;
    std::unique_ptr<WakeUp> nextLookUp_;
    ObjectPtr<GCancellable> lookUp_;  // the one under way
    gint64 lookUpBegan_ = 0;
    gint64 lookUpAfterThis_ = -1;
    gint64 pauseAfterFailure_ = 0;
};

}  // namespace utilia::platform::desktop
