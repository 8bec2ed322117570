#pragma once

#include <cstddef>
#include <span>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// An open file that somebody handed over.
//
// Threads: only the one that uses the object.
class UTILIA_EXPORT FileHandle final {
public:
    explicit FileHandle(UniqueFd file) : file_(std::move(file)) {}

    // The next bytes, at least one unless the file is at its end; how many they are.
    Result<std::size_t> read(std::span<char> buffer);

private:
    UniqueFd file_;
};

}  // namespace utilia::platform
