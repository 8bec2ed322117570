#include <cstring>
#include <string>
#include <vector>

#include <gif_lib.h>
#include <gtest/gtest.h>

#include "Tests/Support/SamplePictures.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

struct GifFrame {
    int left = 0, top = 0, wide = 23, high = 17;
    bool isInterlaced = false;
    bool hasOwnColours = false;
    int transparent = NO_TRANSPARENT_COLOR;
};

constexpr int kColours = 16;

GifColorType colourOf(int index, bool isOwn) {
    return {static_cast<GifByteType>(index * 15), static_cast<GifByteType>(255 - index * 9),
            static_cast<GifByteType>(isOwn ? 200 : 3)};
}

GifPixelType indexAt(int x, int y, int frame) {
    return static_cast<GifPixelType>((x * 5 + y * 3 + frame) % kColours);
}

Data fileOf(int wide, int high, const std::vector<GifFrame>& frames) {
    Data file;
    int error = 0;
    GifFileType* gif = EGifOpen(
        &file,
        [](GifFileType* one, const GifByteType* bytes, int count) {
            auto& to = *static_cast<Data*>(one->UserData);
            to.insert(to.end(), bytes, bytes + count);
            return count;
        },
        &error);
    const auto mapOf = [](bool isOwn) {
        ColorMapObject* map = GifMakeMapObject(kColours, nullptr);
        for (int i = 0; i < kColours; ++i) map->Colors[i] = colourOf(i, isOwn);
        return map;
    };
    ColorMapObject* shared = mapOf(false);
    ColorMapObject* own = mapOf(true);
    EGifSetGifVersion(gif, true);
    EXPECT_EQ(EGifPutScreenDesc(gif, wide, high, 4, 7, shared), GIF_OK);
    int number = 0;
    for (const GifFrame& frame : frames) {
        EGifPutComment(gif, "a comment");
        if (frame.transparent != NO_TRANSPARENT_COLOR) {
            const GraphicsControlBlock control{0, false, 10, frame.transparent};
            GifByteType block[4];
            EGifGCBToExtension(&control, block);
            EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, 4, block);
        }
        // giflib loses the last frame's colours when the next one has none.
        if (!frame.hasOwnColours && gif->Image.ColorMap) {
            GifFreeMapObject(gif->Image.ColorMap);
            gif->Image.ColorMap = nullptr;
        }
        EXPECT_EQ(EGifPutImageDesc(gif, frame.left, frame.top, frame.wide, frame.high,
                                   frame.isInterlaced, frame.hasOwnColours ? own : nullptr),
                  GIF_OK);
        std::vector<int> order;
        const int first[] = {0, 4, 2, 1}, step[] = {8, 8, 4, 2};
        for (int pass = 0; pass < (frame.isInterlaced ? 4 : 1); ++pass) {
            for (int y = frame.isInterlaced ? first[pass] : 0; y < frame.high;
                 y += frame.isInterlaced ? step[pass] : 1)
                order.push_back(y);
        }
        for (const int y : order) {
            std::vector<GifPixelType> row;
            for (int x = 0; x < frame.wide; ++x) row.push_back(indexAt(x, y, number));
            EXPECT_EQ(EGifPutLine(gif, row.data(), frame.wide), GIF_OK);
        }
        ++number;
    }
    EGifCloseFile(gif, &error);
    GifFreeMapObject(shared);
    GifFreeMapObject(own);
    return file;
}

// The same file without the colours that its frames share.
Data withoutColours(Data file) {
    file[10] &= 0x7f;
    file.erase(file.begin() + 13, file.begin() + 13 + 3 * kColours);
    return file;
}

BitmapImageRep expectedOf(int wide, int high, const GifFrame& frame) {
    return pictureOf(static_cast<std::uint32_t>(wide), static_cast<std::uint32_t>(high),
                     [&](std::uint32_t across, std::uint32_t down) {
                         const int x = static_cast<int>(across) - frame.left;
                         const int y = static_cast<int>(down) - frame.top;
                         if (x < 0 || y < 0 || x >= frame.wide || y >= frame.high)
                             return Pixel{0, 0, 0, 0};
                         const int index = indexAt(x, y, 0);
                         if (index == frame.transparent) return Pixel{0, 0, 0, 0};
                         const GifColorType colour = colourOf(index, frame.hasOwnColours);
                         return Pixel{colour.Red, colour.Green, colour.Blue, 255};
                     });
}

TEST(GifReading, ShowsTheFirstFrameOnItsCanvas) {
    const std::vector<GifFrame> frames = {
        {},
        {.isInterlaced = true},
        {.hasOwnColours = true},
        {.transparent = 3},
        {.wide = 1, .high = 1},
        {.left = 5, .top = 7},
        {.left = 9, .top = 2, .wide = 20, .high = 9, .isInterlaced = true, .transparent = 15},
        {.wide = 23, .high = 1, .isInterlaced = true},
    };
    for (const GifFrame& frame : frames) {
        const Data file = fileOf(30, 25, {frame, {.left = 1, .wide = 4, .high = 4}});
        EXPECT_EQ(largestDifference(decoded(file), expectedOf(30, 25, frame)), 0);
    }
}

TEST(GifReading, MakesRoomForAFrameThatIsLargerThanItsCanvas) {
    const GifFrame frame{.left = 10, .top = 10};
    EXPECT_EQ(largestDifference(decoded(fileOf(12, 30, {frame})), expectedOf(33, 30, frame)), 0);
}

TEST(GifReading, RefusesWhatHasNothingToShow) {
    EXPECT_EQ(Image::initWithData(fileOf(30, 25, {})), nullptr);
    EXPECT_EQ(Image::initWithData(withoutColours(fileOf(30, 25, {{}}))), nullptr);
    EXPECT_NE(Image::initWithData(withoutColours(fileOf(30, 25, {{.hasOwnColours = true}}))),
              nullptr);
}

TEST(GifReading, RefusesALargeCanvasOfAFewBytes) {
    EXPECT_EQ(Image::initWithData(fileOf(14'000, 14'000, {{.wide = 1, .high = 1}})), nullptr);
    EXPECT_EQ(Image::initWithData(fileOf(65'535, 65'535, {{.wide = 1, .high = 1}})), nullptr);
    EXPECT_NE(Image::initWithData(fileOf(1000, 900, {{.wide = 1, .high = 1}})), nullptr);
}

}  // namespace
