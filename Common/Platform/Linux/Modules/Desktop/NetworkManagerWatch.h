#pragma once

#include <functional>
#include <utility>

#include "Common/Platform/Linux/Modules/Desktop/LoopObjects.h"

namespace utilia::platform::desktop {

// Whether NetworkManager has found that the network wants a login first ("portal") or does not lead
// to the internet ("limited"). Where it does not run, or there is no system bus, no network counts
// as restricted.
//
// Threads: start() belongs to the one whose default context brings the answers, as does all else.
class NetworkManagerWatch final {
public:
    // `changed` is called when isRestricted() has become another.
    explicit NetworkManagerWatch(std::function<void()> changed) : changed_(std::move(changed)) {}
    NetworkManagerWatch(const NetworkManagerWatch&) = delete;
    NetworkManagerWatch& operator=(const NetworkManagerWatch&) = delete;

    // Asks without waiting. Answers may come at any time from then on: the object has to stay.
    void start();
    bool isRestricted() const { return isRestricted_; }

private:
    static void connected(GObject*, GAsyncResult* result, gpointer self);
    static void proxyMade(GObject*, GAsyncResult* result, gpointer self);
    static void update(NetworkManagerWatch* self);
    static void closed(NetworkManagerWatch* self);
    void setRestricted(bool isRestricted);

    std::function<void()> changed_;
    ObjectPtr<GDBusConnection> connection_;
    ObjectPtr<GDBusProxy> proxy_;
    bool isRestricted_ = false;
};

}  // namespace utilia::platform::desktop
