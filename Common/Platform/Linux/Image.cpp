#include "Common/Platform/Image.h"

#include <algorithm>
#include <new>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/Linux/ImageCodecs.h"

// An image keeps what it was made from: TIFF bytes, of which only the directories are known until
// pixels are asked for, and bitmaps, which were handed in. Of every other format it keeps the
// pixels, decoded at once: that tells whether there is an image at all. Bytes that nobody added to
// are their own TIFF representation, so what was read goes out again exactly as it came, at the
// cost of a copy. With a bitmap added to them, every directory is decoded and written anew with the
// compression it had.

namespace utilia::platform {
namespace {

constexpr std::string_view kWhat = "Images";
constexpr std::string_view kTemplateSuffix = "Template";

// For what has an error to answer with. Making that takes less memory than what did not fit.
template <class Function>
std::invoke_result_t<Function> orRefusedWithoutMemory(Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return Error::utilia(UtiliaErrorCode::Refused, "image: not enough memory");
    }
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

    // Takes bytes of which a first picture can be decoded; fails, and stays as it is, for any
    // others.
    Result<void> read(std::span<const std::uint8_t> bytes) {
        if (isTIFF(bytes)) return readTIFF(Data(bytes.begin(), bytes.end()));
        auto bitmap = decodeBitmap(bytes);
        if (!bitmap) return std::move(bitmap).error();
        representations.emplace_back(std::make_shared<const BitmapImageRep>(*std::move(bitmap)));
        return {};
    }

    Result<void> read(Data bytes) {
        if (isTIFF(bytes)) return readTIFF(std::move(bytes));
        return read(std::span<const std::uint8_t>(bytes));
    }

    Result<void> readTIFF(Data bytes) {
        const auto directories = directoriesOfTIFF(bytes);
        if (!directories) return directories.error();
        source = std::move(bytes);
        representations.assign(directories->begin(), directories->end());
        return {};
    }

    // Opens the file of an image that refers to one. A file that cannot be used leaves an image
    // without content.
    void load() noexcept {
        if (unreadPath.empty()) return;
        const std::string path = std::exchange(unreadPath, {});
        unlessOutOfMemory(kWhat, [&] {
            if (const auto done = readFile(path); !done) logUnavailable(done.error());
        });
    }

    Result<void> readFile(const std::string& path) {
        auto bytes = FileManager::contentsAtPath(path, kImageMaximumFileSize);
        if (!bytes) return std::move(bytes).error();
        auto done = read(*std::move(bytes));
        if (!done && !done.error().is(UtiliaErrorCode::Unavailable))
            return done.error().withContext(path);
        return done;
    }

    Result<const Representation*> find(std::size_t index) {
        load();
        if (index < representations.size()) return &representations[index];
        return Error::utilia(UtiliaErrorCode::NotFound,
                             "representation " + std::to_string(index) + " of an image");
    }

