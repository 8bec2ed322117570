#include "Common/Platform/Linux/Modules/Desktop/NotificationsModule.h"

// Hears each post a thousand times before it returns.

namespace {

constexpr int kTimes = 1000;
UtiliaNotificationHeard heardByFramework = nullptr;

std::uint32_t observe(const char*, const char*, const char*, std::uint32_t,
                      UtiliaNotificationHeard heard, char*) {
    heardByFramework = heard;
    return UtiliaNotificationsDone;
}

void ignore(const char*, const char*) {}

std::uint32_t post(const char*, const char* interface, const char* member, std::uint32_t, char*) {
    for (int i = 0; i < kTimes; ++i) heardByFramework(interface, member);
    return UtiliaNotificationsDone;
}

}  // namespace

extern "C" __attribute__((visibility("default")))
const UtiliaNotificationsModule utiliaNotificationsModule;
const UtiliaNotificationsModule utiliaNotificationsModule = {kUtiliaNotificationsVersion, observe,
                                                             ignore, post};
