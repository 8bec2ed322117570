#include "Common/Platform/Image.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>
#include <variant>
#include <vector>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/Linux/ModuleLoader.h"
#include "Common/Platform/Linux/Modules/Icons/IconsModule.h"

// An image keeps what it was made from: TIFF bytes, of which only the directories are known until
// pixels are asked for, and bitmaps, which were handed in. Bytes that nobody added to are their own
// TIFF representation, so what was read goes out again exactly as it came, at the cost of a copy.
// With a bitmap added to them, every directory is decoded and written anew with the compression it
// had.

namespace utilia::platform {
namespace {

// As much as a message can carry; a larger file is no icon.
constexpr std::size_t kMaximumFileSize = 64u << 20;
constexpr std::string_view kTemplateSuffix = "Template";

const UtiliaIconsModule* loadCodec() {
    const auto module =
        moduleTable<UtiliaIconsModule>("Icons", kUtiliaIconsSymbol, kUtiliaIconsVersion);
    if (module) return *module;
    KULogVariadic("Images cannot be used: %s", module.error().description);
    return nullptr;
}

// The Icons module, loaded on the first ask; null, with one log line per process, when there is
// none.
const UtiliaIconsModule* codec() {
    static const UtiliaIconsModule* const module = loadCodec();
    return module;
}

bool isWithinLimits(const BitmapImageRep& bitmap) {
    const std::uint64_t pixels = std::uint64_t{bitmap.pixelsWide} * bitmap.pixelsHigh;
    return pixels > 0 && bitmap.pixelsWide <= kImageMaximumSide &&
           bitmap.pixelsHigh <= kImageMaximumSide && pixels <= kImageMaximumPixels &&
           bitmap.rgba.size() == pixels * 4;
}

bool isTemplateName(std::string_view path) {
    return stringByDeletingPathExtension(lastPathComponent(path)).ends_with(kTemplateSuffix);
}

}  // namespace

struct Image::Implementation {
    using SharedBitmap = std::shared_ptr<const BitmapImageRep>;
    using Representation = std::variant<UtiliaIconsDirectory, SharedBitmap>;

    std::string unreadPath;  // of a file that nobody asked for yet
    Data source;             // the bytes that the directories lie in
    std::vector<Representation> representations;
    std::optional<Data> encoded;  // what TIFFRepresentation answered
    bool isTemplate = false;

    // Takes bytes whose first directory can be decoded; answers false, and stays as it is, for any
    // others.
    bool read(Data bytes) {
        const UtiliaIconsModule* module = codec();
        if (!module) return false;
        std::array<UtiliaIconsDirectory, kImageMaximumRepresentations> directories{};
        const std::size_t count =
            module->list(bytes.data(), bytes.size(), directories.data(), directories.size());
        if (count == 0) return false;
        source = std::move(bytes);
        representations.assign(directories.begin(),
                               directories.begin() + static_cast<std::ptrdiff_t>(count));
        return true;
    }

    // Opens the file of an image that refers to one. A file that cannot be used leaves an image
    // without content.
    void load() {
        if (unreadPath.empty()) return;
        const std::string path = std::exchange(unreadPath, {});
        auto bytes = FileManager::contentsAtPath(path, kMaximumFileSize);
        if (bytes) read(*std::move(bytes));
    }

    Result<const Representation*> find(std::size_t index) {
        load();
        if (index < representations.size()) return &representations[index];
        return Error::utilia(UtiliaErrorCode::NotFound,
                             "representation " + std::to_string(index) + " of an image");
    }

    Result<BitmapImageRep> decode(const UtiliaIconsDirectory& directory) const try {
        BitmapImageRep bitmap;
        bitmap.pixelsWide = directory.pixelsWide;
        bitmap.pixelsHigh = directory.pixelsHigh;
        bitmap.rgba.resize(std::size_t{directory.pixelsWide} * directory.pixelsHigh * 4);
        std::array<char, kUtiliaIconsReasonSize> reason{};
        if (!codec()->decode(source.data(), source.size(), directory.number, bitmap.rgba.data(),
                             bitmap.rgba.size(), reason.data())) {
            return Error::utilia(UtiliaErrorCode::Refused,
                                 "decode image: " + std::string(reason.data()));
        }
        return bitmap;
    } catch (const std::bad_alloc&) {
        return Error::utilia(UtiliaErrorCode::Refused, "decode image: not enough memory");
    }

    bool isAsRead() const {
        return !representations.empty() &&
               std::all_of(representations.begin(), representations.end(),
                           [](const Representation& one) {
                               return std::holds_alternative<UtiliaIconsDirectory>(one);
                           });
    }

    // Every representation as a bitmap to write. A directory that is damaged is left out, with a
    // log line; what was decoded is kept in `decoded`.
    std::vector<UtiliaIconsBitmap> bitmapsToWrite(std::vector<BitmapImageRep>& decoded) const {
        std::vector<UtiliaIconsBitmap> bitmaps;
        decoded.reserve(representations.size());
        const auto add = [&bitmaps](const BitmapImageRep& bitmap, std::uint32_t compression) {
            bitmaps.push_back(
                {bitmap.rgba.data(), bitmap.pixelsWide, bitmap.pixelsHigh, compression});
        };
        for (const Representation& one : representations) {
            if (const auto* held = std::get_if<SharedBitmap>(&one)) {
                add(**held, UtiliaIconsUncompressed);
                continue;
            }
            const auto& directory = std::get<UtiliaIconsDirectory>(one);
            auto bitmap = decode(directory);
            if (!bitmap) {
                KULogVariadic("An image loses a damaged representation: %s",
                              bitmap.error().description);
                continue;
            }
            decoded.push_back(*std::move(bitmap));
            add(decoded.back(), directory.compression);
        }
        return bitmaps;
    }

