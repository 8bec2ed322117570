#include "Applications/utiliactl/PlainText.h"

#include <algorithm>
#include <iterator>

#include "Applications/utiliactl/JsonText.h"
#include "Common/Foundation/Unicode.h"

namespace utilia::control {
namespace {

void append(std::string& text, const Value& value, std::size_t depth);

void appendLine(std::string& text, std::size_t depth, const std::string& start,
                const Value& value) {
    text.append(depth * 2, ' ').append(start);
    append(text, value, depth + 1);
}

void append(std::string& text, const Value& value, std::size_t depth) {
    if (const Array* array = value.array(); array && !array->empty()) {
        text += '\n';
        for (const Value& element : *array) appendLine(text, depth, "-", element);
    } else if (const Dictionary* dictionary = value.dictionary();
               dictionary && !dictionary->empty()) {
        text += '\n';
        for (const auto& [key, element] : *dictionary)
            appendLine(text, depth, inQuotes(key) + ":", element);
    } else if (const Data* data = value.data()) {
        text += " <" + std::to_string(data->size()) + " bytes> " + base64Text(*data) + "\n";
    } else if (const Date* date = value.date()) {
        text += " " + dateText(*date) + "\n";
    } else {
        text += " " + jsonFromValue(value).dump() + "\n";
    }
}

char harmlessCharacter(char c) { return (c >= 0 && c < ' ') || c == '\x7f' ? '?' : c; }

std::size_t width(std::string_view text) { return utf16FromUtf8(text).size(); }

}  // namespace

std::string outline(const Value& value) {
    std::string text;
    append(text, value, 0);
    // The outline of a container begins below a name that this one has not.
    return text.substr(1);
}

std::string table(const std::vector<std::string>& headings,
                  const std::vector<std::vector<std::string>>& rows, std::string_view whenEmpty) {
    if (rows.empty()) return std::string(whenEmpty) + "\n";
    std::vector<std::size_t> widths;
    for (std::size_t column = 0; column < headings.size(); ++column) {
        widths.push_back(width(headings[column]));
        for (const auto& row : rows) widths[column] = std::max(widths[column], width(row[column]));
    }
    std::string text;
    const auto appendRow = [&](const std::vector<std::string>& row) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            std::transform(row[column].begin(), row[column].end(), std::back_inserter(text),
                           harmlessCharacter);
            if (column + 1 < row.size()) text.append(widths[column] - width(row[column]) + 2, ' ');
        }
        text += '\n';
    };
    appendRow(headings);
    for (const auto& row : rows) appendRow(row);
    return text;
}

std::string harmless(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), harmlessCharacter);
    return text;
}

std::string inQuotes(std::string_view text) { return Json(std::string(text)).dump(); }

}  // namespace utilia::control
