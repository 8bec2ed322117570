#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace utilia::tools {

// Times as Timer shows and reads them, and the words that it takes.

inline constexpr const char* kHoldWord = "hold";
inline constexpr const char* kGoOnWord = "go-on";
inline constexpr const char* kStopWord = "stop";

inline constexpr std::int64_t kLongestSeconds = 24 * 60 * 60 - 1;  // of a countdown
inline constexpr std::int64_t kLongestCountedSeconds =
    1'000'000'000;  // of a time that is read back

// "0:07", "25:00", "1:05:00".
std::string textFromSeconds(std::int64_t seconds);

// What such a text means; a number alone is minutes. Empty for what is no time, for nothing at all, and for a day or
// more. Only digits count that are whole: parts after the first have two, below 60.
std::optional<std::int64_t> secondsFromText(std::string_view text);

// The time that a text begins with, up to the first character that belongs to none: "0:07 (held)". What counts up may go
// on for days: "100:00:00".
std::optional<std::int64_t> leadingSeconds(std::string_view text);

}  // namespace utilia::tools
