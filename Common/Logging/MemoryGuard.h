#pragma once

#include <new>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Common/Logging/Log.h"

namespace utilia {

// For the edges of the library that have no error to answer with: no exception leaves it, so where
// memory runs out the answer is an empty one (false, null, nothing), with one log line about `what`.
// What the function throws besides passes through.
template <class Function>
std::invoke_result_t<Function> unlessOutOfMemory(std::string_view what, Function&& function) {
    try {
        return std::forward<Function>(function)();
    } catch (const std::bad_alloc&) {
        KULogVariadic("%@: out of memory", what);
        return std::invoke_result_t<Function>();
    }
}

}  // namespace utilia
