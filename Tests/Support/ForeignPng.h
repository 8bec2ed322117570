#pragma once

#include <functional>

#include <png.h>

#include "Common/Foundation/Value.h"

namespace utilia::test {

// A PNG file that libpng writes by itself. `write` describes the picture (png_set_IHDR…) and writes information and rows,
// all but the end.
inline Data foreignPng(const std::function<void(png_structp, png_infop)>& write) {
    Data file;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(
        png, &file,
        [](png_structp one, png_bytep bytes, std::size_t count) {
            auto& to = *static_cast<Data*>(png_get_io_ptr(one));
            to.insert(to.end(), bytes, bytes + count);
        },
        nullptr);
    write(png, info);
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return file;
}

}  // namespace utilia::test
