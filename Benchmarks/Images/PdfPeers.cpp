#include "Benchmarks/Images/PdfPeers.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <cairo-pdf.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace utilia::bench {

namespace {

cairo_status_t append(void* document, const unsigned char* bytes, unsigned int size) {
    auto& all = *static_cast<Data*>(document);
    all.insert(all.end(), bytes, bytes + size);
    return CAIRO_STATUS_SUCCESS;
}

}  // namespace

std::size_t cairoPages(const platform::BitmapImageRep& picture, std::uint32_t pageHeight) {
    Data document;
    cairo_surface_t* const pdf =
        cairo_pdf_surface_create_for_stream(append, &document, picture.pixelsWide, pageHeight);
    cairo_t* const context = cairo_create(pdf);
    const std::size_t width = picture.pixelsWide;
    for (std::uint32_t row = 0; row < picture.pixelsHigh; row += pageHeight) {
        const std::uint32_t rows = std::min(pageHeight, picture.pixelsHigh - row);
        cairo_surface_t* const slice = cairo_image_surface_create(
            CAIRO_FORMAT_RGB24, static_cast<int>(width), static_cast<int>(rows));
        unsigned char* const pixels = cairo_image_surface_get_data(slice);
        const auto stride = static_cast<std::size_t>(cairo_image_surface_get_stride(slice));
        for (std::uint32_t y = 0; y < rows; ++y) {
            const std::uint8_t* from = picture.rgba.data() + (std::size_t{row} + y) * width * 4;
            unsigned char* to = pixels + y * stride;
            for (std::size_t x = 0; x < width; ++x, from += 4, to += 4) {
                const std::uint32_t pixel = static_cast<std::uint32_t>(from[0]) << 16 |
                                            static_cast<std::uint32_t>(from[1]) << 8 | from[2];
                std::memcpy(to, &pixel, sizeof pixel);
            }
        }
        cairo_surface_mark_dirty(slice);
        cairo_set_source_surface(context, slice, 0, 0);
        cairo_paint(context);
        cairo_show_page(context);
        cairo_surface_destroy(slice);
    }
    cairo_destroy(context);
    cairo_surface_finish(pdf);
    const bool isDone = cairo_surface_status(pdf) == CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(pdf);
    if (!isDone) throw std::runtime_error("cairo makes no PDF");
    return document.size();
}

MagickPages graphicsMagickPages(const std::string& pixels, std::uint32_t width,
                                std::uint32_t height, std::uint32_t pageHeight,
                                const std::string& document) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    const std::string page = std::to_string(width) + "x" + std::to_string(pageHeight);
    const std::string from = "rgba:" + pixels;
    const std::string words[] = {"gm",    "convert",   "-size",  size,    "-depth",
                                 "8",     from,        "+matte", "-crop", page,
                                 "+page", "-compress", "zip",    document};
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    pid_t child = -1;
    if (posix_spawnp(&child, "gm", nullptr, nullptr, arguments.data(), environ) != 0)
        throw std::runtime_error("gm cannot be started");
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child || status != 0)
        throw std::runtime_error("gm makes no PDF");
    return {std::filesystem::file_size(document),
            static_cast<std::uint64_t>(usage.ru_maxrss) * 1024};
}

}  // namespace utilia::bench
