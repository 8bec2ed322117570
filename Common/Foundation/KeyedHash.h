#pragma once

#include <cstdint>
#include <string_view>

namespace utilia {

// A hash for look-up tables, keyed with a number of this process, so that texts which all meet in
// one place cannot be prepared outside. Never store it: it differs from process to process.
std::uint64_t keyedHash(std::string_view text);

}  // namespace utilia
