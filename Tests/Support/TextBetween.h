#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace utilia::test {

// What stands between the next `begin` from a position and the `end` after it; the position moves
// behind that, or to npos when there is none. (Sanitizers and <regex> do not compile together.)
inline std::string textBetween(std::string_view text, std::string_view begin, std::string_view end,
                               std::size_t* position) {
    const std::size_t start = text.find(begin, *position);
    const std::size_t stop =
        start == std::string_view::npos ? start : text.find(end, start + begin.size());
    *position = stop == std::string_view::npos ? stop : stop + end.size();
    if (stop == std::string_view::npos) return "";
    return std::string(text.substr(start + begin.size(), stop - start - begin.size()));
}
inline std::string textBetween(std::string_view text, std::string_view begin,
                               std::string_view end) {
    std::size_t position = 0;
    return textBetween(text, begin, end, &position);
}

}  // namespace utilia::test
