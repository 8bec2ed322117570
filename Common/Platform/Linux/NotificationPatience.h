#pragma once

#include <atomic>
#include <cstdint>

namespace utilia::platform {

// Milliseconds that a post and a new observer wait for the bus (DistributedNotificationCenter.h): 200. Tests of what is
// heard have it longer, so that a busy machine cannot use it up.
//
// Threads: any.
std::atomic<std::uint32_t>& notificationPatience();

}  // namespace utilia::platform
