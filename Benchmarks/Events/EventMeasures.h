#pragma once

#include <string>

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// Processes that record as fast as they can, in "utilia", "append", "by hand", "spdlog", "journald"
// or "SQLite": per_s, us (of one process's time for a record), longest_ms.
Figures measureEvents(const std::string& log, int processes, const Settings& settings);

// Formatting alone, on one core, of a record with ten attributes: per_s, allocations of a record.
Figures measureFormatting(const Settings& settings);

}  // namespace utilia::bench
