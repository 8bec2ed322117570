#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "Common/Foundation/Unicode.h"
#include "Common/Platform/Linux/AlertQuestion.h"

using namespace utilia;
using namespace utilia::platform;

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

// The first byte is the limit and the number of buttons; the rest is a text, and an answer.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::size_t limit = data[0] + std::size_t{8};

    const std::string shown = displayableText(text, limit);
    require(shown.size() <= limit && isValidUtf8(shown));
    for (const char16_t unit : utf16FromUtf8(shown)) {
        require(unit == u'\n' || unit == u'\t' || (unit >= 0x20 && unit < 0x7F) || unit >= 0xA0);
        require(unit < 0x202A || unit > 0x2069 || (unit > 0x202E && unit < 0x2066));
    }
    require(displayableText(shown, limit) == shown);

    const std::size_t buttons = data[0] % 5 + std::size_t{1};
    const auto button = decodeAlertAnswer(text, buttons);
    require(button ? *button < buttons : isValidUtf8(button.error().description));
    return 0;
}
