#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "Common/Foundation/Value.h"

namespace utilia::control {

using Json = nlohmann::ordered_json;

// Property-list values as JSON: booleans, integers and texts as they are; a real as the shortest
// number that reads back as it, and null where JSON has none (infinity, not a number); a date as
// dateText(); data as base64. Keys keep their order.
Json jsonFromValue(const Value& value);

// Indented by two blanks, with a line end. Bytes that are no UTF-8 become U+FFFD.
std::string textOfJson(const Json& json);

// ISO 8601 in UTC with milliseconds, rounded: "2026-11-21T10:00:00.000Z". Outside of the years 0000
// to 9999 seconds since 2001: "@1e+300".
std::string dateText(Date date);

std::string base64Text(const Data& data);

}  // namespace utilia::control
