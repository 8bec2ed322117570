#pragma once

#include <string_view>
#include <vector>

#include "Applications/utiliactl/JsonText.h"

namespace utilia::control {

// The records of a log's document, in order. Each is an object: the attributes of its element are
// texts, its inner elements objects of the same kind. A record that cannot be read,
// because of markup in its action, has one member, "record", with its text.
std::vector<Json> eventRecords(std::string_view document);

}  // namespace utilia::control
