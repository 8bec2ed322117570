#include "Common/Foundation/Description.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "Common/Foundation/Unicode.h"

namespace utilia {
namespace {

bool isAlphanumeric(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

void appendUnit(std::string& text, char16_t unit) {
    switch (unit) {
    case u'"':
    case u'\\':
        text.append({'\\', static_cast<char>(unit)});
        return;
    case u'\n':
        text += "\\n";
        return;
    case u'\r':
        text += "\\r";
        return;
    case u'\t':
        text += "\\t";
        return;
    default:
        break;
    }
    if (unit >= 0x20 && unit < 0x7F) {
        text += static_cast<char>(unit);
    } else {
        char escape[8];
        std::snprintf(escape, sizeof escape, unit < 0x80 ? "\\%03o" : "\\U%04x",
                      static_cast<unsigned>(unit));
        text += escape;
    }
}

}  // namespace

std::string descriptionOfArray(std::span<const std::string> elements) {
    std::string text = "(\n";
    for (const std::string& element : elements) {
        text += "    ";
        if (!element.empty() && std::all_of(element.begin(), element.end(), isAlphanumeric)) {
            text += element;
        } else {
            text += '"';
            for (const char16_t unit : utf16FromUtf8(element)) appendUnit(text, unit);
            text += '"';
        }
        text += &element == &elements.back() ? "\n" : ",\n";
    }
    return text + ")";
}

}  // namespace utilia
