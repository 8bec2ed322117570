#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/SamplePictures.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

// What must hold for every answer about bytes that nobody vouches for.
bool expectSoundAnswer(const Data& bytes) {
    const auto image = Image::initWithData(bytes);
    if (!image) return false;
    EXPECT_TRUE(image->isValid());
    EXPECT_EQ(image->representationCount(), 1u);
    const auto bitmap = image->bitmap(0);
    EXPECT_TRUE(bitmap);
    if (!bitmap) return false;
    EXPECT_EQ((*bitmap)->rgba.size(),
              std::size_t{(*bitmap)->pixelsWide} * (*bitmap)->pixelsHigh * 4);
    return true;
}

std::vector<NamedFileType> typesOfTheModule() {
    std::vector<NamedFileType> types = allFileTypes();
    types.erase(types.begin());  // TIFF has tests of its own
    return types;
}

BitmapImageRep small() {
    BitmapImageRep bitmap = flag(11, 9);
    bitmap.colourProfile = sampleProfile();
    return bitmap;
}

// Where the first picture of a file ends; what follows need not be there.
std::size_t neededSize(const Data& file, BitmapImageFileType type) {
    switch (type) {
    case BitmapImageFileType::Gif:
        return file.size() - 1;  // the trailer
    case BitmapImageFileType::Bmp:
        return file.size() - small().colourProfile.size();  // stands behind the pixels
    default:
        return file.size();
    }
}

UTILIA_CHILD_ROLE(readDamagedBitmaps) {
    for (const NamedFileType& one : typesOfTheModule()) {
        SCOPED_TRACE(one.name);
        const Data whole = encoded(small(), one.type);
        for (std::size_t length = 0; length < whole.size(); ++length) {
            const Data cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
            EXPECT_EQ(expectSoundAnswer(cut), length >= neededSize(whole, one.type)) << length;
        }
        for (std::size_t i = 0; i < whole.size(); ++i) {
            for (const int change : {0x01, 0x10, 0x80, 0xff}) {
                Data damaged = whole;
                damaged[i] = static_cast<std::uint8_t>(damaged[i] ^ change);
                expectSoundAnswer(damaged);
            }
        }
        // Pieces of the file at other places.
        std::mt19937 random(99);
        for (int i = 0; i < 300; ++i) {
            Data mixed = whole;
            const auto place = [&] { return random() % whole.size(); };
            const std::size_t from = place(), to = place();
            const std::size_t count = std::min(whole.size() - std::max(from, to), place());
            std::copy_n(whole.begin() + static_cast<std::ptrdiff_t>(from), count,
                        mixed.begin() + static_cast<std::ptrdiff_t>(to));
            expectSoundAnswer(mixed);
        }
    }
    return testing::Test::HasFailure() ? 1 : 0;
}

TEST(BitmapDamage, IsSurvivedWithoutAWordOnStandardError) {
    const TemporaryFolder folder;
    ChildProcess::Options options;
    options.standardError = (folder.path() / "stderr").string();
    auto child = ChildProcess::role("readDamagedBitmaps", {}, options);
    EXPECT_EQ(child.waitForExit(std::chrono::seconds(300)), 0);
    const Data errors = readFile(options.standardError);
    EXPECT_EQ(std::string(errors.begin(), errors.end()), "");
}

// Small files that claim to be worth a lot.

void putNumber(Data& file, std::size_t at, std::uint32_t number) {
    for (std::size_t i = 0; i < 4; ++i)
        file.at(at + i) = static_cast<std::uint8_t>(number >> (24 - 8 * i));
}

Data pngWithSides(std::uint32_t wide, std::uint32_t high) {
    Data file = encoded(flag(11, 9), BitmapImageFileType::Png);
    putNumber(file, 16, wide);
    putNumber(file, 20, high);
    putNumber(file, 29, static_cast<std::uint32_t>(crc32(0, file.data() + 12, 17)));
    return file;
}

Data jpegWithSides(std::uint16_t wide, std::uint16_t high, bool isProgressive) {
    Data file = encoded(flag(11, 9), BitmapImageFileType::Jpeg);
    std::size_t at = 2;
    while (file.at(at + 1) != 0xc0) {
        at += std::size_t{2} + file.at(at + 2) * std::size_t{256} + file.at(at + 3);
    }
    if (isProgressive) file[at + 1] = 0xc2;
    for (const auto& [place, side] : {std::pair(5, high), std::pair(7, wide)}) {
        file[at + static_cast<std::size_t>(place)] = static_cast<std::uint8_t>(side >> 8);
        file[at + static_cast<std::size_t>(place) + 1] = static_cast<std::uint8_t>(side);
    }
    return file;
}

