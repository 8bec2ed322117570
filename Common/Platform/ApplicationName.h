#pragma once

#include <string>

namespace utilia::platform {

// What the user knows this application by, without an extension: the name of the main bundle, and without one that of the
// process.
//
// Threads: any.
std::string applicationName();

}  // namespace utilia::platform
