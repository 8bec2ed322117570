#pragma once

#include <compare>

namespace utilia {

// How the first of two things stands to the second. Contract: never renumber.
enum class ComparisonResult : int { Ascending = -1, Same = 0, Descending = 1 };

constexpr ComparisonResult comparisonResult(std::strong_ordering order) {
    if (order < 0) return ComparisonResult::Ascending;
    return order > 0 ? ComparisonResult::Descending : ComparisonResult::Same;
}

}  // namespace utilia
