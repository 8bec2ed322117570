#pragma once

#include <atomic>
#include <cstdint>

namespace utilia::test {

// Names the file, as long as a HeapCount, that the library writes into. It takes this and itself out of the environment, so
// that what the process starts is not counted.
inline constexpr const char* kHeapCountVariable = "UTILIA_HEAP_COUNT";

// What a process that the library is preloaded into has on its heap: blocks that are in use, to the byte. Memory as the
// kernel counts it also has what the allocator keeps of freed blocks, and that hides a slow leak for hours, or looks like one.
struct HeapCount {
    std::atomic<std::int64_t> bytes;
};

}  // namespace utilia::test
