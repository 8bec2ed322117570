#include <cstdint>
#include <cstdlib>
#include <vector>

#include <zlib.h>

#include "Common/Platform/Linux/Modules/Export/DeflateBlocks.h"

// Any bytes as a Deflate stream: its final block lies where zlib finds it. zlib also looks at what
// symbols stand for, and refuses more.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const auto found = utilia::platform::pdf::findFinalBlock({bytes, size});
    if (found && (found->firstBit >= found->endBit || found->endBit > size * 8)) std::abort();

    z_stream state{};
    if (inflateInit2(&state, -15) != Z_OK) std::abort();
    std::vector<std::uint8_t> out(1 << 16);
    state.next_in = const_cast<Bytef*>(bytes);
    state.avail_in = static_cast<uInt>(size);
    std::size_t boundary = 0;
    std::size_t end = 0;
    std::size_t made = 0;
    int result = Z_OK;
    while (result == Z_OK && made < (64u << 20)) {
        state.next_out = out.data();
        state.avail_out = static_cast<uInt>(out.size());
        result = inflate(&state, Z_BLOCK);
        made += out.size() - state.avail_out;
        const std::size_t at =
            (size - state.avail_in) * 8 - static_cast<std::size_t>(state.data_type & 7);
        if ((state.data_type & 128) == 0) continue;
        if (state.data_type & 64) {
            end = at;
        } else {
            boundary = at;
        }
    }
    inflateEnd(&state);
    if (result != Z_STREAM_END) return 0;
    if (!found || found->firstBit != boundary || found->endBit != end) std::abort();
    return 0;
}