    Result<BitmapImageRep> decode(const UtiliaIconsDirectory& directory) const {
        return decodeTIFF(source, directory);
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
    std::vector<BitmapToWrite> bitmapsToWrite(std::vector<BitmapImageRep>& decoded) const {
        std::vector<BitmapToWrite> bitmaps;
        decoded.reserve(representations.size());
        for (const Representation& one : representations) {
            if (const auto* held = std::get_if<SharedBitmap>(&one)) {
                bitmaps.push_back({held->get()});
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
            bitmaps.push_back({&decoded.back(), directory.compression});
        }
        return bitmaps;
    }

    std::optional<Data> encode() const {
        std::vector<BitmapImageRep> decoded;
        const auto bitmaps = bitmapsToWrite(decoded);
        if (bitmaps.empty()) return std::nullopt;
        auto bytes = encodeTIFF(bitmaps);
        if (bytes) return *std::move(bytes);
        logUnavailable(bytes.error());
        if (!bytes.error().is(UtiliaErrorCode::Unavailable))
            KULogVariadic("An image cannot be encoded: %s", bytes.error().description);
        return std::nullopt;
    }

    // Keeps a bitmap that was handed in.
    bool add(BitmapImageRep bitmap) {
        if (!isWithinLimits(bitmap)) return false;
        dropUnfitProfile(bitmap);
        representations.emplace_back(std::make_shared<const BitmapImageRep>(std::move(bitmap)));
        return true;
    }
};

Image::Image(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}

Image::~Image() = default;

std::shared_ptr<Image> Image::initWithData(std::span<const std::uint8_t> bytes) {
    return unlessOutOfMemory(kWhat, [bytes]() -> std::shared_ptr<Image> {
        auto implementation = std::make_unique<Implementation>();
        if (const auto done = implementation->read(bytes); !done) {
            logUnavailable(done.error());
            return nullptr;
        }
        return std::shared_ptr<Image>(new Image(std::move(implementation)));
    });
}

std::shared_ptr<Image> Image::initByReferencingFile(std::string_view path) {
    return unlessOutOfMemory(kWhat, [path] {
        auto implementation = std::make_unique<Implementation>();
        implementation->unreadPath = path;
        implementation->isTemplate = isTemplateName(path);
        return std::shared_ptr<Image>(new Image(std::move(implementation)));
    });
}

Result<std::shared_ptr<Image>> Image::imageWithContentsOfFile(std::string_view path) {
    return orRefusedWithoutMemory([path]() -> Result<std::shared_ptr<Image>> {
        auto implementation = std::make_unique<Implementation>();
        implementation->isTemplate = isTemplateName(path);
        if (auto done = implementation->readFile(std::string(path)); !done)
            return std::move(done).error();
        return std::shared_ptr<Image>(new Image(std::move(implementation)));
    });
}

std::shared_ptr<Image> Image::initWithBitmap(BitmapImageRep bitmap) {
    return unlessOutOfMemory(kWhat, [&bitmap]() -> std::shared_ptr<Image> {
        auto implementation = std::make_unique<Implementation>();
        if (!implementation->add(std::move(bitmap))) return nullptr;
        return std::shared_ptr<Image>(new Image(std::move(implementation)));
    });
}

bool Image::isValid() { return representationCount() > 0; }

bool Image::isTemplate() const { return implementation_->isTemplate; }

void Image::setTemplate(bool isTemplate) { implementation_->isTemplate = isTemplate; }

std::size_t Image::representationCount() {
    implementation_->load();
    return implementation_->representations.size();
}

Result<BitmapImageRep> Image::representation(std::size_t index) {
    return orRefusedWithoutMemory([&]() -> Result<BitmapImageRep> {
        const auto one = implementation_->find(index);
        if (!one) return one.error();
        if (const auto* held = std::get_if<Implementation::SharedBitmap>(*one)) return **held;
        return implementation_->decode(std::get<UtiliaIconsDirectory>(**one));
    });
}

Result<std::shared_ptr<const BitmapImageRep>> Image::bitmap(std::size_t index) {
    using SharedBitmap = Implementation::SharedBitmap;
    return orRefusedWithoutMemory([&]() -> Result<SharedBitmap> {
        const auto one = implementation_->find(index);
        if (!one) return one.error();
        if (const auto* held = std::get_if<SharedBitmap>(*one)) return *held;
        auto decoded = implementation_->decode(std::get<UtiliaIconsDirectory>(**one));
        if (!decoded) return std::move(decoded).error();
        return SharedBitmap(std::make_shared<const BitmapImageRep>(*std::move(decoded)));
    });
}

bool Image::addRepresentation(BitmapImageRep bitmap) {
    return unlessOutOfMemory(kWhat, [&] {
        if (representationCount() >= kImageMaximumRepresentations ||
            !implementation_->add(std::move(bitmap)))
            return false;
        implementation_->encoded.reset();
        return true;
    });
}

Result<Data> Image::representationUsingType(std::size_t index, BitmapImageFileType type,
                                            const ExportProgress& progress) {
    return orRefusedWithoutMemory([&]() -> Result<Data> {
        const auto shared = bitmap(index);
        if (!shared) return shared.error();
        return encodeBitmap(**shared, type, progress);
    });
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

Result<std::shared_ptr<const BitmapImageRep>> Image::CGImage() { return bitmap(0); }

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
    return unlessOutOfMemory(kWhat, [this]() -> std::optional<Data> {
        if (implementation_->isAsRead()) return implementation_->source;
        if (!implementation_->encoded) implementation_->encoded = implementation_->encode();
        return implementation_->encoded;
    });
}

}  // namespace utilia::platform
