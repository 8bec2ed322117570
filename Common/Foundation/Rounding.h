#pragma once

#include <cstdint>

namespace utilia {

// The largest whole number that is not larger: floor(), which would have every process load the
// mathematics library. What is no number, and what has no fraction, is answered as it is.
inline double roundedDown(double number) {
    constexpr double kNoFractions = 9'007'199'254'740'992;  // 2 to the 53rd
    if (!(number > -kNoFractions && number < kNoFractions)) return number;
    const auto whole = static_cast<double>(static_cast<std::int64_t>(number));
    return whole > number ? whole - 1 : whole;
}

}  // namespace utilia