Data gifWithSides(std::uint16_t wide, std::uint16_t high) {
    Data file = encoded(flag(11, 9), BitmapImageFileType::Gif);
    const std::string text(file.begin(), file.end());
    // The canvas, and the frame behind the sign ",".
    const std::size_t frame = 13 + 3u * (2u << (file[10] & 7)) + 8;
    EXPECT_EQ(text.at(frame), ',');
    for (const std::size_t place : {std::size_t{6}, frame + 5}) {
        file[place] = static_cast<std::uint8_t>(wide);
        file[place + 1] = static_cast<std::uint8_t>(wide >> 8);
        file[place + 2] = static_cast<std::uint8_t>(high);
        file[place + 3] = static_cast<std::uint8_t>(high >> 8);
    }
    return file;
}

Data bmpWithSides(std::uint32_t wide, std::uint32_t high, std::uint8_t packing) {
    Data file = encoded(opaqueNoise(11, 9), BitmapImageFileType::Bmp);
    const auto put = [&file](std::size_t at, std::uint32_t number) {
        for (std::size_t i = 0; i < 4; ++i)
            file.at(at + i) = static_cast<std::uint8_t>(number >> (8 * i));
    };
    put(18, wide);
    put(22, high);
    if (packing) file[28] = packing == 1 ? 8 : 4;
    file[30] = packing;
    return file;
}

// With one tile of the picture's size, or many small ones.
Data jpeg2000WithSides(std::uint32_t wide, std::uint32_t high, std::uint32_t tile, bool isFile) {
    Data file = encoded(flag(11, 9), BitmapImageFileType::Jpeg2000);
    const std::string text(file.begin(), file.end());
    const std::size_t size = text.find("\xff\x4f\xff\x51") + 2;
    const std::size_t header = text.find("ihdr");
    putNumber(file, header + 4, high);
    putNumber(file, header + 8, wide);
    putNumber(file, size + 6, wide);
    putNumber(file, size + 10, high);
    putNumber(file, size + 22, tile);
    putNumber(file, size + 26, tile);
    if (!isFile) file.erase(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(size - 2));
    return file;
}

std::vector<std::pair<std::string, Data>> hostileBitmaps() {
    std::vector<std::pair<std::string, Data>> files;
    const std::vector<std::pair<std::uint32_t, std::uint32_t>> sides = {
        {0xffffffff, 0xffffffff}, {0x7fffffff, 0x7fffffff}, {1, 0xffffffff}, {0xffffffff, 1},
        {1'000'000, 200},         {14'000, 14'000},         {0, 5},          {5, 0},
        {65'535, 65'535},         {65'535, 3'000},
    };
    for (const auto& [wide, high] : sides) {
        const std::string name = std::to_string(wide) + " x " + std::to_string(high);
        files.emplace_back("PNG " + name, pngWithSides(wide, high));
        // To a BMP file, what is negative counts rows from the top.
        const std::uint32_t bmpHigh = std::min(high, 0x7fffffffu);
        for (const std::uint8_t packing : std::initializer_list<std::uint8_t>{0, 1, 2})
            files.emplace_back("BMP " + name, bmpWithSides(wide, bmpHigh, packing));
        for (const bool isFile : {false, true}) {
            files.emplace_back("JPEG 2000 " + name, jpeg2000WithSides(wide, high, 1 << 30, isFile));
            files.emplace_back("JPEG 2000 tiles " + name, jpeg2000WithSides(wide, high, 1, isFile));
        }
        if (wide > 65'535 || high > 65'535) continue;
        const auto shortWide = static_cast<std::uint16_t>(wide);
        const auto shortHigh = static_cast<std::uint16_t>(high);
        files.emplace_back("GIF " + name, gifWithSides(shortWide, shortHigh));
        for (const bool isProgressive : {false, true})
            files.emplace_back("JPEG " + name, jpegWithSides(shortWide, shortHigh, isProgressive));
    }
    // As many channels as there may be.
    Data channels = jpeg2000WithSides(11, 9, 11, false);
    channels[40] = 0x40;
    channels[41] = 0;
    channels.insert(channels.begin() + 42, 3 * (0x4000 - 4), 7);
    files.emplace_back("JPEG 2000 of channels", channels);
    // As many tiles as there may be, each of which would take kilobytes.
    for (const bool isFile : {false, true})
        files.emplace_back("JPEG 2000 of tiles", jpeg2000WithSides(255, 256, 1, isFile));
    return files;
}

TEST(HostileBitmaps, AreNoImages) {
    for (const auto& [name, file] : hostileBitmaps())
        EXPECT_EQ(Image::initWithData(file), nullptr) << name;
}

