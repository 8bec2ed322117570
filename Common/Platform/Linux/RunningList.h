#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace utilia::platform {

// The process ids that are listed for a bundle identifier in this folder of lists, sorted. For
// threads that must not ask the environment where the folder is; everybody else asks
// RunningApplication.
std::vector<std::int64_t> listedProcesses(const std::string& runningFolder,
                                          std::string_view bundleIdentifier);

}  // namespace utilia::platform
