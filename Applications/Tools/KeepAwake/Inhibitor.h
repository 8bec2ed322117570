#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "Applications/Tools/Desktop/Gio.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::tools {

// Asks the session not to become idle (so that the screen stays on and unlocked), and the system not to sleep.
//
// The session is asked through the first of these interfaces that answers: org.freedesktop.ScreenSaver, GNOME's session
// manager, the desktop portal. The system is asked through logind. What was granted is bound to this process's
// connection and to a descriptor, so that it ends with the process, however that ends. A session's service that goes
// away takes its grant along; the next one that is there is asked then. So does a bus that ends: the next one at its
// address is looked for, in pauses that grow to half a minute, and asked. No bus is ever started.
//
// Threads: the main thread, whose loop it needs. Nothing here waits for an answer.
class Inhibitor final {
public:
    // What of the two was asked for last, and became of it.
    enum class State { Off, Asked, Granted, Refused };

    // `changed` is called when a state has become another one; never inside start() or stop().
    Inhibitor(std::string applicationName, std::string reason, std::function<void()> changed);
    ~Inhibitor();
    Inhibitor(const Inhibitor&) = delete;
    Inhibitor& operator=(const Inhibitor&) = delete;

    void start();
    // Gives everything back.
    void stop();

    bool isStarted() const { return isStarted_; }
    State session() const { return session_; }
    State system() const { return system_; }
    // Every refusal of the last start, for the log: "org.freedesktop.login1: …".
    const std::string& refusals() const { return refusals_; }

private:
    struct Call;

    void connectSession();
    void connectSessionLater();
    void connectSystem();
    void sessionConnected(ObjectPointer<GDBusConnection> connection, GioError& error);
    void systemConnected(GDBusConnection* connection, GioError& error);
    void askSession(std::size_t service);
    void sessionAnswered(std::size_t service, GVariant* answer, GioError& error);
    void systemAnswered(GVariant* answer, GUnixFDList* descriptors, GioError& error);
    void giveBack(std::size_t service, GVariant* answer);
    void watchServices();
    void unwatchServices();
    void serviceAppeared();
    void serviceVanished(const std::string& name);
    void sessionBusClosed();
    void refuse(const std::string& who, GioError& error);
    void settle(State& state, State to);

    const std::string applicationName_;
    const std::string reason_;
    const std::function<void()> changed_;
    bool isStarted_ = false;
    unsigned start_ = 0;  // which one; answers to an earlier one are given back
    State session_ = State::Off;
    State system_ = State::Off;
    std::string refusals_;

    std::shared_ptr<Inhibitor*> self_ = std::make_shared<Inhibitor*>(this);
    ObjectPointer<GDBusConnection> sessionBus_;
    gulong closedSignal_ = 0;
    bool isLost_ = false;  // there was a bus, and another one may come
    guint pause_ = 0;      // before the next look for it, in milliseconds
    guint retry_ = 0;
    std::array<guint, 3> watches_{};
    std::size_t grantedBy_ = 0;  // the session's service, while it is granted
    VariantPointer grant_;
    platform::UniqueFd sleepLock_;
};

}  // namespace utilia::tools
