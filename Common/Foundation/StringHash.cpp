#include "Common/Foundation/StringHash.h"

#include <charconv>

#include "Common/Foundation/Unicode.h"

// The hash is part of names on which independently built programs agree, so it can never change.
// Its two oddities are deliberate: the products of a group of four units wrap in 32 bits before
// they are widened, and the factor between groups is 257^4 modulo 2^32. The older releases of the
// original computed the products in signed arithmetic; where that differs (units above U+007E in
// the first place of a group) the unsigned form counts.

namespace utilia {
namespace {

constexpr std::size_t kWholeTextLimit = 96;
constexpr std::size_t kWindow = 32;
constexpr std::uint64_t kGroupFactor = 67503105;  // 257^4 - 2^32

std::uint64_t mixGroups(std::uint64_t hash, std::u16string_view units) {
    for (; units.size() >= 4; units.remove_prefix(4)) {
        std::uint32_t products = units[0];
        products = products * 257u + units[1];
        products = products * 257u + units[2];
        products = products * 257u;
        hash = hash * kGroupFactor + products + units[3];
    }
    for (const char16_t unit : units) hash = hash * 257u + unit;
    return hash;
}

}  // namespace

std::uint64_t stringHash(std::u16string_view text) {
    const std::size_t count = text.size();
    std::uint64_t hash = count;
    if (count <= kWholeTextLimit) {
        hash = mixGroups(hash, text);
    } else {
        hash = mixGroups(hash, text.substr(0, kWindow));
        hash = mixGroups(hash, text.substr(count / 2 - kWindow / 2, kWindow));
        hash = mixGroups(hash, text.substr(count - kWindow, kWindow));
    }
    return hash + (hash << (count & 31u));
}

std::uint64_t stringHash(std::string_view utf8) {
    return stringHash(std::u16string_view(utf16FromUtf8(utf8)));
}

std::string hexadecimal(std::uint64_t value) {
    char digits[16];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), value, 16).ptr;
    return {digits, end};
}

}  // namespace utilia
