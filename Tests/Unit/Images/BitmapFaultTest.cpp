#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

class BitmapFaults : public testing::TestWithParam<NamedFileType> {
protected:
    static BitmapImageRep picture() { return noise(13, 11); }
    TestLog log_;
};

// Not those whose libraries do not check themselves: libtiff goes on without the tag that it found no
// memory for, and OpenJPEG uses what it did not get.
std::vector<NamedFileType> checkedTypes() {
    std::vector<NamedFileType> types = allFileTypes();
    std::erase_if(types, [](const NamedFileType& one) {
        return one.type == BitmapImageFileType::Tiff || one.type == BitmapImageFileType::Jpeg2000;
    });
    return types;
}

INSTANTIATE_TEST_SUITE_P(All, BitmapFaults, testing::ValuesIn(checkedTypes()),
                         [](const auto& one) { return std::string(one.param.name); });

TEST_P(BitmapFaults, OfMemoryMakeNoImageWhileItIsRead) {
    const Data file = encoded(picture(), GetParam().type);
    const BitmapImageRep expected = decoded(file);
    std::shared_ptr<const BitmapImageRep> read;
    const std::size_t runs = forEachFault(
        memoryFaults(),
        [&] {
            read.reset();
            const auto image = Image::initWithData(file);
            if (!image) return;
            const auto bitmap = image->bitmap(0);
            if (bitmap) read = *bitmap;
        },
        [&](const FaultRun&) {
            if (read) {
                EXPECT_EQ(largestDifference(*read, expected), 0);
            }
        });
    EXPECT_EQ(runs > 0, !memoryFaults().empty());
}

TEST_P(BitmapFaults, OfMemoryMakeNoFileWhileItIsWritten) {
    const auto image = Image::initWithBitmap(picture());
    const Data expected = encoded(picture(), GetParam().type);
    std::optional<Data> written;
    const std::size_t runs = forEachFault(
        memoryFaults(),
        [&] { written = CommonAuxiliary::sharedInstance().dataForImage(image, GetParam().type); },
        [&](const FaultRun&) {
            if (written) {
                EXPECT_TRUE(*written == expected);
            }
        });
    EXPECT_EQ(runs > 0, !memoryFaults().empty());
}

// The test's own copy, which may not fit either.
std::optional<BitmapImageRep> copyOf(const BitmapImageRep& bitmap) {
    try {
        return bitmap;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

TEST(ImageFaults, OfMemoryLeaveNoFunctionAsAnException) {
    const TestLog log;
    const TemporaryFolder folder;
    const std::string path = (folder.path() / "picture.bmp").string();
    writeFile(path, encoded(flag(9, 8), BitmapImageFileType::Bmp));
    const BitmapImageRep picture = flag(7, 6);
    bool hasThrown = false;
    std::size_t valid = 0;
    const auto use = [&](Image& image) {
        valid += image.isValid();
        valid += image.pixelsWide() + image.pixelsHigh();
        valid += image.representation(0).has_value();
        valid += image.bitmap(0).has_value();
        valid += image.CGImage().has_value();
        if (auto more = copyOf(picture)) valid += image.addRepresentation(*std::move(more));
        valid += image.TIFFRepresentation().has_value();
        valid += image.representationUsingType(0, BitmapImageFileType::Bmp).has_value();
    };
    const std::size_t runs = forEachFault(
        memoryFaults(),
        [&] {
            try {
                if (const auto image = Image::initByReferencingFile(path)) use(*image);
                if (const auto image = Image::imageWithContentsOfFile(path)) use(**image);
                if (auto drawn = copyOf(picture)) {
                    if (const auto image = Image::initWithBitmap(*std::move(drawn))) use(*image);
                }
            } catch (...) {
                hasThrown = true;
            }
        },
        [&](const FaultRun& run) {
            EXPECT_FALSE(hasThrown);
            hasThrown = false;
            static_cast<void>(run);
        });
    EXPECT_EQ(runs > 0, !memoryFaults().empty());
    EXPECT_GT(valid, 0u);
}

}  // namespace
