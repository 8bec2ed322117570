#include "Common/Platform/Linux/ImageCodecs.h"

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <utility>

#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/ExportModuleAccess.h"
#include "Common/Platform/Linux/ModuleLoader.h"
#include "Common/Platform/Linux/Modules/Export/ExportBitmaps.h"

namespace utilia::platform {
namespace {

constexpr std::size_t kProfileHeader = 128;
constexpr std::size_t kMaximumProfile = 4u << 20;

Result<const UtiliaIconsModule*> icons() {
    static const Result<const UtiliaIconsModule*> module =
        moduleTable<UtiliaIconsModule>("Icons", kUtiliaIconsSymbol, kUtiliaIconsVersion);
    return module;
}

Result<const UtiliaExportBitmaps*> bitmaps() {
    const auto module = exportModule();
    if (!module) return module.error();
    return (*module)->bitmaps;
}

Error refused(std::string_view doing, std::string_view why) {
    return Error::utilia(UtiliaErrorCode::Refused, std::string(doing) + ": " + std::string(why));
}

// Takes the profile of a picture, if it is one that can describe an image: its pixels, which tell,
// are still to come.
bool takeProfile(void* context, const std::uint8_t* bytes, std::size_t size) noexcept try {
    if (coloursOf({bytes, size}) != ProfileColours::Neither)
        static_cast<BitmapImageRep*>(context)->colourProfile.assign(bytes, bytes + size);
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

std::uint8_t* beginPixels(void* context, std::uint32_t wide, std::uint32_t high) noexcept try {
    auto& bitmap = *static_cast<BitmapImageRep*>(context);
    bitmap.rgba.resize(std::size_t{wide} * high * 4);
    bitmap.pixelsWide = wide;
    bitmap.pixelsHigh = high;
    return bitmap.rgba.data();
} catch (const std::bad_alloc&) {
    return nullptr;
}

// Whether red, green and blue are the same in every pixel, also in those that nobody sees.
bool isGrey(std::span<const std::uint8_t> rgba) {
    constexpr std::size_t kBytesAtOnce = 1 << 14;  // the compiler does many pixels at a time
    while (!rgba.empty()) {
        const auto some = rgba.first(std::min(rgba.size(), kBytesAtOnce));
        unsigned differences = 0;
        for (std::size_t i = 0; i + 3 < some.size(); i += 4)
            differences |= (some[i] ^ some[i + 1]) | (some[i] ^ some[i + 2]);
        if (differences != 0) return false;
        rgba = rgba.subspan(some.size());
    }
    return true;
}

std::optional<UtiliaExportFileType> fileTypeOf(std::span<const std::uint8_t> bytes) {
    switch (imageSignature(bytes.data(), bytes.size())) {
    case ImageSignature::BMP:
        return UtiliaExportBMP;
    case ImageSignature::GIF:
        return UtiliaExportGIF;
    case ImageSignature::JPEG:
        return UtiliaExportJPEG;
    case ImageSignature::PNG:
        return UtiliaExportPNG;
    case ImageSignature::JPEG2000:
    case ImageSignature::JPEG2000Codestream:
        return UtiliaExportJPEG2000;
    default:
        return std::nullopt;
    }
}

}  // namespace

bool isTIFF(std::span<const std::uint8_t> bytes) {
    return imageSignature(bytes.data(), bytes.size()) == ImageSignature::TIFF;
}

Result<std::vector<UtiliaIconsDirectory>> directoriesOfTIFF(std::span<const std::uint8_t> bytes) {
    const auto module = icons();
    if (!module) return module.error();
    std::array<UtiliaIconsDirectory, kImageMaximumRepresentations> directories{};
    const std::size_t count =
        (*module)->list(bytes.data(), bytes.size(), directories.data(), directories.size());
    if (count == 0) return refused("decode image", "no TIFF picture that can be read");
    return std::vector<UtiliaIconsDirectory>(
        directories.begin(), directories.begin() + static_cast<std::ptrdiff_t>(count));
}

Result<BitmapImageRep> decodeTIFF(std::span<const std::uint8_t> bytes,
                                  const UtiliaIconsDirectory& directory) {
    constexpr std::string_view kDoing = "decode image";
    const auto module = icons();
    if (!module) return module.error();
    BitmapImageRep bitmap;
    if (!beginPixels(&bitmap, directory.pixelsWide, directory.pixelsHigh))
        return refused(kDoing, "not enough memory");
    const UtiliaIconsProfileTaker taker{&bitmap, takeProfile};
    std::array<char, kUtiliaIconsReasonSize> reason{};
    if (!(*module)->decode(bytes.data(), bytes.size(), directory.number, bitmap.rgba.data(),
                           bitmap.rgba.size(), &taker, reason.data()))
        return refused(kDoing, reason.data());
    dropUnfitProfile(bitmap);
    return bitmap;
}

Result<Data> encodeTIFF(std::span<const BitmapToWrite> toWrite,
                        const UtiliaIconsProgress* progress) {
    constexpr std::string_view kDoing = "encode image";
    const auto module = icons();
    if (!module) return module.error();
    std::vector<UtiliaIconsBitmap> all;
    for (const auto& [bitmap, compression] : toWrite) {
        const Data& profile = bitmap->colourProfile;
        all.push_back({bitmap->rgba.data(), bitmap->pixelsWide, bitmap->pixelsHigh, compression,
                       profile.empty() ? nullptr : profile.data(), profile.size(),
                       coloursOf(profile) == ProfileColours::Grey});
    }
    std::size_t size = 0;
    std::array<char, kUtiliaIconsReasonSize> reason{};
    const std::unique_ptr<std::uint8_t, void (*)(std::uint8_t*)> bytes(
        (*module)->encode(all.data(), all.size(), &size, progress, reason.data()),
        (*module)->release);
    if (!bytes) return refused(kDoing, reason.data());
    return Data(bytes.get(), bytes.get() + size);
}

Result<BitmapImageRep> decodeBitmap(std::span<const std::uint8_t> bytes) {
    constexpr std::string_view kDoing = "decode image";
    const auto type = fileTypeOf(bytes);
    if (!type) return refused(kDoing, "no format that is known");
    const auto module = bitmaps();
    if (!module) return module.error();
    BitmapImageRep bitmap;
    const UtiliaExportTarget target{&bitmap, beginPixels, takeProfile};
    std::array<char, kUtiliaExportReasonSize> reason{};
    if (!(*module)->decode(*type, bytes.data(), bytes.size(), &target, reason.data()))
        return refused(kDoing, reason.data());
    if (!isWithinLimits(bitmap)) return refused(kDoing, "no pixels");
    dropUnfitProfile(bitmap);
    return bitmap;
}

Result<Data> encodeBitmap(const BitmapImageRep& bitmap, BitmapImageFileType type,
                          const ExportProgress& progress) {
    constexpr std::string_view kDoing = "encode image";
    ExportSink sink(progress);
    if (!sink.begin()) return sink.error(kDoing);
    if (type == BitmapImageFileType::Tiff) {
        const BitmapToWrite one{&bitmap};
        const UtiliaIconsProgress told{sink.table()->context, sink.table()->progress};
        auto bytes = encodeTIFF({&one, 1}, &told);
        if (!bytes) return sink.isCancelled() ? sink.error(kDoing) : bytes;
        if (auto end = sink.finish(kDoing); !end) return end;
        return bytes;
    }
    const auto module = bitmaps();
    if (!module) return module.error();
    const Data& profile = bitmap.colourProfile;
    const UtiliaExportPixels pixels{bitmap.rgba.data(), bitmap.pixelsWide,
                                    bitmap.pixelsHigh,  profile.empty() ? nullptr : profile.data(),
                                    profile.size(),     coloursOf(profile) == ProfileColours::Grey};
    if (!(*module)->encode(static_cast<std::uint32_t>(type), &pixels, sink.table(), sink.reason()))
        return sink.error(kDoing);
    return sink.finish(kDoing);
}

void logUnavailable(const Error& error) {
    if (!error.is(UtiliaErrorCode::Unavailable)) return;
    static std::mutex mutex;
    static auto* const logged = new std::set<std::string>;
    const std::lock_guard guard(mutex);
    if (logged->insert(error.description).second)
        KULogVariadic("Images cannot be used: %s", error.description);
}

bool isWithinLimits(const BitmapImageRep& bitmap) {
    const std::uint64_t pixels = std::uint64_t{bitmap.pixelsWide} * bitmap.pixelsHigh;
    return pixels > 0 && bitmap.pixelsWide <= kImageMaximumSide &&
           bitmap.pixelsHigh <= kImageMaximumSide && pixels <= kImageMaximumPixels &&
           bitmap.rgba.size() == pixels * 4;
}

ProfileColours coloursOf(std::span<const std::uint8_t> profile) {
    // ICC.1, 7.2: its size, the colour space at 16, "acsp" at 36.
    if (profile.size() < kProfileHeader || profile.size() > kMaximumProfile)
        return ProfileColours::Neither;
    const std::size_t size = std::size_t{profile[0]} << 24 | std::size_t{profile[1]} << 16 |
                             std::size_t{profile[2]} << 8 | profile[3];
    if (size != profile.size() || !beginsWith(profile.data(), size, "acsp", 4, 36))
        return ProfileColours::Neither;
    if (beginsWith(profile.data(), size, "RGB ", 4, 16)) return ProfileColours::RGB;
    return beginsWith(profile.data(), size, "GRAY", 4, 16) ? ProfileColours::Grey
                                                           : ProfileColours::Neither;
}

ProfileColours fittingProfileColours(const BitmapImageRep& bitmap) {
    const ProfileColours colours = coloursOf(bitmap.colourProfile);
    return colours == ProfileColours::Grey && !isGrey(bitmap.rgba) ? ProfileColours::Neither
                                                                   : colours;
}

void dropUnfitProfile(BitmapImageRep& bitmap) {
    if (fittingProfileColours(bitmap) == ProfileColours::Neither) bitmap.colourProfile.clear();
}

}  // namespace utilia::platform
