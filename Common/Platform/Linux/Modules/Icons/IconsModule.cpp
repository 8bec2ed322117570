#include "Common/Platform/Linux/Modules/Icons/IconsModule.h"

#include <cstdlib>
#include <new>

#include "Common/Platform/Linux/Modules/Icons/TiffFile.h"
#include "Common/Platform/Linux/Modules/Icons/TiffReader.h"
#include "Common/Platform/Linux/Modules/Icons/TiffWriter.h"

namespace utilia::platform::icons {
namespace {

// Memory that runs out is the one exception that the code below can meet; it ends here.

std::size_t list(const std::uint8_t* bytes, std::size_t size, UtiliaIconsDirectory* directories,
                 std::size_t capacity) noexcept try {
    return listDirectories({bytes, size}, {directories, capacity});
} catch (const std::bad_alloc&) {
    return 0;
}

bool decode(const std::uint8_t* bytes, std::size_t size, std::uint32_t number, std::uint8_t* rgba,
            std::size_t rgbaSize, const UtiliaIconsProfileTaker* profile, char* reason) noexcept
    try {
    return decodeDirectory({bytes, size}, number, {rgba, rgbaSize}, *profile, Reason(reason));
} catch (const std::bad_alloc&) {
    Reason(reason).set("not enough memory");
    return false;
}

std::uint8_t* encode(const UtiliaIconsBitmap* bitmaps, std::size_t count, std::size_t* size,
                     const UtiliaIconsProgress* progress, char* reason) noexcept try {
    return encodeBitmaps({bitmaps, count}, size, progress, Reason(reason));
} catch (const std::bad_alloc&) {
    Reason(reason).set("not enough memory");
    return nullptr;
}

void release(std::uint8_t* bytes) noexcept { std::free(bytes); }

}  // namespace
}  // namespace utilia::platform::icons

extern "C" __attribute__((visibility("default"))) const UtiliaIconsModule utiliaIconsModule;
const UtiliaIconsModule utiliaIconsModule = {
    kUtiliaIconsVersion,
    utilia::platform::icons::list,
    utilia::platform::icons::decode,
    utilia::platform::icons::encode,
    utilia::platform::icons::release,
};
