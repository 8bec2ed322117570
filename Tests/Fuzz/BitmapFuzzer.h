#pragma once

#include <cstdint>
#include <cstdlib>
#include <span>

#include "Common/Logging/Log.h"
#include "Common/Platform/Image.h"

namespace utilia::test {

// A picture of a stranger: read, and where that works and it is not large, written in the same format
// and read again, with the same sides and, where nothing is lost, the same pixels.
class BitmapFuzzer final {
public:
    BitmapFuzzer(platform::BitmapImageFileType type, bool isLossless)
        : type_(type), isLossless_(isLossless) {
        setLogSink(std::make_shared<SilentSink>());
    }

    void run(std::span<const std::uint8_t> bytes) const {
        const auto image = platform::Image::initWithData(bytes);
        if (!image) return;
        require(image->isValid() && image->representationCount() >= 1);
        const auto bitmap = image->bitmap(0);
        // Of TIFF, only the beginning is looked at before.
        if (!bitmap) return;
        const platform::BitmapImageRep& read = **bitmap;
        require(read.rgba.size() == std::size_t{read.pixelsWide} * read.pixelsHigh * 4);
        if (std::uint64_t{read.pixelsWide} * read.pixelsHigh > 20'000) return;
        const auto written = image->representationUsingType(0, type_);
        require(written.has_value());
        const auto again = platform::Image::initWithData(*written);
        require(again && again->pixelsWide() == read.pixelsWide &&
                again->pixelsHigh() == read.pixelsHigh);
        if (isLossless_ && isVisible(read)) require((*again->bitmap(0))->rgba == read.rgba);
    }

private:
    struct SilentSink final : LogSink {
        bool write(std::string_view) noexcept override { return true; }
    };
    // A BMP file without any alpha means that there is none.
    static bool isVisible(const platform::BitmapImageRep& bitmap) {
        for (std::size_t i = 3; i < bitmap.rgba.size(); i += 4) {
            if (bitmap.rgba[i] != 0) return true;
        }
        return false;
    }
    static void require(bool holds) {
        if (!holds) std::abort();
    }

    platform::BitmapImageFileType type_;
    bool isLossless_;
};

}  // namespace utilia::test
