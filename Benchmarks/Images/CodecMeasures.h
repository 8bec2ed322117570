#pragma once

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// A picture like a screenshot of a long page, 1440 x 4000 pixels, written and read as PNG and JPEG
// by the framework (png_write_ms, jpeg_read_ms …) and by calls of the same library with the same
// settings (png_write_bare_ms …): medians of rounds in which every way takes its turn.
Figures measureCodecs(const Settings& settings);

}  // namespace utilia::bench
