#pragma once

#include <cstdio>
#include <cstdlib>
#include <functional>

#include <jpeglib.h>

#include "Common/Foundation/Value.h"

namespace utilia::test {

// A JPEG file that the library writes by itself. `write` describes the picture, from its size on, and does all from
// jpeg_start_compress() to the last row.
inline Data foreignJpeg(const std::function<void(jpeg_compress_struct&)>& write) {
    jpeg_compress_struct info{};
    jpeg_error_mgr errors{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_compress(&info);
    unsigned char* bytes = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&info, &bytes, &size);
    write(info);
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    Data file(bytes, bytes + size);
    std::free(bytes);
    return file;
}

}  // namespace utilia::test
