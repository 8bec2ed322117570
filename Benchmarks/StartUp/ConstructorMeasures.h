#pragma once

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// What the library does before a tool's main, on its second start: 50 names in the white-list, which
// all are allowed, and update descriptions in ten languages in the agent's preferences. That is the
// time in which the constructors of a program's libraries run, with the framework and with GLib
// alone by turns: framework_us, glib_us, and the difference of the medians, constructor_us; the
// same without a settings file: plain_us.
//
// The settings lie in an /etc of this process's own, which takes root; without that there is
// plain_us alone.
Figures measureConstructor(const Settings& settings);

}  // namespace utilia::bench
