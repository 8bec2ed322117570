// Hostile files are no images, and finding that out takes neither long nor much memory. Small
// pictures of every format that are damaged anywhere are one, or none.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Common/Platform/Image.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/SamplePictures.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Images/HostileFiles.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

// What refusing a small file may take (Documentation/Images.md), in KiB.
constexpr std::uint64_t kMostMemory = 64 * 1024;
#ifdef UTILIA_MEASURE_MEMORY
constexpr bool kIsMemoryMeasured = true;
#else
constexpr bool kIsMemoryMeasured = false;
#endif
// A file that keeps its reader busy longer than this has won. Sanitizers take their time.
constexpr rlim_t kMostSeconds = 20;

std::uint64_t kibibytes(const char* key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key)) return std::stoull(line.substr(std::string(key).size()));
    }
    return 0;
}

// Opens the file, and everything in it. Says what it is, and how much more memory there was than
// before.
UTILIA_CHILD_ROLE(openHostileFile) {
    const TestLog log;
    for (const auto type : {BitmapImageFileType::Png, BitmapImageFileType::Tiff}) {
        const auto picture = Image::initWithBitmap(gradientPicture(4, 4));
        static_cast<void>(Image::initWithData(*picture->representationUsingType(0, type)));
    }
    std::ifstream file(self.arguments.at(0), std::ios::binary);
    const Data bytes{std::istreambuf_iterator<char>(file), {}};
    const rlimit seconds{kMostSeconds, kMostSeconds};
    if (setrlimit(RLIMIT_CPU, &seconds) != 0) return 2;
    std::ofstream("/proc/self/clear_refs") << 5;  // forgets the peak
    const std::uint64_t before = kibibytes("VmRSS:");
    const auto image = Image::initWithData(bytes);
    std::size_t pixels = 0;
    for (std::size_t i = 0; image && i < image->representationCount(); ++i) {
        if (const auto bitmap = image->bitmap(i)) pixels += (*bitmap)->rgba.size() / 4;
    }
    const std::uint64_t most = kibibytes("VmHWM:");
    self.say(image ? "an image of " + std::to_string(pixels) + " pixels" : "no image");
    self.say(std::to_string(most > before ? most - before : 0));
    return 0;
}

struct Opened {
    std::string what;
    std::uint64_t memory = 0;    // in KiB
    std::uint64_t fileSize = 0;  // in bytes
};

Opened open(const HostileFile& file) {
    const TemporaryFolder folder;
    const std::string path = folder.path() / "file";
    const FileBytes bytes = file.bytes();
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    auto child = ChildProcess::role("openHostileFile", {path});
    constexpr auto kPatience = std::chrono::seconds(120);
    Opened opened;
    opened.fileSize = bytes.size();
    opened.what = child.waitForLine(kPatience).value_or("died, or took too long");
    opened.memory = std::stoull(child.waitForLine(kPatience).value_or("0"));
    EXPECT_EQ(child.waitForExit(kPatience), 0) << file.name;
    return opened;
}

class HostileFiles : public testing::TestWithParam<HostileFile> {};

TEST_P(HostileFiles, AreNoImages) {
    const Opened opened = open(GetParam());
    EXPECT_EQ(opened.what, "no image");
    if (kIsMemoryMeasured) {
        EXPECT_LE(opened.memory, kMostMemory);
    }
}

INSTANTIATE_TEST_SUITE_P(Png, HostileFiles, testing::ValuesIn(hostilePngs()));
INSTANTIATE_TEST_SUITE_P(Jpeg, HostileFiles, testing::ValuesIn(hostileJpegs()));
INSTANTIATE_TEST_SUITE_P(Gif, HostileFiles, testing::ValuesIn(hostileGifs()));
INSTANTIATE_TEST_SUITE_P(Bmp, HostileFiles, testing::ValuesIn(hostileBmps()));
INSTANTIATE_TEST_SUITE_P(Jpeg2000, HostileFiles, testing::ValuesIn(hostileJpeg2000s()));
INSTANTIATE_TEST_SUITE_P(Tiff, HostileFiles, testing::ValuesIn(hostileTiffs()));

class OddFiles : public testing::TestWithParam<HostileFile> {};

TEST_P(OddFiles, TakeNoMoreThanTheyAreWorth) {
    const Opened opened = open(GetParam());
    const std::vector<std::string> small = {"no image", "an image of 16 pixels",
                                            "an image of 64 pixels", "an image of 100 pixels"};
    EXPECT_THAT(small, testing::Contains(opened.what));
    if (kIsMemoryMeasured) {
        EXPECT_LE(opened.memory, kMostMemory + opened.fileSize / 1024 * 3);
    }
}

INSTANTIATE_TEST_SUITE_P(All, OddFiles, testing::ValuesIn(oddFiles()));

class DamagedFiles : public testing::TestWithParam<BitmapImageFileType> {
protected:
    static Data sample(const BitmapImageRep& picture) {
        return Image::initWithBitmap(picture)->representationUsingType(0, GetParam()).value();
    }

    // Whatever the bytes are, an answer; and pixels that fit what it says about them.
    static void look(const Data& bytes) {
        const auto image = Image::initWithData(bytes);
        if (!image) return;
        ASSERT_GE(image->representationCount(), 1u);
        for (std::size_t i = 0; i < image->representationCount(); ++i) {
            const auto bitmap = image->bitmap(i);
            if (!bitmap) continue;
            ASSERT_EQ((*bitmap)->rgba.size(),
                      std::size_t{(*bitmap)->pixelsWide} * (*bitmap)->pixelsHigh * 4);
        }
    }

    const TestLog log_;
};

TEST_P(DamagedFiles, AreAnImageOrNoneWhicheverBitIsWrong) {
    const Data file = sample(gradientPicture(9, 7, false));
    const std::size_t step = std::max<std::size_t>(1, file.size() / 600);
    for (std::size_t at = 0; at < file.size(); at += step) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            Data damaged = file;
            damaged[at] = static_cast<std::uint8_t>(damaged[at] ^ (1u << bit));
            look(damaged);
        }
    }
}

TEST_P(DamagedFiles, AreAnImageOrNoneWhicheverBytesAreExtreme) {
    const Data file = sample(gradientPicture(9, 7));
    const std::size_t first = std::min<std::size_t>(file.size(), 300);
    for (std::size_t at = 0; at < first; ++at) {
        for (const int value : {0x00, 0x7f, 0x80, 0xff}) {
            for (const std::size_t count : {std::size_t{1}, std::size_t{2}, std::size_t{4}}) {
                Data damaged = file;
                std::fill_n(damaged.begin() + static_cast<std::ptrdiff_t>(at),
                            std::min(count, file.size() - at), static_cast<std::uint8_t>(value));
                look(damaged);
            }
        }
    }
}

TEST_P(DamagedFiles, AreNoImageWhereTheyAreCutOffInTheirPixels) {
    const Data file = sample(noisyPicture(40, 40));
    ASSERT_NE(Image::initWithData(file), nullptr);
    for (std::size_t size = 0; size < file.size() * 9 / 10; size += 1 + file.size() / 100) {
        const Data part(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(size));
        const auto image = Image::initWithData(part);
        EXPECT_TRUE(!image || !image->representation(0)) << "of " << size;
    }
}

INSTANTIATE_TEST_SUITE_P(All, DamagedFiles,
                         testing::Values(BitmapImageFileType::Tiff, BitmapImageFileType::Bmp,
                                         BitmapImageFileType::Gif, BitmapImageFileType::Jpeg,
                                         BitmapImageFileType::Png, BitmapImageFileType::Jpeg2000));

}  // namespace
