#include "Applications/Tools/ScreenCapture/CapturedPicture.h"

#include <utility>

#include "Common/Platform/FileManager.h"

namespace utilia::tools {

namespace {
constexpr std::size_t kMaximumSize = 1'000'000'000;  // bytes of a file
}

Result<CapturedPicture> readPicture(const std::string& path) {
    const auto bytes = platform::FileManager::contentsAtPath(path, kMaximumSize);
    if (!bytes) return bytes.error();
    CapturedPicture picture;
    picture.image = platform::Image::initWithData(*bytes);
    if (!picture.image)
        return Error::utilia(UtiliaErrorCode::Refused, path + ": is no picture that can be read");
    const auto bitmap = picture.image->bitmap(0);
    if (!bitmap) return bitmap.error();
    using Pixels = std::shared_ptr<const platform::BitmapImageRep>;
    const auto* const pixels = new Pixels(*bitmap);
    picture.shown = QImage(
        (*pixels)->rgba.data(), static_cast<int>((*pixels)->pixelsWide),
        static_cast<int>((*pixels)->pixelsHigh), static_cast<qsizetype>((*pixels)->pixelsWide) * 4,
        QImage::Format_RGBA8888, [](void* kept) { delete static_cast<const Pixels*>(kept); },
        const_cast<Pixels*>(pixels));
    return picture;
}

}  // namespace utilia::tools
