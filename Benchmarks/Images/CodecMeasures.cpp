#include "Benchmarks/Images/CodecMeasures.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>

#include <jpeglib.h>
#include <png.h>

#include "Common/Platform/Image.h"
#include "Tests/Support/ForeignJpeg.h"
#include "Tests/Support/ForeignPng.h"
#include "Tests/Support/SamplePictures.h"

namespace utilia::bench {
namespace {

using platform::BitmapImageFileType;
using platform::BitmapImageRep;
using platform::Image;

constexpr std::uint32_t kWidth = 1440;
constexpr std::uint32_t kHeight = 4000;
constexpr int kQuality = 90;

Data writePng(const BitmapImageRep& picture) {
    return test::foreignPng([&picture](png_structp png, png_infop info) {
        png_set_IHDR(png, info, picture.pixelsWide, picture.pixelsHigh, 8, PNG_COLOR_TYPE_RGB,
                     PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        png_write_info(png, info);
        png_set_filler(png, 0, PNG_FILLER_AFTER);
        for (std::uint32_t y = 0; y < picture.pixelsHigh; ++y)
            png_write_row(png, picture.rgba.data() + std::size_t{y} * picture.pixelsWide * 4);
    });
}

Data readPng(const Data& file) {
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    const std::uint8_t* left = file.data();
    png_set_read_fn(png, &left, [](png_structp one, png_bytep to, std::size_t count) {
        auto& from = *static_cast<const std::uint8_t**>(png_get_io_ptr(one));
        std::memcpy(to, from, count);
        from += count;
    });
    png_read_info(png, info);
    png_set_add_alpha(png, 0xff, PNG_FILLER_AFTER);
    png_read_update_info(png, info);
    const std::size_t row = png_get_rowbytes(png, info);
    const png_uint_32 high = png_get_image_height(png, info);
    Data pixels(row * high);
    for (png_uint_32 y = 0; y < high; ++y) png_read_row(png, pixels.data() + y * row, nullptr);
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return pixels;
}

Data writeJpeg(const BitmapImageRep& picture) {
    return test::foreignJpeg([&picture](jpeg_compress_struct& info) {
        info.image_width = picture.pixelsWide;
        info.image_height = picture.pixelsHigh;
        info.input_components = 4;
        info.in_color_space = JCS_EXT_RGBX;
        jpeg_set_defaults(&info);
        jpeg_set_quality(&info, kQuality, TRUE);
        info.comp_info[0].h_samp_factor = info.comp_info[0].v_samp_factor = 1;
        jpeg_start_compress(&info, TRUE);
        for (std::uint32_t y = 0; y < picture.pixelsHigh; ++y) {
            JSAMPROW row = const_cast<std::uint8_t*>(picture.rgba.data()) +
                           std::size_t{y} * picture.pixelsWide * 4;
            jpeg_write_scanlines(&info, &row, 1);
        }
    });
}

Data readJpeg(const Data& file) {
    jpeg_decompress_struct info{};
    jpeg_error_mgr errors{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, file.data(), static_cast<unsigned long>(file.size()));
    jpeg_read_header(&info, TRUE);
    info.out_color_space = JCS_EXT_RGBA;
    jpeg_start_decompress(&info);
    const std::size_t rowBytes = std::size_t{info.output_width} * 4;
    Data pixels(rowBytes * info.output_height);
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = pixels.data() + rowBytes * info.output_scanline;
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    return pixels;
}

std::size_t written(Image& image, BitmapImageFileType type) {
    const auto data = image.representationUsingType(0, type);
    if (!data) throw std::runtime_error(data.error().description);
    return data->size();
}

std::size_t read(const Data& file) {
    const auto image = Image::initWithData(file);
    if (!image) throw std::runtime_error("no image");
    return image->pixelsWide();
}

}  // namespace

Figures measureCodecs(const Settings& settings) {
    const BitmapImageRep picture = test::screenshotPicture(kWidth, kHeight);
    const auto image = Image::initWithBitmap(picture);
    const Data png = writePng(picture), jpeg = writeJpeg(picture);
    const std::pair<std::string, std::function<std::size_t()>> ways[] = {
        {"png_write", [&] { return written(*image, BitmapImageFileType::Png); }},
        {"png_write_bare", [&] { return writePng(picture).size(); }},
        {"png_read", [&] { return read(png); }},
        {"png_read_bare", [&] { return readPng(png).size(); }},
        {"jpeg_write", [&] { return written(*image, BitmapImageFileType::Jpeg); }},
        {"jpeg_write_bare", [&] { return writeJpeg(picture).size(); }},
        {"jpeg_read", [&] { return read(jpeg); }},
        {"jpeg_read_bare", [&] { return readJpeg(jpeg).size(); }},
    };
    std::map<std::string, std::vector<double>> times;
    const int rounds = settings.seconds < 0.1 ? 1 : 7;
    for (int round = 0; round < rounds; ++round) {
        for (const auto& [name, work] : ways) {
            const std::uint64_t before = nanoseconds();
            if (work() == 0) throw std::runtime_error(name + " makes nothing");
            times[name].push_back(static_cast<double>(nanoseconds() - before) / 1e6);
        }
    }
    Figures figures;
    for (const auto& [name, work] : ways)
        figures.emplace_back(name + "_ms", percentile(times[name], 50));
    return figures;
}

}  // namespace utilia::bench
