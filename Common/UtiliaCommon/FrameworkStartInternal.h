#pragma once

namespace utilia {

// What happens when the shared library is loaded: the log, the facade with its checks, the list of
// running applications, the migration of login items. May end the process. What fails is logged,
// and the rest goes on.
//
// Threads: the one that loads the library.
void initializeFramework() noexcept;

}  // namespace utilia
