#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace utilia {

using Sha256Digest = std::array<std::uint8_t, 32>;

// FIPS 180-4.
Sha256Digest sha256(std::string_view message);

// RFC 2104 with SHA-256: who knows the result and the message learns nothing about the key.
Sha256Digest hmacSha256(std::string_view key, std::string_view message);

}  // namespace utilia
