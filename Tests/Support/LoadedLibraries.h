#pragma once

#include <fstream>
#include <string>
#include <string_view>

namespace utilia::test {

// Whether a library whose path contains this is mapped into this process.
inline bool isLoaded(std::string_view library) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(library) != std::string::npos) return true;
    }
    return false;
}

}  // namespace utilia::test
