#pragma once

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// Choosing the copy of one resource among the records of as many, p50: again_us when nothing has
// changed since the last choice, changed_us when another process has written the store meanwhile
// and changed_per_record_ns; update_us is storing a version, update_per_record_ns. In memory.
Figures measureResourceChoice(int records, const Settings& settings);

// Versions of four components: order_ns as index paths, text_ns as texts with numbers, parse_ns and
// print_ns; text_per_byte_ns of texts of a megabyte that are the same up to their end.
Figures measureVersions(const Settings& settings);

}  // namespace utilia::bench
