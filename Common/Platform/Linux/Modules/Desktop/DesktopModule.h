#pragma once

#include <cstddef>
#include <cstdint>

// What the framework and its Desktop module say to one another: plain C functions and structures,
// so that neither C++ types nor exceptions cross between two objects that may have been built apart.
//
// Threads: every function may be called on any thread.

extern "C" {

inline constexpr std::uint32_t kUtiliaDesktopVersion = 1;
inline constexpr const char* kUtiliaDesktopSymbol = "utiliaDesktopModule";
inline constexpr std::size_t kUtiliaDesktopReasonSize = 256;

struct UtiliaDesktopHostWatch;

// The flags (platform::ReachabilityFlags) have become others; they begin as 0. Called on the
// module's thread, which it must not hold up.
using UtiliaDesktopHostChanged = void (*)(void* context, std::uint32_t flags) noexcept;

struct UtiliaDesktopModule {
    std::uint32_t version;  // kUtiliaDesktopVersion; the rest is only read when it matches

    // Watches a host, by its ASCII name or its address. Answers null when it cannot; `reason`
    // (kUtiliaDesktopReasonSize bytes) then says why.
    UtiliaDesktopHostWatch* (*watchHost)(const char* host, UtiliaDesktopHostChanged changed,
                                         void* context, char* reason);
    // After the return, `changed` is not called any more. Waits for a call that is under way, and
    // for nothing else.
    void (*endHostWatch)(UtiliaDesktopHostWatch* watch);
};

}  // extern "C"
