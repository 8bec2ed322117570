// Bands of a picture that are compressed apart and are one stream together. Compiled with the
// module's sources; what they make is read with zlib.

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <libdeflate.h>
#include <zlib.h>

#include "Common/Platform/Linux/Modules/Export/BandCompressor.h"
#include "Common/Platform/Linux/Modules/Export/DeflateBlocks.h"

using namespace utilia::platform::pdf;

namespace {

using Bytes = std::vector<std::uint8_t>;

// Data of many kinds: from what is all the same to what cannot be compressed.
Bytes sample(unsigned kind, std::size_t size) {
    std::mt19937 random(kind * 1000 + static_cast<unsigned>(size));
    Bytes bytes(size);
    const unsigned values = 1u << (kind % 9);
    for (std::size_t i = 0; i < size; ++i) {
        const bool isRepeated = kind >= 9 && i > 300 && random() % 16 != 0;
        bytes[i] = isRepeated ? bytes[i - 1 - (kind * 7) % 300]
                              : static_cast<std::uint8_t>(random() % values);
    }
    return bytes;
}

struct Setting {
    int level;
    int strategy;
    int flush;  // in the middle; 0 for none
};

Bytes deflatedByZlib(const Bytes& bytes, const Setting& setting) {
    z_stream state{};
    EXPECT_EQ(deflateInit2(&state, setting.level, Z_DEFLATED, -15, 8, setting.strategy), Z_OK);
    Bytes out(deflateBound(&state, static_cast<uLong>(bytes.size())) + 100);
    state.next_in = const_cast<Bytef*>(bytes.data());
    state.next_out = out.data();
    state.avail_out = static_cast<uInt>(out.size());
    if (setting.flush) {
        state.avail_in = static_cast<uInt>(bytes.size() / 2);
        EXPECT_EQ(deflate(&state, setting.flush), Z_OK);
    }
    state.avail_in = static_cast<uInt>(bytes.size() - (setting.flush ? bytes.size() / 2 : 0));
    EXPECT_EQ(deflate(&state, Z_FINISH), Z_STREAM_END);
    out.resize(state.total_out);
    deflateEnd(&state);
    return out;
}

// Where zlib finds the final block of a stream.
FinalBlock finalBlockByZlib(const Bytes& deflated) {
    z_stream state{};
    EXPECT_EQ(inflateInit2(&state, -15), Z_OK);
    Bytes out(1 << 16);
    state.next_in = const_cast<Bytef*>(deflated.data());
    state.avail_in = static_cast<uInt>(deflated.size());
    FinalBlock block;
    int result = Z_OK;
    std::size_t boundary = 0;
    while (result == Z_OK) {
        state.next_out = out.data();
        state.avail_out = static_cast<uInt>(out.size());
        result = inflate(&state, Z_BLOCK);
        const std::size_t bits =
            (deflated.size() - state.avail_in) * 8 - static_cast<std::size_t>(state.data_type & 7);
        if (state.data_type & 128) {
            if (state.data_type & 64) {
                block.endBit = bits;
            } else {
                boundary = bits;
            }
        }
    }
    EXPECT_EQ(result, Z_STREAM_END);
    inflateEnd(&state);
    block.firstBit = boundary;
    return block;
}

Bytes inflated(const Bytes& zlibStream, std::size_t size) {
    Bytes out(size + 1);
    uLongf length = static_cast<uLongf>(out.size());
    EXPECT_EQ(
        uncompress(out.data(), &length, zlibStream.data(), static_cast<uLong>(zlibStream.size())),
        Z_OK);
    out.resize(length);
    return out;
}

TEST(DeflateBlocks, AreFoundWhereZlibFindsThem) {
    const Setting settings[] = {
        {0, Z_DEFAULT_STRATEGY, 0},  // stored
        {1, Z_DEFAULT_STRATEGY, 0},
        {6, Z_DEFAULT_STRATEGY, 0},
        {9, Z_DEFAULT_STRATEGY, Z_FULL_FLUSH},
        {6, Z_FIXED, 0},
        {6, Z_FIXED, Z_SYNC_FLUSH},
        {6, Z_HUFFMAN_ONLY, 0},
        {6, Z_RLE, Z_PARTIAL_FLUSH},
    };
    for (const Setting& setting : settings) {
        for (unsigned kind = 0; kind < 30; ++kind) {
            for (const std::size_t size : {0u, 1u, 2u, 300u, 70'000u, 150'000u}) {
                const Bytes deflated = deflatedByZlib(sample(kind, size), setting);
                const FinalBlock wanted = finalBlockByZlib(deflated);
                const auto found = findFinalBlock(deflated);
                ASSERT_TRUE(found) << setting.level << ", " << kind << ", " << size;
                EXPECT_EQ(found->endBit, wanted.endBit);
                EXPECT_EQ(found->firstBit, wanted.firstBit);
                EXPECT_EQ((found->endBit + 7) / 8, deflated.size());
            }
        }
    }
}

TEST(DeflateBlocks, AreFoundInWhatLibdeflateMakesAtEveryLevel) {
    for (int level = 0; level <= 12; ++level) {
        libdeflate_compressor* const compressor = libdeflate_alloc_compressor(level);
        for (unsigned kind = 0; kind < 40; ++kind) {
            const Bytes bytes = sample(kind, 100'000);
            Bytes deflated(libdeflate_deflate_compress_bound(compressor, bytes.size()));
            deflated.resize(libdeflate_deflate_compress(compressor, bytes.data(), bytes.size(),
                                                        deflated.data(), deflated.size()));
            const auto found = findFinalBlock(deflated);
            ASSERT_TRUE(found) << level << ", " << kind;
            EXPECT_EQ(found->firstBit, finalBlockByZlib(deflated).firstBit);
            EXPECT_EQ((found->endBit + 7) / 8, deflated.size());
        }
        libdeflate_free_compressor(compressor);
    }
}

TEST(DeflateBlocks, AreNotFoundInAPieceOfAStream) {
    const Bytes deflated = deflatedByZlib(sample(20, 50'000), {6, Z_DEFAULT_STRATEGY, 0});
    const std::size_t step = std::max<std::size_t>(1, deflated.size() / 500);
    for (std::size_t size = 0; size < deflated.size(); size += step)
        EXPECT_FALSE(findFinalBlock({deflated.data(), size})) << size;
}

TEST(DeflateBlocks, EndInAnswersWhateverTheBytesAre) {
    std::mt19937 random(1);
    std::size_t found = 0;
    for (int round = 0; round < 20'000; ++round) {
        Bytes bytes(1 + random() % 64);
        for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
        const auto block = findFinalBlock(bytes);
        if (!block) continue;
        ++found;
        EXPECT_LT(block->firstBit, block->endBit);
        EXPECT_LE(block->endBit, bytes.size() * 8);
    }
    EXPECT_GT(found, 0u);
}

TEST(DeflateBlocks, AreRefusedWhereZlibRefusesTheirCodes) {
    const Bytes deflated = deflatedByZlib(sample(5, 3000), {6, Z_DEFAULT_STRATEGY, 0});
    std::size_t refused = 0;
    for (std::size_t bit = 0; bit < 60 * 8; ++bit) {
        Bytes damaged = deflated;
        damaged[bit / 8] = static_cast<std::uint8_t>(damaged[bit / 8] ^ (1u << (bit % 8)));
        refused += !findFinalBlock(damaged);
    }
    EXPECT_GT(refused, 100u);
}

TEST(PdfBands, AreOneStreamTogether) {
    BandCompressor compressor;
    for (unsigned kind = 0; kind < 40; ++kind) {
        Bytes all;
        Bytes stream = {0x78, 0x9C};
        std::uint32_t checksum = 1;
        for (const std::size_t size : {1u, 7u, 1000u, 3u, 90'000u, 511u, 20'000u}) {
            const Bytes bytes = sample(kind, size);
            const bool isLast = size == 20'000;
            const auto band = compressor.compress(bytes.data(), bytes.size(), isLast);
            ASSERT_TRUE(band);
            EXPECT_EQ(band->size, size);
            all.insert(all.end(), bytes.begin(), bytes.end());
            stream.insert(stream.end(), band->deflated.begin(), band->deflated.end());
            checksum = combinedChecksum(checksum, band->checksum, band->size);
        }
        EXPECT_EQ(checksum, adler32(1, all.data(), static_cast<uInt>(all.size())));
        for (int shift = 24; shift >= 0; shift -= 8)
            stream.push_back(static_cast<std::uint8_t>(checksum >> shift));
        EXPECT_EQ(inflated(stream, all.size()), all) << "kind " << kind;
    }
}

TEST(PdfBands, HaveTheChecksumOfTheWholeWhateverTheirSizes) {
    const Bytes ones(3 * 65'521 + 5, 0xff);
    for (const std::size_t first : {std::size_t{0}, std::size_t{1}, std::size_t{65'520},
                                    std::size_t{65'521}, std::size_t{131'042}, ones.size()}) {
        const auto of = [](const std::uint8_t* bytes, std::size_t size) {
            return static_cast<std::uint32_t>(adler32(1, bytes, static_cast<uInt>(size)));
        };
        EXPECT_EQ(combinedChecksum(of(ones.data(), first),
                                   of(ones.data() + first, ones.size() - first),
                                   ones.size() - first),
                  of(ones.data(), ones.size()));
    }
}

TEST(PdfPixels, TellWhatPixelsHaveInCommon) {
    // One pixel of the last columns and rows is another one, at every place of a vector's width.
    for (std::uint32_t width = 1; width <= 40; ++width) {
        const std::uint32_t height = 3;
        Bytes rgba;
        for (std::uint32_t i = 0; i < width * height; ++i) {
            const auto grey = static_cast<std::uint8_t>(i * 37);
            rgba.insert(rgba.end(), {grey, grey, grey, 255});
        }
        const auto traits = [&] {
            return traitsOf({rgba.data(), width, height, nullptr, 0, false});
        };
        EXPECT_TRUE(traits().isOpaque && traits().isGrey);
        for (std::size_t pixel = 0; pixel < width * height; ++pixel) {
            for (std::size_t channel = 0; channel < 4; ++channel) {
                std::uint8_t& byte = rgba[pixel * 4 + channel];
                byte ^= 1;
                EXPECT_EQ(traits().isGrey, channel == 3);
                EXPECT_EQ(traits().isOpaque, channel < 3);
                byte ^= 1;
            }
        }
    }
}

}  // namespace
