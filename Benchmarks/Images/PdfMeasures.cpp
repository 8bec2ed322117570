#include "Benchmarks/Images/PdfMeasures.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>

#include <libdeflate.h>

#include "Benchmarks/Images/PdfPeers.h"
#include "Benchmarks/Stores/StoreMeasures.h"
#include "Common/Platform/PDFContext.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Tests/Support/SamplePictures.h"

namespace utilia::bench {
namespace {

using platform::BitmapImageRep;
using platform::PDFContext;

constexpr std::uint32_t kWidth = 1440;
constexpr std::uint32_t kHeight = 20'000;
constexpr std::uint32_t kTallHeight = 100'000;
constexpr std::uint32_t kPageHeight = 1000;

// As CommonAuxiliary draws them, with so many threads.
std::size_t utiliaPages(const std::shared_ptr<const BitmapImageRep>& picture, unsigned threads) {
    auto pdf = PDFContext::create(
        {.pixelsExpected = std::uint64_t{kWidth} * kHeight, .maximumThreads = threads});
    if (!pdf) throw std::runtime_error(pdf.error().description);
    const platform::PDFRect page{0, 0, kWidth, kPageHeight};
    for (std::uint32_t row = 0; row < kHeight; row += kPageHeight) {
        if (!(*pdf)->beginPage(page) || !(*pdf)->drawImage({picture, row, kPageHeight}, page) ||
            !(*pdf)->endPage()) {
            throw std::runtime_error("a page cannot be made");
        }
    }
    const auto document = (*pdf)->close();
    if (!document) throw std::runtime_error(document.error().description);
    return document->size();
}

class Limit final {
public:
    explicit Limit(const BitmapImageRep& picture) : rgb_(picture.rgba.size() / 4 * 3) {
        for (std::size_t i = 0; i < picture.rgba.size() / 4; ++i)
            std::memcpy(rgb_.data() + i * 3, picture.rgba.data() + i * 4, 3);
        out_.resize(libdeflate_zlib_compress_bound(compressor_.get(), rgb_.size()));
    }
    std::size_t operator()() {
        return libdeflate_zlib_compress(compressor_.get(), rgb_.data(), rgb_.size(), out_.data(),
                                        out_.size());
    }

private:
    static constexpr int kLevel = 6;

    std::unique_ptr<libdeflate_compressor, void (*)(libdeflate_compressor*)> compressor_{
        libdeflate_alloc_compressor(kLevel), libdeflate_free_compressor};
    Data rgb_;
    Data out_;
};

void putPixels(const BitmapImageRep& picture, const std::string& path) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(picture.rgba.data()),
               static_cast<std::streamsize>(picture.rgba.size()));
}

MagickPages magickPages(const std::string& folder) {
    return graphicsMagickPages(folder + "/pixels", kWidth, kHeight, kPageHeight,
                               folder + "/pages.pdf");
}

double mebibytes(std::uint64_t bytes) { return static_cast<double>(bytes) / (1024 * 1024); }

std::uint64_t memory(const char* key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key)) return std::stoull(line.substr(std::strlen(key))) * 1024;
    }
    throw std::runtime_error("the system does not say how much memory there is");
}

// The most memory that the work takes over what there is before, in MiB.
template <class Work>
double peakOf(Work work) {
    std::ofstream("/proc/self/clear_refs") << 5;  // forgets the peak
    const std::uint64_t before = memory("VmRSS:");
    work();
    return mebibytes(memory("VmHWM:") - before);
}

double exportPeak(std::uint32_t height, std::uint32_t pageHeight) {
    BitmapImageRep picture{kWidth, height, Data(std::size_t{kWidth} * height * 4), {}};
    {
        const BitmapImageRep part = test::screenshotPicture(kWidth, std::min(height, kHeight));
        for (std::size_t at = 0; at < picture.rgba.size(); at += part.rgba.size())
            std::memcpy(picture.rgba.data() + at, part.rgba.data(), part.rgba.size());
    }
    const auto image = platform::Image::initWithBitmap(std::move(picture));
    return peakOf([&] {
        if (!CommonAuxiliary::sharedInstance().dataForImageAsPDF(image, pageHeight))
            throw std::runtime_error("no document");
    });
}

}  // namespace

Figures measurePdfPages(const Settings& settings) {
    const auto picture =
        std::make_shared<const BitmapImageRep>(test::screenshotPicture(kWidth, kHeight));
    Limit limit(*picture);
    const MemoryFolder memory;
    const std::string folder = memory.settings(settings).folder;
    putPixels(*picture, folder + "/pixels");
    const std::pair<std::string, std::function<std::size_t()>> ways[] = {
        {"limit", [&] { return limit(); }},
        {"utilia_1", [&] { return utiliaPages(picture, 1); }},
        {"utilia_2", [&] { return utiliaPages(picture, 2); }},
        {"cairo", [&] { return cairoPages(*picture, kPageHeight); }},
        {"magick", [&] { return magickPages(folder).size; }},
    };
    std::map<std::string, std::vector<double>> times;
    std::map<std::string, std::size_t> sizes;
    const int rounds = settings.seconds < 0.1 ? 1 : 5;
    for (int round = 0; round < rounds; ++round) {
        for (const auto& [name, work] : ways) {
            const std::uint64_t before = nanoseconds();
            sizes[name] = work();
            times[name].push_back(static_cast<double>(nanoseconds() - before) / 1e6);
        }
    }
    Figures figures;
    for (const auto& [name, work] : ways)
        figures.emplace_back(name + "_ms", percentile(times[name], 50));
    for (const auto& [name, work] : ways)
        figures.emplace_back(name + "_bytes", static_cast<double>(sizes[name]));
    return figures;
}

Figures measurePdfMemory(const std::string& way, const Settings& settings) {
    if (way == "utilia" || way == "utilia one page") {
        const std::uint32_t pageHeight = way == "utilia" ? kPageHeight : 0;
        const double peak = exportPeak(kHeight, pageHeight);
        return {{"peak_mib", peak}, {"tall_peak_mib", exportPeak(kTallHeight, pageHeight)}};
    }
    const BitmapImageRep picture = test::screenshotPicture(kWidth, kHeight);
    if (way == "cairo") {
        return {{"peak_mib", peakOf([&] { static_cast<void>(cairoPages(picture, kPageHeight)); })}};
    }
    const MemoryFolder folder;
    const std::string place = folder.settings(settings).folder;
    putPixels(picture, place + "/pixels");
    return {{"peak_mib", mebibytes(magickPages(place).peak - picture.rgba.size())}};
}

}  // namespace utilia::bench
