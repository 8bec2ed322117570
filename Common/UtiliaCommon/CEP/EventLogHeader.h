#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "Common/Platform/HostInfo.h"

// The beginning and the end of a log file.
//
// Threads: any.

namespace utilia {

// What the header tells. All texts stand in the document as they are.
struct EventLogFacts {
    std::string hardwareUUID;
    std::string osInfo;  // "6.1.0"
    std::string computerModel;
    std::string locale;
    std::string clientVersion;
    std::string safariVersion;
    bool isSystemDoNotDisturb = false;
    std::string notificationLines;
    bool hasBattery = false;
    std::string appearance;  // "auto", "dark", "light"; empty when nobody says
    std::string settingsLines;
};

// As they are now; those that cannot be found out are empty. The first is for CEPLogInit(), which learns it
// once, and so is the version of the application.
EventLogFacts gatherEventLogFacts(const platform::HostInfo& host, std::string_view hardwareUUID,
                                  std::string_view clientVersion);

inline constexpr std::size_t kHeaderPieces = 23;
using EventLogHeader = std::array<std::string_view, kHeaderPieces>;
// Its pieces, in order; some point into `facts`.
EventLogHeader eventLogHeader(const EventLogFacts& facts);

inline constexpr std::string_view kHeaderStart = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
inline constexpr std::string_view kHeaderEnd = "<CepCustomData>\n";
inline constexpr std::string_view kEventLogFooter = "</CepCustomData>\n</KorvaneProblemReport>\n";

}  // namespace utilia
