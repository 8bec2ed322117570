// How much memory an export takes besides the picture. A sanitizer's would be measured along, so
// this program is only built without.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/Images/PdfFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::uint64_t kMostBesidesThePicture = 40 * kMiB;

std::uint64_t memory(const std::string& key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key)) return std::stoull(line.substr(key.size())) * 1024;
    }
    return 0;
}

// The most memory that this process has ever had, all told.
std::uint64_t peak() { return memory("VmHWM:"); }

// Arguments: height, page height, file, how many bytes of addresses there are for the export.
UTILIA_CHILD_ROLE(exportTallPicture) {
    constexpr std::uint32_t kWidth = 1440;
    constexpr std::uint32_t kPart = 5000;
    const auto height = static_cast<std::uint32_t>(std::stoul(self.arguments.at(0)));
    BitmapImageRep picture{kWidth, height, Data(std::size_t{kWidth} * height * 4), {}};
    const std::uint64_t size = picture.rgba.size();
    {
        const BitmapImageRep part = screenshotPicture(kWidth, kPart);
        for (std::size_t at = 0; at < size; at += part.rgba.size())
            std::memcpy(picture.rgba.data() + at, part.rgba.data(),
                        std::min<std::size_t>(part.rgba.size(), size - at));
    }
    const auto image = imageOf(std::move(picture));
    std::ofstream("/proc/self/clear_refs") << 5;  // forgets the peak
    const std::uint64_t before = peak();
    const std::uint64_t addresses = std::stoull(self.arguments.at(3));
    if (addresses > 0) {
        const rlim_t most = memory("VmSize:") + addresses;
        const rlimit limit{most, most};
        if (setrlimit(RLIMIT_AS, &limit) != 0) return 2;
    }
    const bool isSaved = CommonAuxiliary::sharedInstance().saveImageAsPDF(
        image, self.arguments.at(2), std::stoul(self.arguments.at(1)));
    self.say(isSaved ? "saved" : "not saved");
    self.say(std::to_string(size));
    self.say(std::to_string(before));
    self.say(std::to_string(peak()));
    return 0;
}

struct Taken {
    std::uint64_t size;    // of the picture
    std::uint64_t before;  // the most that there was before
    std::uint64_t all;     // and after the export
    std::uint64_t document;
};

Taken exportPicture(std::uint32_t height, std::uint32_t pageHeight, std::uint64_t addresses = 0) {
    const TemporaryFolder folder;
    const std::string path = folder.path() / "tall.pdf";
    auto child =
        ChildProcess::role("exportTallPicture", {std::to_string(height), std::to_string(pageHeight),
                                                 path, std::to_string(addresses)});
    const auto number = [&child] {
        return std::stoull(child.waitForLine(std::chrono::seconds(120)).value_or("0"));
    };
    EXPECT_EQ(child.waitForLine(std::chrono::seconds(120)), "saved");
    Taken taken{};
    taken.size = number();
    taken.before = number();
    taken.all = number();
    EXPECT_EQ(child.waitForExit(), 0);
    taken.document = std::filesystem::file_size(path);
    return taken;
}

TEST(PdfMemory, IsThePictureAndFortyMebibytesForAHundredThousandRows) {
    for (const std::uint32_t pageHeight : {1000u, 0u}) {
        const Taken taken = exportPicture(100'000, pageHeight);
        EXPECT_EQ(taken.size, 1440ull * 100'000 * 4);
        EXPECT_GT(taken.document, 5 * kMiB) << "too simple a picture";
        EXPECT_GT(taken.all, taken.size);
        EXPECT_LE(taken.all, taken.size + kMostBesidesThePicture)
            << "pages of " << pageHeight << ", document of " << taken.document;
    }
}

TEST(PdfMemory, IsTheDocumentAndAFewMebibytesBesides) {
    const Taken taken = exportPicture(40'000, 1000);
    EXPECT_GT(taken.all, taken.before);
    EXPECT_LE(taken.all, taken.before + taken.document + 10 * kMiB);
}

TEST(PdfMemory, NeedNotBeAsMuchAsThereMightBeNeeded) {
    for (const std::uint32_t pageHeight : {1000u, 0u}) {
        const Taken taken = exportPicture(100'000, pageHeight, 60 * kMiB);
        EXPECT_EQ(taken.size, 1440ull * 100'000 * 4);
        EXPECT_GT(taken.document, 5 * kMiB);
    }
}

}  // namespace
