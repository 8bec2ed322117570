#pragma once

#include <functional>

namespace utilia::platform {

// Starts a thread that nobody joins and that blocks all signals: the host's must not arrive on it.
// Answers 0, or an errno. `run` must not throw. The name has at most 15 characters. (The library has
// platform::Thread for the same, which modules cannot call: they do not link it.)
int startServiceThread(const char* name, std::function<void()> run) noexcept;

}  // namespace utilia::platform
