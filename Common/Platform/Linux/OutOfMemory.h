#pragma once

#include <cerrno>
#include <new>
#include <string_view>
#include <type_traits>

#include "Common/Foundation/Error.h"

namespace utilia::platform {

// For functions at the library's edge that answer a Result: no exception leaves the library, and running out of
// memory is an error like a full disk.
template <class Function>
std::invoke_result_t<Function> orOutOfMemory(std::string_view call, std::string_view object,
                                             Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return Error::posix(ENOMEM, call, object);
    }
}

}  // namespace utilia::platform
