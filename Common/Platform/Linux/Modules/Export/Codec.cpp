#include "Common/Platform/Linux/Modules/Export/Codec.h"

#include <algorithm>
#include <cstring>

namespace utilia::platform::bitmaps {
namespace {

// What any file may claim, however small: a picture of one colour packs well beyond what is usual.
constexpr std::uint64_t kPixelsOfAnyFile = 1'000'000;
// Between two words about progress.
constexpr std::size_t kPixelsPerWord = 500'000;

}  // namespace

bool Target::accepts(std::uint64_t wide, std::uint64_t high, std::uint64_t pixelsPerByte) {
    if (wide == 0 || high == 0) return reason_.refuse("no pixels");
    if (wide > kImageMaximumSide || high > kImageMaximumSide || wide * high > kImageMaximumPixels)
        return reason_.refuse("too many pixels");
    if (wide * high > kPixelsOfAnyFile + fileSize_ * pixelsPerByte)
        return reason_.refuse("more pixels than the file can hold");
    return true;
}

std::uint8_t* Target::begin(std::uint64_t wide, std::uint64_t high) {
    std::uint8_t* const rgba = table_.begin(table_.context, static_cast<std::uint32_t>(wide),
                                            static_cast<std::uint32_t>(high));
    if (!rgba) reason_.set("not enough memory");
    return rgba;
}

bool Target::takeProfile(Bytes profile) {
    if (profile.empty() || table_.colourProfile(table_.context, profile.data(), profile.size()))
        return true;
    return reason_.refuse("not enough memory");
}

Source::Source(const UtiliaExportPixels& pixels, const UtiliaExportSink& sink, Reason& reason)
    : pixels_(pixels), sink_(sink), reason_(reason),
      rowsPerWord_(std::max<std::size_t>(1, kPixelsPerWord / pixels.pixelsWide)) {}

bool Source::isOpaque() const {
    if (!isOpaque_) {
        std::size_t y = 0;
        while (y < high() && isRowOpaque(y)) ++y;
        isOpaque_ = y == high();
    }
    return *isOpaque_;
}

bool Source::isRowOpaque(std::size_t y) const {
    // Eight pixels at a time: this must not be noticed beside the fastest codec.
    const std::uint8_t* pixel = row(y);
    std::uint64_t all[4] = {~0ull, ~0ull, ~0ull, ~0ull};
    std::size_t left = wide();
    for (; left >= 8; left -= 8, pixel += 32) {
        std::uint64_t pairs[4];
        std::memcpy(pairs, pixel, sizeof pairs);
        for (std::size_t i = 0; i < 4; ++i) all[i] &= pairs[i];
    }
    std::uint8_t rest = 255;
    for (; left > 0; --left, pixel += 4) rest &= pixel[3];
    std::uint8_t alphas[32];
    std::memcpy(alphas, all, sizeof alphas);
    for (std::size_t i = 3; i < sizeof alphas; i += 4) rest &= alphas[i];
    return rest == 255;
}

void Source::readGreyRow(std::size_t y, std::uint8_t* to) const {
    const std::uint8_t* pixel = row(y);
    const bool hasAlpha = !isOpaque();
    for (std::size_t x = 0; x < wide(); ++x, pixel += 4) {
        *to++ = pixel[0];
        if (hasAlpha) *to++ = pixel[3];
    }
}

bool Source::rowIsDone(std::size_t y, double from, double part) {
    if ((y + 1) % rowsPerWord_ != 0) return true;
    return sink_.progress(sink_.context,
                          from + part * static_cast<double>(y + 1) / static_cast<double>(high()));
}

}  // namespace utilia::platform::bitmaps
