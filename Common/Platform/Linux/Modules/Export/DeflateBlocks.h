#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace utilia::platform::pdf {

// The last block of a Deflate stream (RFC 1951), the one that is marked as final; in bits from the
// start of the stream.
struct FinalBlock {
    std::size_t firstBit = 0;  // its mark
    std::size_t endBit = 0;    // where the stream ends
};

// Reads over the symbols of the stream without making what they stand for. Empty for what is no
// whole Deflate stream.
std::optional<FinalBlock> findFinalBlock(std::span<const std::uint8_t> deflated);

}  // namespace utilia::platform::pdf
