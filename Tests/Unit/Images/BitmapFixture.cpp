#include "Tests/Unit/Images/BitmapFixture.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {

using namespace utilia::platform;

const std::vector<NamedFileType>& allFileTypes() {
    static const std::vector<NamedFileType> all = {
        {"tiff", BitmapImageFileType::Tiff}, {"bmp", BitmapImageFileType::Bmp},
        {"gif", BitmapImageFileType::Gif},   {"jpeg", BitmapImageFileType::Jpeg},
        {"png", BitmapImageFileType::Png},   {"jp2", BitmapImageFileType::Jpeg2000},
    };
    return all;
}

BitmapImageRep noise(std::uint32_t wide, std::uint32_t high) {
    BitmapImageRep bitmap{wide, high, Data(std::size_t{wide} * high * 4)};
    std::uint32_t state = 12345 + wide * 31 + high;
    for (std::uint8_t& byte : bitmap.rgba) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bitmap;
}

BitmapImageRep opaqueNoise(std::uint32_t wide, std::uint32_t high) {
    BitmapImageRep bitmap = noise(wide, high);
    for (std::size_t i = 3; i < bitmap.rgba.size(); i += 4) bitmap.rgba[i] = 255;
    return bitmap;
}

BitmapImageRep gradient(std::uint32_t wide, std::uint32_t high) {
    BitmapImageRep bitmap{wide, high, {}};
    bitmap.rgba.reserve(std::size_t{wide} * high * 4);
    for (std::uint32_t y = 0; y < high; ++y) {
        for (std::uint32_t x = 0; x < wide; ++x) {
            bitmap.rgba.push_back(static_cast<std::uint8_t>(x * 255 / wide));
            bitmap.rgba.push_back(static_cast<std::uint8_t>(y * 255 / high));
            bitmap.rgba.push_back(static_cast<std::uint8_t>((x + y) * 255 / (wide + high)));
            bitmap.rgba.push_back(255);
        }
    }
    return bitmap;
}

BitmapImageRep flag(std::uint32_t wide, std::uint32_t high) {
    static constexpr std::uint8_t kColours[5][4] = {
        {0, 0, 0, 255}, {255, 255, 255, 255}, {200, 30, 40, 255}, {20, 30, 220, 255}, {0, 0, 0, 0}};
    BitmapImageRep bitmap{wide, high, {}};
    for (std::uint32_t y = 0; y < high; ++y) {
        for (std::uint32_t x = 0; x < wide; ++x) {
            const std::uint8_t* const colour = kColours[(x / 2 + y * 3) % 5];
            bitmap.rgba.insert(bitmap.rgba.end(), colour, colour + 4);
        }
    }
    return bitmap;
}

Data encoded(const BitmapImageRep& bitmap, BitmapImageFileType type) {
    const auto image = Image::initWithBitmap(bitmap);
    if (!image) {
        ADD_FAILURE() << "no image";
        return {};
    }
    auto bytes = image->representationUsingType(0, type);
    if (bytes) return *std::move(bytes);
    ADD_FAILURE() << bytes.error().description;
    return {};
}

BitmapImageRep decoded(const Data& bytes) {
    const auto image = Image::initWithData(bytes);
    if (!image) {
        ADD_FAILURE() << "no image";
        return {};
    }
    EXPECT_EQ(image->representationCount(), 1u);
    EXPECT_FALSE(image->isTemplate());
    auto bitmap = image->representation(0);
    if (bitmap) return *std::move(bitmap);
    ADD_FAILURE() << bitmap.error().description;
    return {};
}

int largestDifference(const BitmapImageRep& one, const BitmapImageRep& other) {
    if (one.pixelsWide != other.pixelsWide || one.pixelsHigh != other.pixelsHigh ||
        one.rgba.size() != other.rgba.size())
        return 256;
    int largest = 0;
    for (std::size_t i = 0; i < one.rgba.size(); ++i)
        largest = std::max(largest, std::abs(one.rgba[i] - other.rgba[i]));
    return largest;
}

double meanDifference(const BitmapImageRep& one, const BitmapImageRep& other) {
    if (one.rgba.size() != other.rgba.size() || one.rgba.empty()) return 256;
    double sum = 0;
    for (std::size_t i = 0; i < one.rgba.size(); ++i) sum += std::abs(one.rgba[i] - other.rgba[i]);
    return sum / static_cast<double>(one.rgba.size());
}

void writeFile(const std::filesystem::path& path, const Data& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

Data readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return Data(std::istreambuf_iterator<char>(file), {});
}

std::string outputOf(const std::string& program, const std::vector<std::string>& arguments) {
    const TemporaryFolder folder;
    ChildProcess::Options options;
    options.standardOutput = (folder.path() / "out").string();
    options.standardError = (folder.path() / "errors").string();
    auto child = ChildProcess::program(program, arguments, options);
    EXPECT_EQ(child.waitForExit(), 0) << program;
    const Data errors = readFile(options.standardError);
    EXPECT_EQ(std::string(errors.begin(), errors.end()), "") << program;
    const Data out = readFile(options.standardOutput);
    return {out.begin(), out.end()};
}

}  // namespace utilia::test
