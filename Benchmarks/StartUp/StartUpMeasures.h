#pragma once

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// From spawn to exit of a program that does nothing, without and with the framework, by turns, from
// an installation:
// empty_ms, framework_ms; and what each consists of: …_objects (shared ones), …_kib (private
// memory).
Figures measureStart(const Settings& settings);

}  // namespace utilia::bench
