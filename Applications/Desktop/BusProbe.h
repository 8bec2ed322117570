#pragma once

#include <chrono>
#include <string_view>

namespace utilia::desktop {

// Whether a bus takes connections and says nothing on them, which the bus library and the toolkit would wait for without
// limit. Looks on a connection of its own, with the greeting that they begin with, for at most `patience`. False as well
// for what fails at once, as the bus library finds out itself, and for addresses that are no local socket, which are not
// looked at: "tcp:" and others.
//
// `addresses` is a list as in DBUS_SESSION_BUS_ADDRESS; the first place that takes connections counts.
//
// Threads: any.
bool isBusSilent(std::string_view addresses, std::chrono::milliseconds patience);

}  // namespace utilia::desktop
