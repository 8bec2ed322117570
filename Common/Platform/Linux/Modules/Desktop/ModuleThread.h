#pragma once

namespace utilia::platform::desktop {

// GLib ends the process when it gets no descriptor for a context of its own. Answers 0 when there
// are enough for those of a thread here and of a connection to a bus, else an errno.
int descriptorsMissing();

}  // namespace utilia::platform::desktop
