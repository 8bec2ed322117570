#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "Common/Foundation/ComparisonResult.h"
#include "Common/Foundation/Export.h"

namespace utilia {

// What is answered for an index that is not there; printed as a signed number it is this very one.
inline constexpr std::uint64_t kNotFound = 9'223'372'036'854'775'807;

// A sequence of unsigned numbers, such as a version.
//
// Paths are ordered element by element, the first difference decides, and a path comes before every
// longer one that begins with it.
//
// Threads: a value; distinct objects may be used on distinct threads.
class UTILIA_EXPORT IndexPath final {
public:
    IndexPath() = default;
    IndexPath(std::initializer_list<std::uint64_t> indexes) : indexes_(indexes) {}
    explicit IndexPath(std::vector<std::uint64_t> indexes) : indexes_(std::move(indexes)) {}

    std::size_t length() const { return indexes_.size(); }
    // kNotFound past the end.
    std::uint64_t indexAtPosition(std::size_t position) const;
    void addIndex(std::uint64_t index) { indexes_.push_back(index); }

    ComparisonResult compare(const IndexPath& other) const {
        return comparisonResult(*this <=> other);
    }
    friend std::strong_ordering operator<=>(const IndexPath&, const IndexPath&) = default;
    friend bool operator==(const IndexPath&, const IndexPath&) = default;

    // As the original platform prints it, the object's address included:
    // <NSIndexPath: 0x55d0c0a3e2b0> {length = 2, path = 5 - 1}
    std::string description() const;

private:
    std::vector<std::uint64_t> indexes_;
};

}  // namespace utilia
