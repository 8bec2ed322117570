#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace utilia::platform {

// Where the session's bus listens, as the environment has it at the call: the sockets of
// DBUS_SESSION_BUS_ADDRESS where that is set, else $XDG_RUNTIME_DIR/bus, whether it is there or
// not. Empty without either. A bus is never started.
std::optional<std::string> sessionBusAddress();

// The same, but empty when it is $XDG_RUNTIME_DIR/bus and that is not there.
std::optional<std::string> reachableSessionBusAddress();

// The local sockets of a list of D-Bus addresses, all that can be checked to be the user's own.
// Empty when there are none.
std::optional<std::string> socketAddresses(std::string_view addresses);

// The D-Bus address of a socket at a path.
std::string socketAddress(std::string_view path);

}  // namespace utilia::platform
