#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "Common/Platform/Image.h"
#include "Common/Platform/Linux/Modules/Export/ExportBitmaps.h"
#include "Common/Platform/Linux/Modules/Reason.h"

// What the codecs of the module share.

namespace utilia::platform::bitmaps {

using Bytes = std::span<const std::uint8_t>;

// Where a decoder puts its picture.
class Target final {
public:
    Target(const UtiliaExportTarget& table, std::size_t fileSize, Reason& reason)
        : table_(table), fileSize_(fileSize), reason_(reason) {}

    Reason& reason() { return reason_; }

    // Whether the sides are within the limits of what is decoded, and the picture not larger than a
    // file of this size can be worth at `pixelsPerByte` and what a small file may claim anyway.
    bool accepts(std::uint64_t wide, std::uint64_t high, std::uint64_t pixelsPerByte);
    // Room for the pixels; null, with a reason, when there is none. Once.
    std::uint8_t* begin(std::uint64_t wide, std::uint64_t high);
    bool takeProfile(Bytes profile);

private:
    const UtiliaExportTarget& table_;
    std::size_t fileSize_;
    Reason& reason_;
};

// What an encoder writes, and where to.
class Source final {
public:
    Source(const UtiliaExportPixels& pixels, const UtiliaExportSink& sink, Reason& reason);

    Reason& reason() { return reason_; }
    std::uint32_t wide() const { return pixels_.pixelsWide; }
    std::uint32_t high() const { return pixels_.pixelsHigh; }
    const std::uint8_t* row(std::size_t y) const {
        return pixels_.rgba + y * pixels_.pixelsWide * 4;
    }
    // Whether the picture is to be written in grey, where the format can.
    bool isGrey() const { return pixels_.isGrey; }
    // One of grey where the picture is.
    Bytes profile() const { return {pixels_.colourProfile, pixels_.colourProfileSize}; }
    // For formats that hold no grey.
    Bytes profileOfRGB() const { return isGrey() ? Bytes() : profile(); }
    // The samples of a pixel that are to be written: colours, and alpha if it says anything.
    std::size_t channels() const { return (isGrey() ? 1u : 3u) + (isOpaque() ? 0u : 1u); }
    // A row of a grey picture: channels() bytes a pixel.
    void readGreyRow(std::size_t y, std::uint8_t* to) const;
    // Whether no pixel lets anything through: of the picture, which is looked through once, or of a
    // row.
    bool isOpaque() const;
    bool isRowOpaque(std::size_t y) const;

    bool expect(std::size_t size) { return sink_.expect(sink_.context, size); }
    bool write(const std::uint8_t* bytes, std::size_t size) {
        if (size > 0 && !sink_.write(sink_.context, bytes, size)) hasLost_ = true;
        return !hasLost_;
    }
    // Whether something could not be written, which not every codec looks at.
    bool hasLost() const { return hasLost_; }
    bool progress(double done) { return sink_.progress(sink_.context, done); }
    // To be called after each row that is done, which need not be each row of the picture: tells
    // the progress of `part` of the work that begins at `from`, not too often.
    bool rowIsDone(std::size_t y, double from = 0, double part = 1);

private:
    const UtiliaExportPixels& pixels_;
    const UtiliaExportSink& sink_;
    Reason& reason_;
    std::size_t rowsPerWord_;
    mutable std::optional<bool> isOpaque_;
    bool hasLost_ = false;
};

// A colour that lies on white with this opacity.
inline std::uint8_t onWhite(std::uint8_t colour, std::uint8_t alpha) {
    const unsigned sum = unsigned{colour} * alpha + 255u * (255u - alpha);
    return static_cast<std::uint8_t>((sum + 127) / 255);
}

// The light of two inks on white paper.
inline std::uint8_t underInk(unsigned light, unsigned black) {
    return static_cast<std::uint8_t>((light * black + 127) / 255);
}

extern const UtiliaExportBitmaps kExportBitmaps;

bool decodePng(Bytes bytes, Target& target);
bool decodeJpeg(Bytes bytes, Target& target);
bool decodeGif(Bytes bytes, Target& target);
bool decodeBmp(Bytes bytes, Target& target);
bool decodeJpeg2000(Bytes bytes, Target& target);  // a file, or a bare codestream

bool encodePng(Source& source);
bool encodeJpeg(Source& source);
bool encodeGif(Source& source);
bool encodeBmp(Source& source);
bool encodeJpeg2000(Source& source);

}  // namespace utilia::platform::bitmaps
