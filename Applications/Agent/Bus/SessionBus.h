#pragma once

#include <functional>
#include <optional>

#include <QDBusConnection>
#include <QObject>

namespace utilia::agent {

// The agent's connection with the session bus.
//
// The bus is the one that DBUS_SESSION_BUS_ADDRESS names; none is ever started. The bus library waits for its
// bus, so the connection is made on a thread of its own: an agent whose bus does not answer works all the same, without
// tray and published object.
//
// Threads: the main thread.
class SessionBus final : public QObject {
public:
    // `whenThere` is called once, on the main thread; never without a bus.
    void connect(std::function<void(QDBusConnection)> whenThere);
    // Whether connecting came to its end without a bus.
    bool hasFailed() const { return hasFailed_; }
    // Called once when there is no bus, or none any more.
    void setLostHandler(std::function<void()> lost) { lost_ = std::move(lost); }

private:
    void fail(const QString& why);

    bool hasFailed_ = false;
    std::function<void()> lost_;
};

}  // namespace utilia::agent
