#pragma once

#include <span>
#include <vector>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/ExportProgress.h"
#include "Common/Platform/Image.h"
#include "Common/Platform/Linux/Modules/Icons/IconsModule.h"

namespace utilia::platform {

// The modules that know formats of images, as calls with errors. Bytes that look like no format at
// all load no module.

bool isTIFF(std::span<const std::uint8_t> bytes);

// What lies in a TIFF file, at least one.
Result<std::vector<UtiliaIconsDirectory>> directoriesOfTIFF(std::span<const std::uint8_t> bytes);
Result<BitmapImageRep> decodeTIFF(std::span<const std::uint8_t> bytes,
                                  const UtiliaIconsDirectory& directory);

struct BitmapToWrite {
    const BitmapImageRep* bitmap;
    std::uint32_t compression = UtiliaIconsUncompressed;
};
Result<Data> encodeTIFF(std::span<const BitmapToWrite> bitmaps,
                        const UtiliaIconsProgress* progress = nullptr);

// The first picture of a file of any format but TIFF.
Result<BitmapImageRep> decodeBitmap(std::span<const std::uint8_t> bytes);
Result<Data> encodeBitmap(const BitmapImageRep& bitmap, BitmapImageFileType type,
                          const ExportProgress& progress);

// For those who have no error to answer with: one line in the log of a process tells that a module
// cannot be used. Other errors are none of it.
void logUnavailable(const Error& error);

// Whether these are within the limits, and there are as many bytes as they take.
bool isWithinLimits(const BitmapImageRep& bitmap);

// What an ICC profile describes; neither, when it is none, or too large to be kept.
enum class ProfileColours { Neither, RGB, Grey };
ProfileColours coloursOf(std::span<const std::uint8_t> profile);
// The same of a bitmap's profile, but neither for one of grey that does not describe the pixels,
// because some of them are not grey.
ProfileColours fittingProfileColours(const BitmapImageRep& bitmap);
// Leaves out a profile that does not describe the pixels.
void dropUnfitProfile(BitmapImageRep& bitmap);

}  // namespace utilia::platform
