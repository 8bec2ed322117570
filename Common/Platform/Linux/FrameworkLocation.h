#pragma once

#include <string>

namespace utilia::platform {

// The path of the framework's own bundle, symbolic links resolved; "" when it cannot be told. The shared library looks beside itself,
// a program that carries the framework's objects looks where its build said.
std::string frameworkLocation();

}  // namespace utilia::platform
