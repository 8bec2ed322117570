#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Common/Platform/Image.h"
#include "Tests/Support/TemporaryHome.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

Data icon() { return Image::initWithBitmap({2, 3, Data(24, 0x7f)})->TIFFRepresentation().value(); }

class ImageFile : public testing::Test {
protected:
    std::string path() const { return (folder_.path() / "icon.tiff").string(); }
    void write(const Data& bytes) const {
        std::ofstream(path(), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }

private:
    TemporaryFolder folder_;
};

TEST_F(ImageFile, IsOpenedWhenItsContentIsAskedFor) {
    const auto image = Image::initByReferencingFile(path());
    ASSERT_NE(image, nullptr);
    write(icon());
    EXPECT_TRUE(image->isValid());
    EXPECT_EQ(image->pixelsWide(), 2u);
    EXPECT_EQ(image->pixelsHigh(), 3u);
}

TEST_F(ImageFile, IsReadOnce) {
    write(icon());
    const auto image = Image::initByReferencingFile(path());
    EXPECT_EQ(image->representationCount(), 1u);
    std::filesystem::remove(path());
    EXPECT_EQ(image->TIFFRepresentation(), icon());
    EXPECT_EQ(image->representation(0)->rgba, Data(24, 0x7f));
}

TEST_F(ImageFile, EachQuestionIsEnoughToOpenIt) {
    write(icon());
    const auto image = [this] { return Image::initByReferencingFile(path()); };
    EXPECT_TRUE(image()->isValid());
    EXPECT_EQ(image()->representationCount(), 1u);
    EXPECT_TRUE(image()->representation(0));
    EXPECT_EQ(image()->pixelsWide(), 2u);
    EXPECT_EQ(image()->pixelsHigh(), 3u);
    EXPECT_EQ(image()->TIFFRepresentation(), icon());
    const auto larger = image();
    EXPECT_TRUE(larger->addRepresentation({4, 4, Data(64)}));
    EXPECT_EQ(larger->representationCount(), 2u);
}

void expectNoContent(Image& image) {
    EXPECT_FALSE(image.isValid());
    EXPECT_EQ(image.representationCount(), 0u);
    EXPECT_FALSE(image.representation(0));
    EXPECT_EQ(image.pixelsWide(), 0u);
    EXPECT_EQ(image.pixelsHigh(), 0u);
    EXPECT_EQ(image.TIFFRepresentation(), std::nullopt);
}

TEST_F(ImageFile, ThatIsMissingIsAnImageWithoutContent) {
    expectNoContent(*Image::initByReferencingFile(path()));
    expectNoContent(*Image::initByReferencingFile(""));
}

TEST_F(ImageFile, ThatIsDamagedIsAnImageWithoutContent) {
    Data half = icon();
    half.resize(half.size() / 2);
    write(half);
    expectNoContent(*Image::initByReferencingFile(path()));
}

TEST_F(ImageFile, ThatIsNoFileIsAnImageWithoutContent) {
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    expectNoContent(*Image::initByReferencingFile(path()));
    std::filesystem::remove(path());
    std::filesystem::create_directory(path());
    expectNoContent(*Image::initByReferencingFile(path()));
}

TEST_F(ImageFile, ThatIsTooLargeIsAnImageWithoutContent) {
    write(icon());
    std::filesystem::resize_file(path(), 64u << 20);
    EXPECT_TRUE(Image::initByReferencingFile(path())->isValid());
    std::filesystem::resize_file(path(), kImageMaximumFileSize + 1);
    expectNoContent(*Image::initByReferencingFile(path()));
}

TEST_F(ImageFile, ThatCannotBeReadCanStillBeGivenPixels) {
    const auto image = Image::initByReferencingFile(path());
    EXPECT_FALSE(image->isValid());
    EXPECT_TRUE(image->addRepresentation({1, 1, {1, 2, 3, 4}}));
    EXPECT_TRUE(image->isValid());
    EXPECT_EQ(Image::initWithData(image->TIFFRepresentation().value())->representation(0)->rgba,
              (Data{1, 2, 3, 4}));
}

TEST(ImageName, EndingInTemplateSetsTheFlag) {
    const std::vector<std::pair<std::string, bool>> names = {
        {"/x/MenuTemplate.tiff", true},
        {"/x/MenuTemplate", true},
        {"Template.tiff", true},
        {"/x/Menu.tiff", false},
        {"/x/MenuTemplate2.tiff", false},
        {"/x/menutemplate.tiff", false},
        {"/Template/Menu.tiff", false},
        {"/x/MenuTemplate.tiff/", true},
        {"", false},
    };
    for (const auto& [path, isTemplate] : names) {
        EXPECT_EQ(Image::initByReferencingFile(path)->isTemplate(), isTemplate) << path;
    }
}

TEST(ImageName, IsNotPartOfTheData) {
    const auto image = Image::initWithBitmap({1, 1, Data(4)});
    EXPECT_FALSE(image->isTemplate());
    image->setTemplate(true);
    EXPECT_TRUE(image->isTemplate());
    EXPECT_FALSE(Image::initWithData(image->TIFFRepresentation().value())->isTemplate());
    image->setTemplate(false);
    EXPECT_FALSE(image->isTemplate());
}

}  // namespace
