#pragma once

#include <string>

#include "Benchmarks/Support/Results.h"

namespace utilia::bench {

// Markdown: each goal of the measured parts with the figure that was reached, and whether it is
// met. `part` is "messages", "store", "startup" or "images".
std::string goalsTable(const Results& results, const std::string& part);

}  // namespace utilia::bench
