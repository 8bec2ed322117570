#include <filesystem>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace fs = std::filesystem;

namespace {

class ImageExport : public testing::TestWithParam<NamedFileType> {
protected:
    BitmapImageFileType type() const { return GetParam().type; }
    fs::path path() const { return folder_.path() / "picture"; }
    CommonAuxiliary& auxiliary_ = CommonAuxiliary::sharedInstance();
    TemporaryFolder folder_;
};

INSTANTIATE_TEST_SUITE_P(All, ImageExport, testing::ValuesIn(allFileTypes()),
                         [](const auto& one) { return std::string(one.param.name); });

TEST_P(ImageExport, IsOfTheFirstRepresentation) {
    const auto image = Image::initWithBitmap(flag(20, 30));
    ASSERT_TRUE(image->addRepresentation(flag(60, 90)));
    const auto data = auxiliary_.dataForImage(image, type());
    ASSERT_TRUE(data);
    EXPECT_EQ(*data, encoded(flag(20, 30), type()));
}

TEST_P(ImageExport, IsSavedInPlace) {
    const auto image = Image::initWithBitmap(flag(20, 30));
    writeFile(path(), Data(100'000, 'x'));
    fs::create_hard_link(path(), folder_.path() / "same file");
    fs::permissions(path(), fs::perms(0640));
    ASSERT_TRUE(auxiliary_.saveImage(image, type(), path().string()));
    EXPECT_EQ(readFile(path()), encoded(flag(20, 30), type()));
    EXPECT_EQ(readFile(folder_.path() / "same file"), readFile(path()));
    EXPECT_EQ(fs::status(path()).permissions(), fs::perms(0640));
    EXPECT_EQ(readFile(path()), auxiliary_.dataForImage(image, type()));
}

TEST_P(ImageExport, OfNothingIsNothing) {
    const auto missing = Image::initByReferencingFile((folder_.path() / "missing").string());
    const TestLog log;
    EXPECT_EQ(auxiliary_.dataForImage(nullptr, type()), std::nullopt);
    EXPECT_FALSE(auxiliary_.saveImage(nullptr, type(), path().string()));
    EXPECT_EQ(auxiliary_.dataForImage(missing, type()), std::nullopt);
    EXPECT_FALSE(auxiliary_.saveImage(missing, type(), path().string()));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(exportedBitmap(nullptr, type()).error().description, "there is no image");
    EXPECT_EQ(exportedBitmap(missing, type()).error().description, "representation 0 of an image");
    EXPECT_FALSE(fs::exists(path()));
}

TEST_P(ImageExport, TellsItsProgress) {
    const auto image = Image::initWithBitmap(flag(1500, 1200));
    std::vector<double> told;
    const auto tell = [&told](double done) { return told.push_back(done), true; };
    ASSERT_TRUE(auxiliary_.dataForImage(image, type(), tell));
    ASSERT_GE(told.size(), 2u);
    EXPECT_EQ(told.front(), 0);
    EXPECT_EQ(told.back(), 1);
    EXPECT_EQ(std::adjacent_find(told.begin(), told.end(), std::greater_equal<>()), told.end());
}

TEST_P(ImageExport, EndsWhereverProgressSaysSo) {
    const auto image = Image::initWithBitmap(flag(1500, 1200));
    const TestLog log;
    for (int last = 1;; ++last) {
        int calls = 0;
        const auto countDown = [&](double) { return ++calls < last; };
        const bool isSaved = auxiliary_.saveImage(image, type(), path().string(), countDown);
        EXPECT_EQ(isSaved, fs::exists(path()));
        EXPECT_LE(calls, last);
        if (isSaved) {
            EXPECT_GE(last, 3);
            break;
        }
        EXPECT_EQ(calls, last) << "nothing is told after the end";
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_P(ImageExport, SaysWhyThereIsNone) {
    const auto codeOf = [](const Result<Data>& exported, UtiliaErrorCode code) {
        return !exported && exported.error().is(code);
    };
    const auto image = Image::initWithBitmap(flag(8, 8));
    const auto missing = Image::initByReferencingFile((folder_.path() / "missing").string());
    const auto end = [](double) { return false; };
    EXPECT_EQ(exportedBitmap(image, type()).value(), auxiliary_.dataForImage(image, type()));
    EXPECT_TRUE(codeOf(exportedBitmap(nullptr, type()), UtiliaErrorCode::Refused));
    EXPECT_TRUE(codeOf(exportedBitmap(missing, type()), UtiliaErrorCode::NotFound));
    EXPECT_TRUE(codeOf(exportedBitmap(image, type(), end), UtiliaErrorCode::Cancelled));
    EXPECT_EQ(exportedPDF(image, 0).value(), auxiliary_.dataForImageAsPDF(image, 0));
    EXPECT_TRUE(codeOf(exportedPDF(nullptr, 0), UtiliaErrorCode::Refused));
    EXPECT_TRUE(codeOf(exportedPDF(missing, 0), UtiliaErrorCode::NotFound));
    EXPECT_TRUE(codeOf(exportedPDF(image, 0, end), UtiliaErrorCode::Cancelled));
}

TEST_P(ImageExport, EndsWhenProgressThrows) {
    const auto image = Image::initWithBitmap(flag(8, 8));
    const auto fail = [](double) -> bool { throw std::runtime_error("of the caller"); };
    EXPECT_EQ(auxiliary_.dataForImage(image, type(), fail), std::nullopt);
}

TEST_P(ImageExport, LeavesAnExistingFileAloneWhenThereIsNothingToWrite) {
    writeFile(path(), {1, 2, 3});
    const TestLog log;
    const auto missing = Image::initByReferencingFile((folder_.path() / "missing").string());
    EXPECT_FALSE(auxiliary_.saveImage(missing, type(), path().string()));
    const auto image = Image::initWithBitmap(flag(8, 8));
    EXPECT_FALSE(
        auxiliary_.saveImage(image, type(), path().string(), [](double) { return false; }));
    EXPECT_EQ(readFile(path()), (Data{1, 2, 3}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_P(ImageExport, AnswersNoWhenAFileCannotBeWritten) {
    const auto image = Image::initWithBitmap(flag(8, 8));
    const std::string nowhere = (folder_.path() / "missing" / "picture").string();
    const TestLog log;
    EXPECT_FALSE(auxiliary_.saveImage(image, type(), nowhere));
    EXPECT_FALSE(auxiliary_.saveImage(image, type(), folder_.path().string()));
    EXPECT_TRUE(log.lines().empty());
    const auto exported = exportedBitmap(image, type());
    ASSERT_TRUE(exported);
    EXPECT_EQ(FileManager::writeToFile(nowhere, *exported).error().description,
              "open " + nowhere + ": No such file or directory");
    EXPECT_EQ(FileManager::writeToFile(folder_.path().string(), *exported).error().description,
              "open " + folder_.path().string() + ": Is a directory");
}

UTILIA_CHILD_ROLE(saveWithLittleRoom) {
    // Files of this process end after a few bytes, as if the disk were full.
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{100, 100};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    const TestLog log;
    const auto type = static_cast<BitmapImageFileType>(std::stoi(self.arguments.at(1)));
    const bool isSaved = CommonAuxiliary::sharedInstance().saveImage(
        Image::initWithBitmap(noise(64, 64)), type, self.arguments.at(0));
    return isSaved || !log.lines().empty() ? 1 : 0;
}

TEST_P(ImageExport, LeavesNoHalfFileThatWasNotThere) {
    const std::string number = std::to_string(static_cast<unsigned>(type()));
    auto child = ChildProcess::role("saveWithLittleRoom", {path().string(), number});
    EXPECT_EQ(child.waitForExit(), 0);
    EXPECT_FALSE(fs::exists(path()));
    writeFile(path(), Data(1000, 'x'));
    auto again = ChildProcess::role("saveWithLittleRoom", {path().string(), number});
    EXPECT_EQ(again.waitForExit(), 0);
    EXPECT_TRUE(fs::exists(path())) << "one that was there is not removed";
}

TEST(ImageExportLimits, RefuseWhatAFormatCannotHold) {
    const auto long_ = Image::initWithBitmap(flag(3, 65'501));
    const auto longer = Image::initWithBitmap(flag(65'536, 2));
    const TestLog log;
    auto& auxiliary = CommonAuxiliary::sharedInstance();
    EXPECT_EQ(auxiliary.dataForImage(long_, BitmapImageFileType::Jpeg), std::nullopt);
    EXPECT_TRUE(auxiliary.dataForImage(long_, BitmapImageFileType::Gif));
    EXPECT_EQ(auxiliary.dataForImage(longer, BitmapImageFileType::Gif), std::nullopt);
    EXPECT_EQ(auxiliary.dataForImage(longer, static_cast<BitmapImageFileType>(6)), std::nullopt);
    EXPECT_TRUE(log.lines().empty());
    const auto reason = [](const auto& image, BitmapImageFileType type) {
        return exportedBitmap(image, type).error().description;
    };
    EXPECT_EQ(reason(long_, BitmapImageFileType::Jpeg),
              "encode image: JPEG holds at most 65,500 pixels a side");
    EXPECT_EQ(reason(longer, BitmapImageFileType::Gif),
              "encode image: GIF holds at most 65,535 pixels a side");
    EXPECT_EQ(reason(longer, static_cast<BitmapImageFileType>(6)),
              "encode image: no such file type");
    for (const auto type : {BitmapImageFileType::Tiff, BitmapImageFileType::Bmp,
                            BitmapImageFileType::Png, BitmapImageFileType::Jpeg2000}) {
        const auto data = auxiliary.dataForImage(Image::initWithBitmap(flag(2, 100'000)), type);
        ASSERT_TRUE(data);
        EXPECT_EQ(largestDifference(decoded(*data), flag(2, 100'000)), 0);
    }
}

TEST(ImageExportTransparency, LiesOnWhiteInJpeg) {
    BitmapImageRep picture{16, 16, {}};
    for (int i = 0; i < 256; ++i) picture.rgba.insert(picture.rgba.end(), {0, 0, 200, 0});
    BitmapImageRep half = picture;
    for (std::size_t i = 3; i < half.rgba.size(); i += 4) half.rgba[i] = 128;
    const auto white = decoded(encoded(picture, BitmapImageFileType::Jpeg));
    const auto pale = decoded(encoded(half, BitmapImageFileType::Jpeg));
    for (std::size_t i = 0; i < white.rgba.size(); ++i) ASSERT_NEAR(white.rgba[i], 255, 1);
    const int expected[4] = {127, 127, 227, 255};
    for (std::size_t i = 0; i < pale.rgba.size(); ++i)
        ASSERT_NEAR(pale.rgba[i], expected[i % 4], 2);
}

TEST(ImageExportTransparency, IsAllOrNothingInGif) {
    BitmapImageRep picture{4, 1, {9, 8, 7, 0, 10, 20, 30, 127, 40, 50, 60, 128, 70, 80, 90, 255}};
    EXPECT_EQ(decoded(encoded(picture, BitmapImageFileType::Gif)).rgba,
              (Data{0, 0, 0, 0, 0, 0, 0, 0, 40, 50, 60, 255, 70, 80, 90, 255}));
}

TEST(ImageExportColours, OfGifAreExactUpTo256) {
    for (const unsigned colours : {1u, 2u, 3u, 255u, 256u}) {
        BitmapImageRep picture{colours, 1, {}};
        for (unsigned i = 0; i < colours; ++i) {
            picture.rgba.insert(picture.rgba.end(), {static_cast<std::uint8_t>(i),
                                                     static_cast<std::uint8_t>(255 - i), 7, 255});
        }
        EXPECT_EQ(largestDifference(decoded(encoded(picture, BitmapImageFileType::Gif)), picture),
                  0)
            << colours;
        // One more, and one of them transparent.
        picture.pixelsWide = colours + 1;
        picture.rgba.insert(picture.rgba.end(), {0, 0, 0, 0});
        const int difference =
            largestDifference(decoded(encoded(picture, BitmapImageFileType::Gif)), picture);
        EXPECT_EQ(difference == 0, colours < 256) << colours;
        EXPECT_LT(difference, 16) << colours;
    }
}

TEST(ImageTemplateFlag, IsInNoFile) {
    const auto image = Image::initWithBitmap(flag(8, 8));
    image->setTemplate(true);
    for (const NamedFileType& one : allFileTypes()) {
        const auto data = CommonAuxiliary::sharedInstance().dataForImage(image, one.type);
        ASSERT_TRUE(data) << one.name;
        EXPECT_FALSE(Image::initWithData(*data)->isTemplate()) << one.name;
    }
}

TEST(Watermark, IsAPictureInThreeSizes) {
    const auto image = CommonAuxiliary::sharedInstance().watermarkImage();
    ASSERT_NE(image, nullptr);
    ASSERT_EQ(image->representationCount(), 3u);
    EXPECT_FALSE(image->isTemplate());
    const auto first = image->representation(0);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->pixelsWide, 248u);
    EXPECT_EQ(first->pixelsHigh, 84u);
    for (std::size_t i = 0; i < 3; ++i) {
        const auto size = image->representation(i);
        ASSERT_TRUE(size);
        EXPECT_EQ(size->pixelsWide, first->pixelsWide * (i + 1));
        EXPECT_EQ(size->pixelsHigh, first->pixelsHigh * (i + 1));
        // White strokes, their dark edge, and nothing around them.
        std::size_t white = 0, dark = 0, clear = 0;
        for (std::size_t p = 0; p < size->rgba.size(); p += 4) {
            const bool isVisible = size->rgba[p + 3] > 60;
            white += isVisible && size->rgba[p] > 220;
            dark += isVisible && size->rgba[p] < 60;
            clear += size->rgba[p + 3] == 0;
        }
        const std::size_t pixels = size->rgba.size() / 4;
        EXPECT_GT(white, pixels / 20);
        EXPECT_GT(dark, pixels / 50);
        EXPECT_GT(clear, pixels / 4);
        EXPECT_EQ(size->rgba[3], 0) << "the corner";
    }
}

}  // namespace
