#pragma once

#include <functional>
#include <string>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"

namespace utilia::platform {

class UTILIA_EXPORT Thread final {
public:
    Thread() = delete;
    // Runs the work on a thread of its own, for which nobody waits. The host's signals do not arrive
    // on it, and what the work throws ends there, with one log line. Fails with the system's error
    // when there can be no further thread.
    //
    // Threads: any. `name` has at most 15 characters.
    static Result<void> detachNewThread(const std::string& name, std::function<void()> work);
};

}  // namespace utilia::platform
