#include "Common/Platform/Linux/Modules/Export/Quantizer.h"

#include <algorithm>
#include <limits>

namespace utilia::platform::bitmaps {
namespace {

constexpr std::size_t kMaximumColours = 256;
constexpr unsigned kCellBits = 5;  // of each channel
constexpr std::size_t kCells = std::size_t{1} << (3 * kCellBits);

bool isTransparent(const std::uint8_t* rgba) { return rgba[3] < 128; }

std::uint32_t keyOf(const std::uint8_t* rgba) {
    return std::uint32_t{rgba[0]} << 16 | std::uint32_t{rgba[1]} << 8 | rgba[2];
}

std::size_t cellOf(unsigned red, unsigned green, unsigned blue) {
    constexpr unsigned kShift = 8 - kCellBits;
    return (red >> kShift) << (2 * kCellBits) | (green >> kShift) << kCellBits | blue >> kShift;
}

}  // namespace

// Pixels of nearly the same colour.
struct Quantizer::Cell {
    std::array<std::uint64_t, 3> sums{};
    std::uint64_t count = 0;

    unsigned mean(std::size_t channel) const {
        return static_cast<unsigned>((sums[channel] + count / 2) / count);
    }
};

// Cells that share a colour.
struct Quantizer::Box {
    std::size_t first = 0;
    std::size_t end = 0;
    std::size_t widest = 0;  // its channel
    std::uint64_t weight = 0;

