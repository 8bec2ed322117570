#include "Common/Platform/Linux/Modules/Desktop/NotificationsModule.h"

#include <cstdio>
#include <new>

#include "Common/Platform/Linux/Modules/Desktop/NotificationBus.h"

namespace utilia::platform::desktop {
namespace {

std::uint32_t answer(const NotificationBus::Outcome& outcome, char* reason) {
    std::snprintf(reason, kUtiliaNotificationsReasonSize, "%s", outcome.reason.c_str());
    return outcome.progress;
}

std::uint32_t outOfMemory(char* reason) {
    std::snprintf(reason, kUtiliaNotificationsReasonSize, "not enough memory");
    return UtiliaNotificationsRefused;
}

std::uint32_t observe(const char* address, const char* interface, const char* member,
                      std::uint32_t milliseconds, UtiliaNotificationHeard heard,
                      char* reason) noexcept try {
    return answer(NotificationBus::shared().observe(address, {interface, member},
                                                    std::chrono::milliseconds(milliseconds), heard),
                  reason);
} catch (const std::bad_alloc&) {
    return outOfMemory(reason);
}

void ignore(const char* interface, const char* member) noexcept try {
    NotificationBus::shared().ignore({interface, member});
} catch (const std::bad_alloc&) {
    // It is heard in vain until the end of the process.
}

std::uint32_t post(const char* address, const char* interface, const char* member,
                   std::uint32_t milliseconds, char* reason) noexcept try {
    return answer(NotificationBus::shared().post(address, {interface, member},
                                                 std::chrono::milliseconds(milliseconds)),
                  reason);
} catch (const std::bad_alloc&) {
    return outOfMemory(reason);
}

}  // namespace
}  // namespace utilia::platform::desktop

extern "C" __attribute__((visibility("default")))
const UtiliaNotificationsModule utiliaNotificationsModule;
const UtiliaNotificationsModule utiliaNotificationsModule = {
    kUtiliaNotificationsVersion,
    utilia::platform::desktop::observe,
    utilia::platform::desktop::ignore,
    utilia::platform::desktop::post,
};
