#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "Common/Platform/Image.h"

namespace utilia::test {

// Deterministic pictures.

struct Pixel {
    std::uint8_t red = 0;
    std::uint8_t green = 0;
    std::uint8_t blue = 0;
    std::uint8_t alpha = 255;
};

template <class PixelAt>  // Pixel(std::uint32_t x, std::uint32_t y)
platform::BitmapImageRep pictureOf(std::uint32_t width, std::uint32_t height, PixelAt pixelAt) {
    platform::BitmapImageRep picture{width, height, Data(std::size_t{width} * height * 4), {}};
    std::uint8_t* at = picture.rgba.data();
    for (std::uint32_t y = 0; y < height; ++y) {
        for (std::uint32_t x = 0; x < width; ++x, at += 4) {
            const Pixel pixel = pixelAt(x, y);
            at[0] = pixel.red;
            at[1] = pixel.green;
            at[2] = pixel.blue;
            at[3] = pixel.alpha;
        }
    }
    return picture;
}

class Noise final {
public:
    explicit Noise(std::uint32_t seed) : state_(seed * 2654435761u + 1) {}
    std::uint8_t operator()() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return static_cast<std::uint8_t>(state_ >> 11);
    }

private:
    std::uint32_t state_;
};

// Every pixel unlike the others: nothing that can be compressed.
inline platform::BitmapImageRep noisyPicture(std::uint32_t width, std::uint32_t height,
                                             bool isOpaque = true) {
    Noise noise(width * 31 + height);
    return pictureOf(width, height, [&](std::uint32_t, std::uint32_t) {
        return Pixel{noise(), noise(), noise(), isOpaque ? std::uint8_t{255} : noise()};
    });
}

// Colours that tell each row and column from the ones beside it.
inline platform::BitmapImageRep gradientPicture(std::uint32_t width, std::uint32_t height,
                                                bool isOpaque = true) {
    return pictureOf(width, height, [&](std::uint32_t x, std::uint32_t y) {
        return Pixel{static_cast<std::uint8_t>(x * 3), static_cast<std::uint8_t>(y * 5),
                     static_cast<std::uint8_t>((x + y) ^ (y >> 8)),
                     isOpaque ? std::uint8_t{255} : static_cast<std::uint8_t>(x + y * 7)};
    });
}

inline platform::BitmapImageRep greyPicture(std::uint32_t width, std::uint32_t height) {
    return pictureOf(width, height, [](std::uint32_t x, std::uint32_t y) {
        const auto value = static_cast<std::uint8_t>(x * y + (x ^ y));
        return Pixel{value, value, value, 255};
    });
}

