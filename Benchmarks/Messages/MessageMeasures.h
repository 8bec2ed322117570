#pragma once

#include <cstddef>

#include "Benchmarks/Messages/Channel.h"

namespace utilia::bench {

// Half a round trip between two processes on one core, in microseconds: p50_us, p99_us.
Figures measureLatency(MessageChannel& channel, std::size_t size, const Settings& settings);

// Many senders to one receiver, as fast as they can: per_s, lost, fairness (least against most
// served), longest_send_ms.
Figures measureFanIn(MessageChannel& channel, std::size_t size, int senders,
                     const Settings& settings);

}  // namespace utilia::bench
