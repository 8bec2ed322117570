#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <span>
#include <vector>

#include "Common/Logging/Log.h"
#include "Common/Platform/Image.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Tests/Support/PdfReader.h"
#include "Tests/Support/SamplePictures.h"

using namespace utilia;
using namespace utilia::platform;

namespace {

struct SilentSink final : LogSink {
    bool write(std::string_view) noexcept override { return true; }
};

void require(bool holds) {
    if (!holds) std::abort();
}

// Several bands, where the input asks for them; most find what they find with fewer pixels.
constexpr std::uint64_t kMostPixels = 300'000;
constexpr std::uint64_t kUsualPixels = 10'000;
constexpr std::size_t kHeaderBytes = 8;

// Rows of the input one after the other, each a few times, so that a few bytes make a large
// picture with all kinds of repetitions; past the input's end they are drawn by what it began with.
BitmapImageRep pictureFrom(std::span<const std::uint8_t> input, std::uint32_t width,
                           std::uint32_t height, std::uint8_t kind) {
    BitmapImageRep picture{width, height, Data(std::size_t{width} * height * 4), {}};
    std::uint32_t state = 1;
    for (const std::uint8_t byte : input.first(std::min<std::size_t>(input.size(), 64)))
        state = state * 31 + byte;
    std::size_t at = 0;
    for (std::size_t i = 0; i < picture.rgba.size(); i += 4) {
        for (std::size_t channel = 0; channel < 4; ++channel) {
            std::uint8_t value;
            if (at < input.size()) {
                value = input[at++];
                if ((kind & 0x10) && at == input.size()) at = 0;
            } else {
                state ^= state << 13;
                state ^= state >> 17;
                state ^= state << 5;
                value = static_cast<std::uint8_t>((kind & 0x20) ? state : (state & 3));
            }
            picture.rgba[i + channel] = value;
        }
        if (kind & 1) picture.rgba[i + 3] = 255;
        if (kind & 2) picture.rgba[i + 1] = picture.rgba[i + 2] = picture.rgba[i];
    }
    if (kind & 4) {
        picture.colourProfile =
            test::sampleProfile(344 + input.size() % 400, (kind & 8) ? "GRAY" : "RGB ");
        std::copy_n(input.begin(), std::min<std::size_t>(input.size() % 400, input.size()),
                    picture.colourProfile.begin() + 344);
    }
    return picture;
}

}  // namespace

// A picture and a page height become pages that hold exactly that picture, read by a reader of the
// tests' own, which takes nothing that is odd.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const bool silent = (setLogSink(std::make_shared<SilentSink>()), true);
    static_cast<void>(silent);
    if (size < kHeaderBytes) return 0;
    const std::uint32_t width = 1u + bytes[0] + bytes[1] * 256u;
    const std::uint64_t most = bytes[7] == 0xff ? kMostPixels : kUsualPixels;
    const std::uint32_t height = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(1u + bytes[2] + bytes[3] * 256u, most / width));
    const std::uint64_t pageHeight = bytes[4] + bytes[5] * 256u;
    const std::uint8_t kind = bytes[6];
    if (height == 0) return 0;
    const std::uint64_t pages =
        pageHeight == 0 || pageHeight >= height ? 1 : (height + pageHeight - 1) / pageHeight;
    // Thousands of pages take time and find nothing more.
    if (pages > 500) return 0;

    const BitmapImageRep picture =
        pictureFrom({bytes + kHeaderBytes, size - kHeaderBytes}, width, height, kind);
    const auto document = CommonAuxiliary::sharedInstance().dataForImageAsPDF(
        Image::initWithBitmap(picture), pageHeight);
    require(document.has_value());
    std::vector<test::PdfPage> read;
    try {
        read = test::readPdf(*document);
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "%s\n", exception.what());
        std::abort();
    }
    require(read.size() == pages);
    // One of grey goes with grey pixels only.
    bool isGrey = true;
    for (std::size_t i = 0; i < picture.rgba.size(); i += 4) {
        isGrey = isGrey && picture.rgba[i] == picture.rgba[i + 1] &&
                 picture.rgba[i] == picture.rgba[i + 2];
    }
    const Data profile = (kind & 8) && !isGrey ? Data() : picture.colourProfile;
    auto row = picture.rgba.begin();
    for (const test::PdfPage& page : read) {
        require(page.images.size() == 1);
        const test::PdfImage& image = page.images.front();
        require(image.width == width && image.profile == profile);
        const auto end = row + static_cast<std::ptrdiff_t>(image.rgba.size());
        require(std::equal(row, end, image.rgba.begin()));
        row = end;
    }
    require(row == picture.rgba.end());
    return 0;
}