// A PNG file of `rows` rows of zeros, packed as tightly as can be.
Data emptyPng(std::uint32_t wide, std::uint32_t high) {
    BitmapImageRep blank{wide, high, Data(std::size_t{wide} * high * 4, 255)};
    return encoded(blank, BitmapImageFileType::Png);
}

long peakKilobytes() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        long value = 0;
        if (word == "VmHWM:" && status >> value) return value;
    }
    return -1;
}

UTILIA_CHILD_ROLE(measureHostileBitmaps) {
    const auto files = hostileBitmaps();
    for (const NamedFileType& one : allFileTypes())
        static_cast<void>(Image::initWithData(encoded(flag(11, 9), one.type)));  // all is loaded
    const long before = peakKilobytes();
    for (const auto& [name, file] : files) static_cast<void>(Image::initWithData(file));
    self.say(std::to_string(peakKilobytes() - before));
    return 0;
}

TEST(HostileBitmaps, TakeNoMemory) {
    auto child = ChildProcess::role("measureHostileBitmaps");
    const auto kilobytes = child.waitForLine(std::chrono::seconds(120));
    ASSERT_TRUE(kilobytes);
    EXPECT_LT(std::stol(*kilobytes), 64 << 10);
    EXPECT_EQ(child.waitForExit(), 0);
}

// How much the peak grows when a file of a format with 4 megapixels is read, or is written.
UTILIA_CHILD_ROLE(measureBitmap) {
    const auto type = static_cast<BitmapImageFileType>(std::stoi(self.arguments.at(0)));
    const bool isRead = self.arguments.at(1) == "read";
    static_cast<void>(Image::initWithData(encoded(flag(11, 9), type)));
    BitmapImageRep bitmap = flag(2000, 2000);
    Data file;
    if (isRead) {
        file = readFile(self.arguments.at(2));
        bitmap = {};
    }
    const auto image = Image::initWithBitmap(std::move(bitmap));
    // What was freed so far must not hide what follows.
    std::ofstream("/proc/self/clear_refs") << "5";
    const long before = peakKilobytes();
    std::size_t size = 0;
    if (isRead) {
        const auto read = Image::initWithData(file);
        size = read ? read->pixelsWide() : 0;
    } else {
        size = image->representationUsingType(0, type).value_or(Data()).size();
    }
    self.say(std::to_string(peakKilobytes() - before));
    self.say(std::to_string(size));
    return 0;
}

std::pair<long, long> measured(BitmapImageFileType type, const char* what,
                               const std::string& path = "") {
    auto child = ChildProcess::role("measureBitmap",
                                    {std::to_string(static_cast<unsigned>(type)), what, path});
    const auto kilobytes = child.waitForLine(std::chrono::seconds(120));
    const auto size = child.waitForLine();
    EXPECT_EQ(child.waitForExit(), 0);
    return {kilobytes ? std::stol(*kilobytes) : -1, size ? std::stol(*size) : -1};
}

// Sanitizers take more.
#ifdef UTILIA_MEASURE_MEMORY
constexpr bool kMeasuresMemory = true;
#else
constexpr bool kMeasuresMemory = false;
#endif

TEST(BitmapMemory, IsWhatTheDocumentationSays) {
    constexpr long kPixels = 2000 * 2000;
    constexpr long kPixelKilobytes = kPixels * 4 / 1024;
    const TemporaryFolder folder;
    const std::string path = (folder.path() / "file").string();
    for (const NamedFileType& one : typesOfTheModule()) {
        SCOPED_TRACE(one.name);
        writeFile(path, encoded(flag(2000, 2000), one.type));
        const auto [readKilobytes, side] = measured(one.type, "read", path);
        EXPECT_EQ(side, 2000);
        EXPECT_GE(readKilobytes, kPixelKilobytes * 9 / 10) << "the measure sees nothing";
        const bool hasTiles = one.type == BitmapImageFileType::Jpeg2000;
        if (kMeasuresMemory) {
            EXPECT_LE(readKilobytes, kPixelKilobytes + (hasTiles ? 48 << 10 : 4 << 10));
        }
        const auto [writtenKilobytes, size] = measured(one.type, "write");
        EXPECT_GT(size, 0);
        if (kMeasuresMemory) {
            EXPECT_LE(writtenKilobytes, 3 * size / 1024 + (hasTiles ? 48 << 10 : 8 << 10));
        }
    }
}

TEST(BitmapMemory, OfWhatPacksTooWellIsThatOfTheFile) {
    // Deflate packs rows of one colour a thousand to one, and that is worth reading.
    const Data file = emptyPng(4000, 3000);
    EXPECT_LT(file.size(), 60'000u);
    const auto image = Image::initWithData(file);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->pixelsWide(), 4000u);
}

}  // namespace
