#include <cstdint>
#include <cstdlib>
#include <span>

#include "Common/Logging/Log.h"
#include "Common/Platform/Image.h"

using namespace utilia;
using namespace utilia::platform;

namespace {

struct SilentSink final : LogSink {
    bool write(std::string_view) noexcept override { return true; }
};

void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

// An image as the agent takes it from a message: looked over, its pixels decoded, and written anew
// with one more representation, which must read back.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const bool silent = (setLogSink(std::make_shared<SilentSink>()), true);
    static_cast<void>(silent);

    const auto image = Image::initWithData({bytes, size});
    if (!image) return 0;
    const std::size_t count = image->representationCount();
    require(image->isValid() && count >= 1 && count <= kImageMaximumRepresentations);
    require(image->TIFFRepresentation() == Data(bytes, bytes + size));

    // Decoding what is large takes time and finds nothing more.
    if (std::uint64_t{image->pixelsWide()} * image->pixelsHigh() > 1'000'000) return 0;
    for (std::size_t i = 0; i < count; ++i) {
        const auto pixels = image->representation(i);
        if (pixels) {
            require(pixels->rgba.size() ==
                    std::size_t{pixels->pixelsWide} * pixels->pixelsHigh * 4);
        }
    }
    const auto first = image->representation(0);
    if (!image->addRepresentation({1, 1, Data(4)})) return 0;
    const auto written = image->TIFFRepresentation();
    require(written.has_value());
    const auto again = Image::initWithData(*written);
    require(again && again->representationCount() >= 1 &&
            again->representationCount() <= count + 1);
    if (first) require(again->representation(0)->rgba == first->rgba);
    return 0;
}
