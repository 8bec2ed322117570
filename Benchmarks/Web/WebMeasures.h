#pragma once

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// A thousand small resources from a server on the loopback, begun at once: utilia_ms, until the last
// callback of WebDataLoader on the main queue; curl_ms, libcurl's own transfer loop with as many
// connections, into memory. In turns, medians; connections are kept from round to round by both.
// loader_first_ms: the very first load of the process, which opens the module.
Figures measureWebLoads(const Settings& settings);

}  // namespace utilia::bench
