#pragma once

#include <string>

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// The agent, before a panel, with fifty tools of the catalogue: how soon it has all of them, what it does while nothing
// changes and while each changes its text every second, and the memory of all.
Figures measureFiftyTools(const Settings& settings);

// One of the product's tools, by the name of its bundle and its program: from its start until the agent shows it as
// running, and its memory then.
Figures measureTool(const std::string& name, const std::string& program, const Settings& settings);

}  // namespace utilia::bench
