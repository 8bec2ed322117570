#pragma once

#include <string>

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// A picture like a screenshot of a long page, 1440 x 20,000 pixels, as a PDF document in pages of
// 1000: medians of rounds in which every way takes its turn. limit_ms is libdeflate, level 6, over
// the RGB bytes at once; utilia_1_ms and utilia_2_ms the framework with one and two threads;
// cairo_ms and magick_ms other libraries; the sizes are of what they made, in bytes.
Figures measurePdfPages(const Settings& settings);

// The most memory that one way ("utilia", "utilia one page", "cairo" or "magick") takes besides the
// picture, peak_mib: with 20,000 rows, and with 100,000 (utilia only) tall_peak_mib.
Figures measurePdfMemory(const std::string& way, const Settings& settings);

}  // namespace utilia::bench
