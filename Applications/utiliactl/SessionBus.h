#pragma once

#include <memory>
#include <string>

#include "Common/Foundation/Result.h"

typedef struct _GDBusConnection GDBusConnection;

namespace utilia::control {

struct CloseBus {
    void operator()(GDBusConnection* connection) const;
};
using SessionBus = std::unique_ptr<GDBusConnection, CloseBus>;

// Connects to the session's bus as the environment names it. A bus is never started. Waits at most
// 2 s for its greeting. Fails with Unavailable.
Result<SessionBus> connectToSessionBus();

// The addresses of that bus as the environment has it; empty without one.
std::string sessionBusAddress();

}  // namespace utilia::control
