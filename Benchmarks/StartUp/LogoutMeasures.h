#pragma once

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// From SIGTERM to the end of a permanent tool with two icons of 512 pixels, which stores its record
// and both icons meanwhile: tool_ms. The limit writes and syncs as many bytes in as many files, by
// turns: files_ms.
Figures measureLogout(const Settings& settings);

}  // namespace utilia::bench
