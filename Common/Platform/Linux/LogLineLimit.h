#pragma once

#include <cstddef>
#include <string>

namespace utilia::platform {

// Shortens text that is longer than `limit` bytes so that it fits and ends in " [N more bytes]".
// UTF-8 characters stay whole. `limit` leaves room for the marker.
inline void limitLogLine(std::string& text, std::size_t limit) {
    constexpr std::size_t kMarkerRoom = 36;  // with the 20 digits of the largest count
    if (text.size() <= limit) return;
    std::size_t kept = limit - kMarkerRoom;
    while (kept > 0 && (static_cast<unsigned char>(text[kept]) & 0xC0u) == 0x80) --kept;
    const std::size_t cut = text.size() - kept;
    text.resize(kept);
    text.append(" [").append(std::to_string(cut)).append(" more bytes]");
}

}  // namespace utilia::platform
