#include "Common/Platform/StringComparison.h"

#include <algorithm>
#include <memory>
#include <string>

#include <glib.h>

#include "Common/Foundation/Unicode.h"

namespace utilia::platform {
namespace {

struct GFree {
    void operator()(gchar* text) const { g_free(text); }
};
using GText = std::unique_ptr<gchar, GFree>;

char lowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isAscii(char c) { return static_cast<unsigned char>(c) < 0x80; }

// GLib takes text that is UTF-8 and ends at a NUL.
bool isFoldable(std::string_view text) {
    return text.find('\0') == std::string_view::npos && isValidUtf8(text);
}

GText decomposed(const gchar* text) { return GText(g_utf8_normalize(text, -1, G_NORMALIZE_NFD)); }

// Folding may take a composed letter apart, and the parts then stand in another order.
std::string folded(std::string_view text) {
    const GText whole = decomposed(std::string(text).c_str());
    const GText lower(g_utf8_casefold(whole.get(), -1));
    return decomposed(lower.get()).get();
}

}  // namespace

bool isCaseInsensitiveEqual(std::string_view left, std::string_view right) {
    // What nearly every call is about costs no memory, and a start asks a thousand times. Two ASCII
    // letters that differ stay different, whatever comes behind them.
    std::size_t same = 0;
    while (same < left.size() && same < right.size() && isAscii(left[same]) &&
           lowerCase(left[same]) == lowerCase(right[same])) {
        ++same;
    }
    const bool leftGoesOn = same < left.size();
    const bool rightGoesOn = same < right.size();
    if ((!leftGoesOn || isAscii(left[same])) && (!rightGoesOn || isAscii(right[same])))
        return !leftGoesOn && !rightGoesOn;
    if (!isFoldable(left) || !isFoldable(right)) {
        return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                          [](char a, char b) { return lowerCase(a) == lowerCase(b); });
    }
    return folded(left) == folded(right);
}

}  // namespace utilia::platform
