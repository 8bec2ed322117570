#pragma once

#include <exception>
#include <string_view>

#include "Common/Logging/Log.h"

namespace utilia {

// Runs a callback of somebody else's; what it throws ends here, with one log line. GLib's frames
// lie below every callback of a loop, and no exception may pass through them.
template <class Callback>
void runGuarded(std::string_view what, const Callback& callback) noexcept {
    try {
        callback();
    } catch (const std::exception& thrown) {
        KULogVariadic("%@ threw: %s", what, thrown.what());
    } catch (...) {
        KULogVariadic("%@ threw something that is no exception", what);
    }
}

}  // namespace utilia
