#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace utilia::platform {

// One value of a dconf database, as GNOME's settings are kept, without the libraries that write it:
// they would start threads and a connection with the bus in every process that asks.
//
// The file is a table of entries, each with the end of its name, its parent, and a value; numbers
// are those of the machine that wrote it. Files of the other byte order are not read, nor are
// damaged ones: `bytes` may be anything.
std::optional<std::string> dconfString(std::string_view bytes, std::string_view key);
std::optional<bool> dconfBoolean(std::string_view bytes, std::string_view key);

}  // namespace utilia::platform
