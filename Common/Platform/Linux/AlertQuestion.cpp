#include "Common/Platform/Linux/AlertQuestion.h"

#include <charconv>

#include "Common/Foundation/Unicode.h"

namespace utilia::platform {
namespace {

constexpr std::string_view kMagic = "utilia-alert 1";
constexpr std::string_view kButton = "button ";
constexpr std::string_view kNoDisplay = "no-display ";
constexpr std::string_view kEllipsis = "…";
constexpr char16_t kReplacement = u'\uFFFD';

// C0 and C1 controls and DEL: on a terminal they are orders.
bool isControl(char16_t unit) {
    return (unit < 0x20 && unit != u'\n' && unit != u'\t') || (unit >= 0x7F && unit < 0xA0);
}

// Embeddings, overrides and isolates. One of them in a tool's name would turn the rest of the
// sentence around it; the marks that only speak for themselves (U+200E, U+200F) do not.
bool turnsDirection(char16_t unit) {
    return (unit >= 0x202A && unit <= 0x202E) || (unit >= 0x2066 && unit <= 0x2069);
}

void appendField(std::string& packet, std::string_view field) {
    packet += field;
    packet += '\0';
}

}  // namespace

std::string displayableText(std::string_view text, std::size_t limit) {
    // What is cut off anyway need not be looked at; the limit lies in the first part either way.
    const bool isLong = text.size() > 4 * limit;
    std::u16string units;
    for (const char16_t unit : utf16FromUtf8(isLong ? text.substr(0, 4 * limit) : text)) {
        if (turnsDirection(unit)) continue;
        units += isControl(unit) ? kReplacement : unit;
    }
    std::string shown = utf8FromUtf16(units);
    if (shown.size() <= limit && !isLong) return shown;
    std::size_t end = std::min(shown.size(), limit - std::min(limit, kEllipsis.size()));
    while (end > 0 && end < shown.size() &&
           (static_cast<unsigned char>(shown[end]) & 0xC0) == 0x80) {
        --end;
    }
    shown.resize(end);
    return shown.append(kEllipsis);
}

std::string encodeAlertQuestion(const AlertQuestion& question) {
    std::string packet;
    appendField(packet, kMagic);
    appendField(packet, std::to_string(static_cast<int>(question.style)));
    appendField(packet, question.language);
    appendField(packet, question.title);
    appendField(packet, question.message);
    for (const std::string& button : question.buttons) appendField(packet, button);
    return packet;
}

Result<std::size_t> decodeAlertAnswer(std::string_view packet, std::size_t buttons) {
    if (packet.starts_with(kNoDisplay)) {
        return Error::utilia(UtiliaErrorCode::Unavailable,
                             "the display cannot be opened: " +
                                 displayableText(packet.substr(kNoDisplay.size()), 200));
    }
    std::size_t button = 0;
    const char* const end = packet.data() + packet.size();
    if (packet.starts_with(kButton)) {
        const auto read = std::from_chars(packet.data() + kButton.size(), end, button);
        if (read.ec == std::errc() && read.ptr == end && button < buttons) return button;
    }
    return Error::utilia(UtiliaErrorCode::Refused,
                         "utilia-alert answered \"" + displayableText(packet, 64) + "\"");
}

}  // namespace utilia::platform
