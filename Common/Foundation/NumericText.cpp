#include "Common/Foundation/NumericText.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "Common/Foundation/Utf8Decoder.h"

// Comparing goes character by character and takes the texts apart only where they differ: nearly
// all texts are equal up to the place that decides, and there they are ASCII. What is taken apart
// is a cluster, one character with the marks that follow it, put into canonical order; it then
// counts in place of the text until it is used up. So each byte is looked at a bounded number of
// times. Numbers are only found in the text itself, never in a cluster.
//
// A cluster has room for a bounded number of characters; a longer row of marks goes on in the next
// one. Without the bound, a text of nothing but marks would have to be sorted as a whole.

namespace utilia {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isAsciiDigit(char32_t character) { return character >= U'0' && character <= U'9'; }

class Cursor final {
public:
    Cursor(std::string_view text, const CharacterProperties& properties)
        : rest_(text), properties_(properties) {
        readCharacter();
    }

    // Whether everything is used up, the cluster included.
    bool isAtEnd() const { return rest_.empty(); }
    bool isInCluster() const { return clusterSize_ > 0; }
    char32_t character() const { return isInCluster() ? cluster_[clusterIndex_] : character_; }
    bool isAtNumber() const { return !isInCluster() && isAsciiDigit(character_); }

    void advance() {
        if (isInCluster() && ++clusterIndex_ < clusterSize_) return;
        const std::size_t used = isInCluster() ? clusterLength_ : characterLength_;
        clusterSize_ = 0;
        rest_.remove_prefix(used);
        readCharacter();
    }

    // Takes the digits here and answers their value modulo 2^64.
    std::uint64_t takeNumber() {
        std::uint64_t value = 0;
        std::size_t length = 0;
        for (; length < rest_.size() && rest_[length] >= '0' && rest_[length] <= '9'; ++length)
            value = value * 10 + static_cast<std::uint64_t>(rest_[length] - '0');
        rest_.remove_prefix(length);
        readCharacter();
        return value;
    }

    // Takes apart the character here and the marks after it; nothing happens when that makes no
    // difference.
    void enterCluster() {
        if (isInCluster()) return;
        std::size_t size = append(0, character_);
        std::size_t length = characterLength_;
        while (size + CharacterProperties::kLongestDecomposition <= cluster_.size() &&
               length < rest_.size()) {
            const DecodedCharacter next = decodeUtf8(rest_.substr(length));
            if (!next.wellFormed || properties_.combiningClass(next.character) == 0) break;
            size = append(size, next.character);
            length += next.length;
        }
        if (size == 1 && cluster_[0] == character_) return;
        sortMarks(size);
        clusterSize_ = size;
        clusterIndex_ = 0;
        clusterLength_ = length;
    }

private:
    void readCharacter() {
        if (rest_.empty()) return;
        const DecodedCharacter next = decodeUtf8(rest_);
        character_ = next.wellFormed ? next.character : kReplacement;
        characterLength_ = next.length;
    }

    std::size_t append(std::size_t size, char32_t character) {
        if (character < 0x80) {
            cluster_[size] = character;
            return size + 1;
        }
        char32_t parts[CharacterProperties::kLongestDecomposition];
        const std::size_t count = properties_.decompose(character, parts);
        std::copy_n(parts, count, cluster_.begin() + static_cast<std::ptrdiff_t>(size));
        return size + count;
    }

    // Canonical order: marks by their class, those of one class as they stand. Insertion, because
    // there are few and they are nearly always in order.
    void sortMarks(std::size_t size) {
        std::array<int, kRoom> classes;
        for (std::size_t i = 0; i < size; ++i) {
            const char32_t mark = cluster_[i];
            const int order = properties_.combiningClass(mark);
            std::size_t place = i;
            for (; order != 0 && place > 0 && classes[place - 1] > order; --place) {
                cluster_[place] = cluster_[place - 1];
                classes[place] = classes[place - 1];
            }
            cluster_[place] = mark;
            classes[place] = order;
        }
    }

    static constexpr std::size_t kRoom = 64;

    std::string_view rest_;  // from the character, or the cluster, at which this stands
    const CharacterProperties& properties_;
    char32_t character_ = 0;
    std::size_t characterLength_ = 0;  // in bytes, as the next one
    std::size_t clusterLength_ = 0;
    std::size_t clusterSize_ = 0;  // 0: none
    std::size_t clusterIndex_ = 0;
    std::array<char32_t, kRoom> cluster_{};
};

}  // namespace

std::vector<std::string_view> digitRuns(std::string_view text, std::size_t maximum,
                                        const CharacterProperties& properties) {
    std::vector<std::string_view> runs;
    std::size_t begin = 0;
    bool isInRun = false;
    const auto endRun = [&](std::size_t end) {
        if (isInRun) runs.push_back(text.substr(begin, end - begin));
        isInRun = false;
    };
    std::size_t position = 0;
    while (position < text.size() && runs.size() < maximum) {
        const DecodedCharacter next = decodeUtf8(text.substr(position));
        const bool isDigit =
            next.wellFormed && (next.character < 0x80 ? isAsciiDigit(next.character)
                                                      : properties.isDecimalDigit(next.character));
        if (!isDigit) {
            endRun(position);
        } else if (!isInRun) {
            begin = position;
            isInRun = true;
        }
        position += next.length;
    }
    endRun(position);
    return runs;
}

ComparisonResult compareNumerically(std::string_view left, std::string_view right,
                                    const CharacterProperties& properties) {
    Cursor a(left, properties);
    Cursor b(right, properties);
    while (!a.isAtEnd() && !b.isAtEnd()) {
        if (a.isAtNumber() && b.isAtNumber()) {
            const std::uint64_t first = a.takeNumber();
            const std::uint64_t second = b.takeNumber();
            if (first != second) return comparisonResult(first <=> second);
            continue;
        }
        if (a.character() != b.character()) {
            // Both at once: the answer must not depend on which of them comes first.
            a.enterCluster();
            b.enterCluster();
        }
        if (a.character() != b.character()) {
            return a.character() < b.character() ? ComparisonResult::Ascending
                                                 : ComparisonResult::Descending;
        }
        a.advance();
        b.advance();
    }
    if (a.isAtEnd() && b.isAtEnd()) return ComparisonResult::Same;
    return a.isAtEnd() ? ComparisonResult::Ascending : ComparisonResult::Descending;
}

}  // namespace utilia
