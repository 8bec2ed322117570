#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Result.h"
#include "Common/Platform/Alert.h"

// What the library and utilia-alert say to one another (Documentation/Formats/AlertQuestion.md), as pure functions.

namespace utilia::platform {

inline constexpr std::size_t kAlertMessageLimit = 16 * 1024;
inline constexpr std::size_t kAlertTitleLimit = 512;  // of a button and of the window, too

// Texts as displayableText() leaves them.
struct AlertQuestion {
    AlertStyle style = AlertStyle::Warning;
    std::string language;  // of the localisation; gives the window its direction
    std::string title;
    std::string message;
    std::vector<std::string> buttons;  // at least one
};

// Text of anybody's as it may be shown on a terminal and in a window: well-formed UTF-8 of at most `limit` bytes (cut
// between characters, "…" at the end), no control characters but line feeds and tabs (U+FFFD in their place), and
// without the characters that turn the direction of whatever follows them.
std::string displayableText(std::string_view text, std::size_t limit);

std::string encodeAlertQuestion(const AlertQuestion& question);

// The index of the button. Unavailable when the answer is that no display could be opened; Refused for anything that
// is no answer to a question of `buttons` buttons.
Result<std::size_t> decodeAlertAnswer(std::string_view packet, std::size_t buttons);

}  // namespace utilia::platform
