#pragma once

#include <cstddef>
#include <cstdint>

// What the framework and its Desktop module say to one another about notifications between
// processes: a table beside that of DesktopModule.h, of the same kind.
//
// Threads: every function may be called on any thread.

extern "C" {

inline constexpr std::uint32_t kUtiliaNotificationsVersion = 1;
inline constexpr const char* kUtiliaNotificationsSymbol = "utiliaNotificationsModule";
inline constexpr std::size_t kUtiliaNotificationsReasonSize = 256;

// Contract: never renumber. How far a call has got by its return.
enum UtiliaNotificationsProgress : std::uint32_t {
    UtiliaNotificationsDone = 0,
    // The bus has not answered in time, or did not answer a call before this one, in which case
    // nothing was waited for. It goes on in the background.
    UtiliaNotificationsLate = 1,
    // The bus cannot be reached. What was to be posted is lost; what was to be observed will be, as
    // soon as there is a bus.
    UtiliaNotificationsUnreachable = 2,
    // Nothing has been begun: no name of a notification, no thread to be had, or a forked child.
    UtiliaNotificationsRefused = 3,
};

// A notification has arrived. Called on the module's thread, which it must not hold up.
using UtiliaNotificationHeard = void (*)(const char* interface, const char* member) noexcept;

struct UtiliaNotificationsModule {
    std::uint32_t version;  // kUtiliaNotificationsVersion; the rest is only read when it matches

    // All take the two halves of a notification's name. `address` is that of the bus, as D-Bus
    // writes it: used when there is no connection yet, or none any more. Unless the answer is Done,
    // `reason` (kUtiliaNotificationsReasonSize bytes) says why.

    // Hears the name from now on, until as many calls of ignore() as of this one have been made
    // (refused ones do not count). Waits until the bus knows, at most so many milliseconds. `heard`
    // is the same function in all calls.
    std::uint32_t (*observe)(const char* address, const char* interface, const char* member,
                             std::uint32_t milliseconds, UtiliaNotificationHeard heard,
                             char* reason);
    // Waits for nothing. A call of `heard` may be under way.
    void (*ignore)(const char* interface, const char* member);
    // Waits until the notification has been handed over to the kernel, at most so many
    // milliseconds.
    std::uint32_t (*post)(const char* address, const char* interface, const char* member,
                          std::uint32_t milliseconds, char* reason);
};

}  // extern "C"
