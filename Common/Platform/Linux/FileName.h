#pragma once

#include <cstddef>
#include <string_view>

namespace utilia::platform {

// Whether text from outside may be one component of a path: not empty, at most `maximumLength`
// bytes, without "/" and NUL, and neither "." nor "..".
constexpr bool isPlainFileName(std::string_view text, std::size_t maximumLength = 255) {
    return !text.empty() && text.size() <= maximumLength && text != "." && text != ".." &&
           text.find('/') == std::string_view::npos && text.find('\0') == std::string_view::npos;
}

// Bundle identifiers name lock files, desktop entries and ports; those names have room for this
// many bytes.
constexpr bool isUsableBundleIdentifier(std::string_view text) {
    return isPlainFileName(text, 170);
}

}  // namespace utilia::platform
