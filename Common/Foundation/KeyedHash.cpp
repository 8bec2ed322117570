#include "Common/Foundation/KeyedHash.h"

#include <bit>
#include <chrono>
#include <cstring>

// SipHash with one round a word and three at the end, as hash tables use it.

namespace utilia {
namespace {

struct State {
    std::uint64_t a, b, c, d;

    void round() {
        a += b;
        b = std::rotl(b, 13) ^ a;
        a = std::rotl(a, 32);
        c += d;
        d = std::rotl(d, 16) ^ c;
        a += d;
        d = std::rotl(d, 21) ^ a;
        c += b;
        b = std::rotl(b, 17) ^ c;
        c = std::rotl(c, 32);
    }
    void mix(std::uint64_t word) {
        d ^= word;
        round();
        a ^= word;
    }
};

std::uint64_t processKey() {
    // Where the system put this library and when it was first asked are not known to whoever
    // prepared a file.
    static const std::uint64_t key = [] {
        const auto now =
            static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
        return now * 0x9E3779B97F4A7C15u ^ reinterpret_cast<std::uintptr_t>(&keyedHash);
    }();
    return key;
}

}  // namespace

std::uint64_t keyedHash(std::string_view text) {
    const std::uint64_t key = processKey();
    State state{0x736F6D6570736575u ^ key, 0x646F72616E646F6Du ^ ~key, 0x6C7967656E657261u ^ key,
                0x7465646279746573u ^ ~key};
    const std::uint64_t length = text.size();
    for (; text.size() >= 8; text.remove_prefix(8)) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data(), 8);
        state.mix(word);
    }
    std::uint64_t last = length << 56;
    for (std::size_t i = 0; i < text.size(); ++i) {
        last |= static_cast<std::uint64_t>(static_cast<unsigned char>(text[i])) << (8 * i);
    }
    state.mix(last);
    state.c ^= 0xFF;
    for (int i = 0; i < 3; ++i) state.round();
    return state.a ^ state.b ^ state.c ^ state.d;
}

}  // namespace utilia
