#pragma once

#include <cstddef>
#include <cstdint>

// What the framework and its Net module say to one another: plain C functions and structures, so
// that neither C++ types nor exceptions cross between two objects that may have been built apart.
//
// Threads: every function of the module may be called on any thread. It calls back on its own.

extern "C" {

inline constexpr std::uint32_t kUtiliaNetVersion = 1;
inline constexpr const char* kUtiliaNetSymbol = "utiliaNetModule";
inline constexpr std::size_t kUtiliaNetReasonSize = 256;

struct UtiliaNetRequest {
    const char* url;            // ASCII, of http or https
    double idleSeconds;         // the longest time without any data
    double totalSeconds;        // the longest time
    std::uint64_t maximumSize;  // of the body, decompressed
};

// Contract: never renumber.
enum UtiliaNetTaken : std::uint32_t {
    UtiliaNetTakenAll = 0,
    UtiliaNetOutOfMemory = 1,  // the load ends with an error
};

struct UtiliaNetResult {
    std::int32_t error;       // utilia::URLErrorCode, or 0
    std::int32_t statusCode;  // of the last response; 0 with an error
    const char* description;  // of the error; valid inside the call
};

// One load's receiver.
struct UtiliaNetClient {
    void* context;
    // The next bytes of the body. The first call tells how many are announced, or 0.
    std::uint32_t (*received)(void* context, const std::uint8_t* bytes, std::size_t size,
                              std::uint64_t announced) noexcept;
    // The end of a load that has begun: called exactly once, after which the context is not used.
    void (*finished)(void* context, const UtiliaNetResult* result) noexcept;
};

struct UtiliaNetModule {
    std::uint32_t version;  // kUtiliaNetVersion; the rest is only read when it matches

    // Begins a load and answers its number. Answers 0 when it cannot, and calls nothing then;
    // `reason` (kUtiliaNetReasonSize bytes) says why.
    std::uint64_t (*start)(const UtiliaNetRequest* request, const UtiliaNetClient* client,
                           char* reason) noexcept;
    // The load ends soon. Numbers that are over are ignored.
    void (*cancel)(std::uint64_t load) noexcept;
};

}  // extern "C"
