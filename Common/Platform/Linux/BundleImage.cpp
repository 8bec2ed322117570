#include <string>

#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Image.h"

namespace utilia::platform {

std::shared_ptr<Image> Bundle::imageForResource(std::string_view name) const {
    const auto path = pathForResource(name, "png");
    if (!path) return nullptr;
    auto image = Image::imageWithContentsOfFile(*path);
    if (!image) return nullptr;
    for (const char* const scale : {"@2x", "@3x"}) {
        const auto largerPath = pathForResource(std::string(name) + scale, "png");
        if (!largerPath) continue;
        const auto larger = Image::imageWithContentsOfFile(*largerPath);
        auto bitmap = larger ? (*larger)->representation(0) : larger.error();
        if (!bitmap || !(*image)->addRepresentation(*std::move(bitmap))) {
            KULogVariadic("An image of a bundle lacks a size: %@",
                          bitmap ? *largerPath : bitmap.error().description);
        }
    }
    return *std::move(image);
}

}  // namespace utilia::platform
