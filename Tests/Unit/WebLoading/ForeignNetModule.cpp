#include <cstdint>

// Only the version of such a module can be relied on.
extern "C" __attribute__((visibility("default"))) const std::uint32_t utiliaNetModule[];
const std::uint32_t utiliaNetModule[] = {999};
