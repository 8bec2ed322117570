#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/ExportProgress.h"

namespace utilia::platform {

// Limits of what is decoded; anything beyond them is no image.
inline constexpr std::uint32_t kImageMaximumSide = 1'000'000;      // pixels
inline constexpr std::uint64_t kImageMaximumPixels = 200'000'000;  // of one representation
inline constexpr std::size_t kImageMaximumRepresentations = 32;
inline constexpr std::size_t kImageMaximumFileSize = 1u << 30;  // bytes

// Contract: never renumber. The formats that a bitmap can be written in, as the original platform
// numbers them.
enum class BitmapImageFileType : std::uint32_t {
    Tiff = 0,
    Bmp = 1,
    Gif = 2,
    Jpeg = 3,
    Png = 4,
    Jpeg2000 = 5,
};

// Pixels of one representation: 8-bit RGBA rows from the top, not premultiplied, no padding.
struct UTILIA_EXPORT BitmapImageRep {
    std::uint32_t pixelsWide = 0;
    std::uint32_t pixelsHigh = 0;
    Data rgba;  // pixelsWide * pixelsHigh * 4 bytes
    // The ICC profile of the colours, empty for sRGB: one of RGB, or one of grey where red, green and
    // blue are the same in every pixel.
    Data colourProfile = {};
};

// A picture, such as an icon: one or more representations of it in different sizes, and whether it
// is a template (a mask that is shown in the surroundings' colour).
//
// TIFF is read (grey, palette and RGB of up to 16 bits, uncompressed or packed by PackBits, LZW or
// Deflate) and written by a module that is loaded when content is first read or written; BMP, GIF,
// JPEG, PNG and JPEG 2000 by another one. Where a module is missing, what must be read is invalid
// and has no representations, and nothing can be written, with one log line.
// Documentation/Images.md says what of each format is read, and how it is written.
//
// More than 8 bits a sample are rounded to 8. What is damaged, cut off or beyond the limits is no
// image; finding that out takes no more memory than the file is worth, see there.
//
// Threads: an image belongs to one thread at a time.
class UTILIA_EXPORT Image final {
public:
    // One representation for each TIFF directory within the limits (of the first
    // kImageMaximumRepresentations), or for the first picture of another format. Empty when the
    // bytes are no image: no format that is read, or a first picture that is beyond the limits or
    // cannot be decoded (of TIFF, what lies past 64 MiB of its pixels is only looked at when they
    // are asked for). The template flag starts false.
    static std::shared_ptr<Image> initWithData(std::span<const std::uint8_t> bytes);
    // Always an image: the file is opened when its content is first asked for. A name that ends in
    // "Template" before its extension sets the template flag.
    static std::shared_ptr<Image> initByReferencingFile(std::string_view path);
    // The same, but reads the file now and tells why it cannot be: the file's own error, Refused
    // with the reason when it holds no image that is read, Unavailable without the module.
    static Result<std::shared_ptr<Image>> imageWithContentsOfFile(std::string_view path);
    // Takes the pixels as they are, without a profile that does not describe them; empty when their
    // size does not fit the sides, or the sides are 0 or beyond the limits.
    static std::shared_ptr<Image> initWithBitmap(BitmapImageRep bitmap);

    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;
    ~Image();

    bool isValid();
    bool isTemplate() const;
    void setTemplate(bool isTemplate);

    std::size_t representationCount();
    // Pixels of a representation; fails when they are damaged, or past the count.
    Result<BitmapImageRep> representation(std::size_t index);
    // The same without a copy where the image holds the pixels already. What is answered never
    // changes, and lives on without the image.
    Result<std::shared_ptr<const BitmapImageRep>> bitmap(std::size_t index);
    // The representation that stands for the image where one is wanted: the first, which of a file
    // of several pages is page one. Fails when there is none, or it is damaged.
    Result<std::shared_ptr<const BitmapImageRep>> CGImage();
    // Adds one more; answers false (and changes nothing) for pixels that initWithBitmap would
    // refuse, and for more representations than the limit. What is written from then on are the
    // representations: pages of a TIFF file that are none, past the limit or not read, are left out.
    bool addRepresentation(BitmapImageRep bitmap);
    // Of the largest representation; 0 without one.
    std::uint32_t pixelsWide();
    std::uint32_t pixelsHigh();

    // All representations, one TIFF directory each, uncompressed unless they were read compressed.
    // Empty when there is none. The same bytes until a representation is added; of an image that
    // was read, the bytes it was read from.
    std::optional<Data> TIFFRepresentation();

    // One representation as the content of a file, with its colour profile where the format can
    // carry one: a picture with a profile of grey is written in grey, and by GIF and BMP without the
    // profile. Fails as representation() does, with Refused when the format cannot hold the
    // picture (JPEG: 65,500 pixels a side; GIF: 65,535; BMP: 2 GiB), or for want of memory, with
    // Unavailable without the module, and with Cancelled when progress wants no more.
    Result<Data> representationUsingType(std::size_t index, BitmapImageFileType type,
                                         const ExportProgress& progress = {});

private:
    struct Implementation;
    explicit Image(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace utilia::platform
