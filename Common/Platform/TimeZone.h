#pragma once

#include <cstdint>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"

namespace utilia::platform {

// The time zone of the user.
//
// Threads: any.
class UTILIA_EXPORT TimeZone final {
public:
    TimeZone() = delete;
    // How far the local time is ahead of Greenwich at that moment; 0 where the system cannot tell.
    static std::int32_t secondsFromGMT(Date date);
};

}  // namespace utilia::platform
