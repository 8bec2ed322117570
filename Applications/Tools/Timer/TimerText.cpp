#include "Applications/Tools/Timer/TimerText.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace utilia::tools {
namespace {

std::optional<std::int64_t> number(std::string_view digits) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size() || value < 0)
        return std::nullopt;
    return value;
}

// Parts after the first have two digits, below 60.
struct Time {
    std::int64_t seconds = 0;  // as if the last part were seconds
    int parts = 0;
};

std::optional<Time> timeOf(std::string_view text, std::int64_t longest) {
    Time time;
    for (bool isLast = false; !isLast; ++time.parts) {
        const std::size_t colon = text.find(':');
        isLast = colon == std::string_view::npos;
        const std::string_view part = text.substr(0, colon);
        const auto value = number(part);
        if (!value || *value > longest || time.parts == 3) return std::nullopt;
        if (time.parts > 0 && (part.size() != 2 || *value >= 60)) return std::nullopt;
        time.seconds = time.seconds * 60 + *value;
        if (!isLast) text.remove_prefix(colon + 1);
    }
    if (time.seconds > longest) return std::nullopt;
    return time;
}

}  // namespace

std::string textFromSeconds(std::int64_t seconds) {
    std::array<char, 48> text;
    const long long hours = seconds / 3600;
    const int minutes = static_cast<int>(seconds / 60 % 60);
    const int rest = static_cast<int>(seconds % 60);
    if (hours > 0) {
        std::snprintf(text.data(), text.size(), "%lld:%02d:%02d", hours, minutes, rest);
    } else {
        std::snprintf(text.data(), text.size(), "%d:%02d", minutes, rest);
    }
    return text.data();
}

std::optional<std::int64_t> secondsFromText(std::string_view text) {
    const auto time = timeOf(text, kLongestSeconds);
    if (!time) return std::nullopt;
    const std::int64_t seconds = time->parts == 1 ? time->seconds * 60 : time->seconds;
    if (seconds == 0 || seconds > kLongestSeconds) return std::nullopt;
    return seconds;
}

std::optional<std::int64_t> leadingSeconds(std::string_view text) {
    const auto time =
        timeOf(text.substr(0, text.find_first_not_of("0123456789:")), kLongestCountedSeconds);
    if (!time || time->parts == 1) return std::nullopt;
    return time->seconds;
}

}  // namespace utilia::tools
