#pragma once

#include <functional>

namespace utilia::platform::desktop {

// Starts a thread that is there for as long as the process and blocks all signals: the host's must
// not arrive on it. Answers 0, or an errno. `run` must not throw.
int startThread(const char* name, std::function<void()> run);

// GLib ends the process when it gets no descriptor for a context of its own. Answers 0 when there
// are enough for those of a thread here and of a connection to a bus, else an errno.
int descriptorsMissing();

}  // namespace utilia::platform::desktop