    Box(const std::vector<Cell>& cells, std::size_t from, std::size_t to) : first(from), end(to) {
        std::uint64_t count = 0;
        unsigned range = 0;
        for (std::size_t channel = 0; channel < 3; ++channel) {
            unsigned least = 255, most = 0;
            for (std::size_t i = first; i < end; ++i) {
                const unsigned value = cells[i].mean(channel);
                least = std::min(least, value);
                most = std::max(most, value);
            }
            if (most - least >= range) {
                range = most - least;
                widest = channel;
            }
        }
        for (std::size_t i = first; i < end; ++i) count += cells[i].count;
        weight = end - first > 1 ? count * range * range : 0;
    }
};

bool Quantizer::chooseExactly(const Source& source, std::size_t maximum) {
    std::vector<std::uint32_t> keys;
    std::uint32_t last = std::numeric_limits<std::uint32_t>::max();
    for (std::size_t y = 0; y < source.high(); ++y) {
        const std::uint8_t* pixel = source.row(y);
        for (std::size_t x = 0; x < source.wide(); ++x, pixel += 4) {
            const std::uint32_t key = keyOf(pixel);
            if (key == last || isTransparent(pixel)) continue;
            last = key;
            const auto place = std::lower_bound(keys.begin(), keys.end(), key);
            if (place != keys.end() && *place == key) continue;
            if (keys.size() == maximum) return false;
            keys.insert(place, key);
        }
    }
    for (const std::uint32_t key : keys) {
        colours_.push_back({static_cast<std::uint8_t>(key >> 16),
                            static_cast<std::uint8_t>(key >> 8), static_cast<std::uint8_t>(key)});
    }
    exactKeys_ = std::move(keys);
    return true;
}

bool Quantizer::choose(Source& source) {
    bool hasTransparency = false;
    for (std::size_t y = 0; y < source.high() && !hasTransparency && !source.isOpaque(); ++y) {
        const std::uint8_t* pixel = source.row(y);
        for (std::size_t x = 0; x < source.wide() && !hasTransparency; ++x, pixel += 4)
            hasTransparency = isTransparent(pixel);
    }
    const std::size_t maximum = kMaximumColours - (hasTransparency ? 1 : 0);
    isExact_ = chooseExactly(source, maximum);
    if (!isExact_) {
        std::vector<Cell> cells(kCells);
        for (std::size_t y = 0; y < source.high(); ++y) {
            const std::uint8_t* pixel = source.row(y);
            for (std::size_t x = 0; x < source.wide(); ++x, pixel += 4) {
                if (isTransparent(pixel)) continue;
                Cell& cell = cells[cellOf(pixel[0], pixel[1], pixel[2])];
                for (std::size_t channel = 0; channel < 3; ++channel)
                    cell.sums[channel] += pixel[channel];
                ++cell.count;
            }
            if (!source.rowIsDone(y, 0, 0.2)) return false;
        }
        cut(std::move(cells), maximum);
        known_.assign(kCells, -1);
        errors_.assign(source.wide() + 2, {});
        nextErrors_.assign(source.wide() + 2, {});
    }
    if (hasTransparency) {
        transparent_ = static_cast<int>(colours_.size());
        colours_.push_back({0, 0, 0});
    }
    return true;
}

void Quantizer::cut(std::vector<Cell> cells, std::size_t maximum) {
    std::erase_if(cells, [](const Cell& cell) { return cell.count == 0; });
    std::vector<Box> boxes{Box(cells, 0, cells.size())};
    while (boxes.size() < maximum) {
        const auto largest =
            std::max_element(boxes.begin(), boxes.end(), [](const Box& one, const Box& other) {
                return one.weight < other.weight;
            });
        if (largest->weight == 0) break;
        const auto at = [&cells](std::size_t index) {
            return cells.begin() + static_cast<std::ptrdiff_t>(index);
        };
        std::sort(at(largest->first), at(largest->end),
                  [channel = largest->widest](const Cell& one, const Cell& other) {
                      return one.mean(channel) < other.mean(channel);
                  });
        std::uint64_t all = 0;
        for (std::size_t i = largest->first; i < largest->end; ++i) all += cells[i].count;
        std::size_t middle = largest->first;
        for (std::uint64_t count = 0; middle + 1 < largest->end && count < all / 2; ++middle)
            count += cells[middle].count;
        middle = std::max(middle, largest->first + 1);
        const Box upper(cells, middle, largest->end);
        *largest = Box(cells, largest->first, middle);
        boxes.push_back(upper);
    }
    for (const Box& box : boxes) {
        Cell whole;
        for (std::size_t i = box.first; i < box.end; ++i) {
            for (std::size_t channel = 0; channel < 3; ++channel)
                whole.sums[channel] += cells[i].sums[channel];
            whole.count += cells[i].count;
        }
        Colour colour;
        for (std::size_t channel = 0; channel < 3; ++channel)
            colour[channel] = static_cast<std::uint8_t>(whole.mean(channel));
        colours_.push_back(colour);
    }
}

std::uint8_t Quantizer::nearest(const std::array<int, 3>& colour) {
    std::int16_t& known =
        known_[cellOf(static_cast<unsigned>(colour[0]), static_cast<unsigned>(colour[1]),
                      static_cast<unsigned>(colour[2]))];
    if (known >= 0) return static_cast<std::uint8_t>(known);
    int least = std::numeric_limits<int>::max();
    for (std::size_t i = 0; i < colours_.size(); ++i) {
        if (static_cast<int>(i) == transparent_) continue;
        int distance = 0;
        for (std::size_t channel = 0; channel < 3; ++channel) {
            const int difference = colours_[i][channel] - colour[channel];
            distance += difference * difference;
        }
        if (distance < least) {
            least = distance;
            known = static_cast<std::int16_t>(i);
        }
    }
    return static_cast<std::uint8_t>(known);
}

void Quantizer::convertRow(const std::uint8_t* rgba, std::uint8_t* indices, std::size_t count) {
    if (isExact_) {
        for (std::size_t x = 0; x < count; ++x, rgba += 4) {
            indices[x] =
                isTransparent(rgba)
                    ? static_cast<std::uint8_t>(transparent_)
                    : static_cast<std::uint8_t>(
                          std::lower_bound(exactKeys_.begin(), exactKeys_.end(), keyOf(rgba)) -
                          exactKeys_.begin());
        }
        return;
    }
    std::fill(nextErrors_.begin(), nextErrors_.end(), std::array<int, 3>{});
    for (std::size_t x = 0; x < count; ++x, rgba += 4) {
        if (isTransparent(rgba)) {
            indices[x] = static_cast<std::uint8_t>(transparent_);
            continue;
        }
        std::array<int, 3> wanted;
        for (std::size_t channel = 0; channel < 3; ++channel)
            wanted[channel] = std::clamp(rgba[channel] + errors_[x + 1][channel] / 16, 0, 255);
        indices[x] = nearest(wanted);
        for (std::size_t channel = 0; channel < 3; ++channel) {
            const int off = wanted[channel] - colours_[indices[x]][channel];
            errors_[x + 2][channel] += 7 * off;
            nextErrors_[x][channel] += 3 * off;
            nextErrors_[x + 1][channel] += 5 * off;
            nextErrors_[x + 2][channel] += off;
        }
    }
    std::swap(errors_, nextErrors_);
}

}  // namespace utilia::platform::bitmaps
