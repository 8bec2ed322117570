#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Common/Foundation/Export.h"

namespace utilia::platform {

// What the system says about this process.
//
// Threads: any.
class UTILIA_EXPORT ProcessInfo final {
public:
    ProcessInfo() = delete;
    // The process's arguments, the program's name first; as the kernel holds them, so also before
    // main.
    static const std::vector<std::string>& arguments();
    static const std::string& processName();  // last component of the program's path
    static std::int64_t processIdentifier();
};

}  // namespace utilia::platform
