#pragma once

#include <chrono>
#include <functional>

#include <QDBusConnection>
#include <QFileSystemWatcher>
#include <QObject>
#include <QString>
#include <QTimer>

namespace utilia::agent {

// The agent's connection with the session bus, for as long as the agent runs: a bus that is late is waited for, and one
// that was lost is connected with again when it is back at its address.
//
// The bus is the one that DBUS_SESSION_BUS_ADDRESS names; none is ever started. The bus library waits for its
// bus without limit, and with it whoever uses that library in the meantime: so each connection is made on a thread of its
// own, and only with a bus that has answered a greeting. One that does not is missing. A bus is looked for when its
// socket appears, and for a socket that is there, or cannot be watched, in growing pauses of up to half a minute; where
// the address names none, not at all.
//
// Threads: the main thread.
class SessionBus final : public QObject {
    Q_OBJECT
public:
    enum class State {
        Connecting,  // for the first time
        Connected,
        Missing,  // there has not been one yet
        Lost,
    };
    struct Handlers {
        // With each new connection; the one before is gone by then.
        std::function<void(const QDBusConnection&)> connected;
        // There is no bus, or none any more.
        std::function<void()> missed;
    };

    SessionBus();

    // Once. The handlers are called on the main thread.
    void start(Handlers handlers);
    State state() const { return state_; }
    bool isMissing() const { return state_ == State::Missing || state_ == State::Lost; }

private Q_SLOTS:
    void disconnected();

private:
    void connectNow();
    void finish(const QString& name);  // empty: the bus does not answer
    void fail(const QString& why);
    void watchSocket();

    Handlers handlers_;
    State state_ = State::Connecting;
    QString name_;         // of the connection, to the bus library
    int attempts_ = 0;     // so that no name is used twice
    bool isBusy_ = false;  // a thread is connecting
    std::chrono::milliseconds pause_;
    QTimer retry_;
    QString socket_;  // empty where the bus has none with a path
    QFileSystemWatcher sockets_;
};

}  // namespace utilia::agent