// What a tall page in a browser looks like to a compressor: paragraphs of small letters with soft
// edges on white, tables, buttons, and here and there a photograph with its grain.
inline platform::BitmapImageRep screenshotPicture(std::uint32_t width, std::uint32_t height) {
    Noise noise(7);
    constexpr std::uint32_t kGlyphs = 48;
    constexpr std::uint32_t kGlyphWidth = 8;
    constexpr std::uint32_t kLine = 20;
    std::uint8_t glyphs[kGlyphs][kLine][kGlyphWidth] = {};
    for (auto& glyph : glyphs) {
        for (int stroke = 0; stroke < 3; ++stroke) {
            std::uint32_t x = noise() % (kGlyphWidth - 2);
            std::uint32_t y = 4 + noise() % 8;
            const bool isUpright = noise() & 1;
            for (int step = 0; step < 7 && x + 1 < kGlyphWidth && y + 1 < kLine - 3; ++step) {
                glyph[y][x] = std::max<std::uint8_t>(glyph[y][x], 220);
                glyph[y][x + 1] = std::max<std::uint8_t>(
                    glyph[y][x + 1], static_cast<std::uint8_t>(40 + noise() % 100));
                (isUpright ? y : x) += 1;
            }
        }
    }
    platform::BitmapImageRep picture = pictureOf(width, height, [](std::uint32_t, std::uint32_t) {
        return Pixel{255, 255, 255, 255};
    });
    const auto at = [&](std::uint32_t x, std::uint32_t y) {
        return picture.rgba.data() + (std::size_t{y} * width + x) * 4;
    };
    const auto set = [&](std::uint32_t x, std::uint32_t y, std::uint32_t red, std::uint32_t green,
                         std::uint32_t blue) {
        std::uint8_t* pixel = at(x, y);
        pixel[0] = static_cast<std::uint8_t>(red);
        pixel[1] = static_cast<std::uint8_t>(green);
        pixel[2] = static_cast<std::uint8_t>(blue);
    };
    const std::uint32_t margin = width / 10;
    const auto writeLine = [&](std::uint32_t y, std::uint32_t from, std::uint32_t to) {
        for (std::uint32_t x = from; x + kGlyphWidth < to; x += kGlyphWidth) {
            if (noise() % 6 == 0) continue;
            const auto& glyph = glyphs[noise() % kGlyphs];
            for (std::uint32_t row = 0; row < kLine; ++row) {
                for (std::uint32_t column = 0; column < kGlyphWidth; ++column) {
                    if (glyph[row][column] == 0) continue;
                    const std::uint32_t ink = 255u - glyph[row][column];
                    set(x + column, y + row, ink, ink, ink);
                }
            }
        }
    };
    for (std::uint32_t y = kLine; y + kLine < height;) {
        const unsigned kind = noise() % 12;
        if (kind == 0) {  // a photograph
            const std::uint32_t end = std::min(height, y + width / 4);
            for (; y < end; ++y) {
                for (std::uint32_t x = margin; x < width - margin; ++x) {
                    const std::uint32_t grain = noise() % 8;
                    set(x, y, (x >> 3) % 200 + grain, (y >> 1) % 200 + grain,
                        ((x + y) >> 4) % 200 + grain);
                }
            }
            y += kLine;
        } else if (kind < 3) {  // a row of buttons on a tinted ground
            const std::uint32_t end = std::min(height, y + 3 * kLine);
            for (; y < end; ++y) {
                for (std::uint32_t x = margin; x < width - margin; ++x) {
                    const bool isButton = (x - margin) % 160 < 120 && end - y > 12 && end - y < 48;
                    if (isButton)
                        set(x, y, 30, 110 + kind * 20, 200);
                    else
                        set(x, y, 244, 246, 249);
                }
            }
            y += kLine;
        } else {  // a paragraph
            const unsigned lines = 2 + noise() % 8;
            for (unsigned line = 0; line < lines && y + kLine < height; ++line, y += kLine)
                writeLine(y, margin, width - margin - noise());
            y += kLine;
        }
    }
    return picture;
}

// An ICC profile as far as anybody looks who does not use it: a header of this colour space (RGB by
// default), and one tag of bytes that do not pack well.
inline Data sampleProfile(std::size_t size = 344, std::string_view space = "RGB ") {
    Data profile(size, 0);
    const auto put = [&profile](std::size_t at, std::string_view text) {
        std::copy(text.begin(), text.end(), profile.begin() + static_cast<std::ptrdiff_t>(at));
    };
    const auto putNumber = [&profile](std::size_t at, std::size_t number) {
        for (std::size_t i = 0; i < 4; ++i)
            profile[at + i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
    };
    putNumber(0, size);
    profile[8] = 2;
    put(12, "mntr");
    put(16, space);
    put(20, "XYZ ");
    put(36, "acsp");
    // The white that it relates to, as all profiles do.
    putNumber(68, 0xf6d6);
    putNumber(72, 0x10000);
    putNumber(76, 0xd32d);
    putNumber(128, 1);
    put(132, "cprt");
    putNumber(136, 144);
    putNumber(140, size - 144);
    for (std::size_t i = 144; i < size; ++i) profile[i] = static_cast<std::uint8_t>(i * i * 31 + i);
    return profile;
}

}  // namespace utilia::test