    std::optional<Data> encode() const {
        const UtiliaIconsModule* module = codec();
        if (!module) return std::nullopt;
        std::vector<BitmapImageRep> decoded;
        const auto bitmaps = bitmapsToWrite(decoded);
        if (bitmaps.empty()) return std::nullopt;
        std::size_t size = 0;
        std::array<char, kUtiliaIconsReasonSize> reason{};
        const std::unique_ptr<std::uint8_t, void (*)(std::uint8_t*)> bytes(
            module->encode(bitmaps.data(), bitmaps.size(), &size, reason.data()), module->release);
        if (!bytes) {
            KULogVariadic("An image cannot be encoded: %s", std::string_view(reason.data()));
            return std::nullopt;
        }
        return Data(bytes.get(), bytes.get() + size);
    }
};

Image::Image(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}

Image::~Image() = default;

std::shared_ptr<Image> Image::initWithData(std::span<const std::uint8_t> bytes) {
    auto implementation = std::make_unique<Implementation>();
    if (!implementation->read(Data(bytes.begin(), bytes.end()))) return nullptr;
    return std::shared_ptr<Image>(new Image(std::move(implementation)));
}

std::shared_ptr<Image> Image::initByReferencingFile(std::string_view path) {
    auto implementation = std::make_unique<Implementation>();
    implementation->unreadPath = path;
    implementation->isTemplate = isTemplateName(path);
    return std::shared_ptr<Image>(new Image(std::move(implementation)));
}

std::shared_ptr<Image> Image::initWithBitmap(BitmapImageRep bitmap) {
    if (!isWithinLimits(bitmap)) return nullptr;
    auto implementation = std::make_unique<Implementation>();
    implementation->representations.emplace_back(
        std::make_shared<const BitmapImageRep>(std::move(bitmap)));
    return std::shared_ptr<Image>(new Image(std::move(implementation)));
}

bool Image::isValid() { return representationCount() > 0; }

bool Image::isTemplate() const { return implementation_->isTemplate; }

void Image::setTemplate(bool isTemplate) { implementation_->isTemplate = isTemplate; }

std::size_t Image::representationCount() {
    implementation_->load();
    return implementation_->representations.size();
}

Result<BitmapImageRep> Image::representation(std::size_t index) {
    const auto one = implementation_->find(index);
    if (!one) return one.error();
    if (const auto* held = std::get_if<Implementation::SharedBitmap>(*one)) return **held;
    return implementation_->decode(std::get<UtiliaIconsDirectory>(**one));
}

Result<std::shared_ptr<const BitmapImageRep>> Image::bitmap(std::size_t index) {
    const auto one = implementation_->find(index);
    if (!one) return one.error();
    if (const auto* held = std::get_if<Implementation::SharedBitmap>(*one)) return *held;
    auto decoded = implementation_->decode(std::get<UtiliaIconsDirectory>(**one));
    if (!decoded) return std::move(decoded).error();
    return Implementation::SharedBitmap(
        std::make_shared<const BitmapImageRep>(*std::move(decoded)));
}

bool Image::addRepresentation(BitmapImageRep bitmap) {
    if (!isWithinLimits(bitmap) || representationCount() >= kImageMaximumRepresentations)
        return false;
    implementation_->representations.emplace_back(
        std::make_shared<const BitmapImageRep>(std::move(bitmap)));
    implementation_->encoded.reset();
    return true;
}

namespace {

std::uint64_t areaOf(const std::pair<std::uint32_t, std::uint32_t>& sides) {
    return std::uint64_t{sides.first} * sides.second;
}

template <class Representation>
std::pair<std::uint32_t, std::uint32_t> sidesOf(const Representation& representation) {
    return std::visit(
        [](const auto& picture) {
            if constexpr (requires { picture->pixelsWide; })
                return std::pair(picture->pixelsWide, picture->pixelsHigh);
            else
                return std::pair(picture.pixelsWide, picture.pixelsHigh);
        },
        representation);
}

// The place of the largest one, of equal ones the first; 0 without any.
template <class Representations>
std::size_t largestOf(const Representations& representations) {
    std::size_t largest = 0;
    for (std::size_t i = 1; i < representations.size(); ++i) {
        if (areaOf(sidesOf(representations[i])) > areaOf(sidesOf(representations[largest])))
            largest = i;
    }
    return largest;
}

template <class Representations>
std::pair<std::uint32_t, std::uint32_t> largestSides(const Representations& representations) {
    if (representations.empty()) return {0, 0};
    return sidesOf(representations[largestOf(representations)]);
}

}  // namespace

Result<std::shared_ptr<const BitmapImageRep>> Image::CGImage() {
    implementation_->load();
    return bitmap(largestOf(implementation_->representations));
}

std::uint32_t Image::pixelsWide() {
    implementation_->load();
    return largestSides(implementation_->representations).first;
}

std::uint32_t Image::pixelsHigh() {
    implementation_->load();
    return largestSides(implementation_->representations).second;
}

std::optional<Data> Image::TIFFRepresentation() {
    implementation_->load();
    if (implementation_->isAsRead()) return implementation_->source;
    if (!implementation_->encoded) implementation_->encoded = implementation_->encode();
    return implementation_->encoded;
}

}  // namespace utilia::platform
