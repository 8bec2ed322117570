#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace utilia::platform {

// The text to look a host up by: a name in ASCII (Unicode labels in their "xn--" form), or an IPv4
// or IPv6 address as it was given. Empty for what can be neither.
std::optional<std::string> lookupHostName(std::string_view host);

}  // namespace utilia::platform
