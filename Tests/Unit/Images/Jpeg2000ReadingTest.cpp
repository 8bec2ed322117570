#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openjpeg.h>

#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

struct Channel {
    OPJ_UINT32 bits = 8;
    bool isSigned = false;
    OPJ_UINT32 step = 1;
    OPJ_UINT16 alpha = 0;
};

// A JPEG 2000 file as a stranger might write it.
struct Jpeg2000Kind {
    const char* name = "";
    std::vector<Channel> channels = std::vector<Channel>(3);
    OPJ_COLOR_SPACE space = OPJ_CLRSPC_SRGB;
    OPJ_CODEC_FORMAT format = OPJ_CODEC_JP2;
    OPJ_UINT32 left = 0, top = 0;
    int tile = 0;
    bool isLossy = false;
    OPJ_UINT32 wide = 61, high = 43;

    std::int64_t maximum(std::size_t c) const { return (std::int64_t{1} << channels[c].bits) - 1; }
    // 0 to maximum, at a place of the picture.
    std::int64_t sample(OPJ_UINT32 x, OPJ_UINT32 y, std::size_t c) const {
        x = x / channels[c].step * channels[c].step;
        y = y / channels[c].step * channels[c].step;
        const double share = (x / double(wide) + y / double(high) + 0.2 * double(c)) / 2.7;
        return std::llround(share * double(maximum(c)));
    }
};

Data fileOf(const Jpeg2000Kind& kind) {
    std::vector<opj_image_cmptparm_t> parameters;
    for (const Channel& channel : kind.channels) {
        opj_image_cmptparm_t one{};
        one.dx = one.dy = channel.step;
        one.w = (kind.wide + channel.step - 1) / channel.step;
        one.h = (kind.high + channel.step - 1) / channel.step;
        one.x0 = kind.left;
        one.y0 = kind.top;
        one.prec = channel.bits;
        one.sgnd = channel.isSigned;
        parameters.push_back(one);
    }
    opj_image_t* image =
        opj_image_create(static_cast<OPJ_UINT32>(parameters.size()), parameters.data(), kind.space);
    image->x0 = kind.left;
    image->y0 = kind.top;
    image->x1 = kind.left + kind.wide;
    image->y1 = kind.top + kind.high;
    for (std::size_t c = 0; c < kind.channels.size(); ++c) {
        const Channel& channel = kind.channels[c];
        image->comps[c].alpha = channel.alpha;
        for (OPJ_UINT32 y = 0; y < parameters[c].h; ++y) {
            for (OPJ_UINT32 x = 0; x < parameters[c].w; ++x) {
                const std::int64_t shift =
                    channel.isSigned ? std::int64_t{1} << (channel.bits - 1) : 0;
                image->comps[c].data[std::size_t{y} * parameters[c].w + x] = static_cast<OPJ_INT32>(
                    kind.sample(x * channel.step, y * channel.step, c) - shift);
            }
        }
    }
    opj_cparameters_t settings;
    opj_set_default_encoder_parameters(&settings);
    settings.tcp_numlayers = 1;
    settings.cp_disto_alloc = 1;
    settings.tcp_rates[0] = kind.isLossy ? 3 : 0;
    settings.irreversible = kind.isLossy;
    settings.tcp_mct = 0;
    settings.numresolution = kind.wide < 8 ? 1 : 4;
    if (kind.tile) {
        settings.tile_size_on = OPJ_TRUE;
        settings.cp_tdx = settings.cp_tdy = kind.tile;
        settings.cp_tx0 = settings.cp_ty0 = 0;
    }
    const TemporaryFolder folder;
    const std::string path = (folder.path() / "file").string();
    opj_codec_t* codec = opj_create_compress(kind.format);
    opj_stream_t* stream = opj_stream_create_default_file_stream(path.c_str(), OPJ_FALSE);
    EXPECT_TRUE(opj_setup_encoder(codec, &settings, image));
    EXPECT_TRUE(opj_start_compress(codec, image, stream));
    EXPECT_TRUE(opj_encode(codec, stream));
    EXPECT_TRUE(opj_end_compress(codec, stream));
    opj_stream_destroy(stream);
    opj_destroy_codec(codec);
    opj_image_destroy(image);
    Data file = readFile(path);
    // OpenJPEG writes fewer spaces and kinds of alpha than it reads.
    const std::string text(file.begin(), file.end());
    if (kind.space == OPJ_CLRSPC_CMYK) file[text.find("colr") + 10] = 12;
    if (kind.channels.back().alpha == 2)
        file[text.find("cdef") + 6 + 6 * (kind.channels.size() - 1) + 3] = 2;
    return file;
}

BitmapImageRep expectedOf(const Jpeg2000Kind& kind) {
    BitmapImageRep bitmap{kind.wide, kind.high, {}};
    const auto toByte = [](double value) {
        return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
    };
    for (OPJ_UINT32 y = 0; y < kind.high; ++y) {
        for (OPJ_UINT32 x = 0; x < kind.wide; ++x) {
            std::vector<double> bytes;
            double alpha = 255;
            bool isPremultiplied = false;
            for (std::size_t c = 0; c < kind.channels.size(); ++c) {
                const double byte =
                    std::round(double(kind.sample(x, y, c)) * 255 / double(kind.maximum(c)));
                if (kind.channels[c].alpha) {
                    alpha = byte;
                    isPremultiplied = kind.channels[c].alpha == 2;
                } else {
                    bytes.push_back(byte);
                }
            }
            std::vector<double> rgb;
            if (kind.space == OPJ_CLRSPC_SYCC) {
                rgb = {bytes[0] + 1.402 * (bytes[2] - 128),
                       bytes[0] - 0.344136 * (bytes[1] - 128) - 0.714136 * (bytes[2] - 128),
                       bytes[0] + 1.772 * (bytes[1] - 128)};
            } else if (kind.space == OPJ_CLRSPC_CMYK) {
                for (std::size_t i = 0; i < 3; ++i)
                    rgb.push_back((255 - bytes[i]) * (255 - bytes[3]) / 255);
            } else if (bytes.size() >= 3) {
                rgb = {bytes[0], bytes[1], bytes[2]};
            } else {
                rgb = {bytes[0], bytes[0], bytes[0]};
            }
            for (const double value : rgb)
                bitmap.rgba.push_back(toByte(isPremultiplied ? value * 255 / alpha : value));
            bitmap.rgba.push_back(toByte(alpha));
        }
    }
    return bitmap;
}

std::vector<Jpeg2000Kind> readableKinds() {
    const Channel plain;
    const Channel alpha{.alpha = 1};
    const auto grey = OPJ_CLRSPC_GRAY;
    const auto bare = OPJ_CODEC_J2K;
    return {
        {.name = "RGB"},
        {.name = "RGBA", .channels = {plain, plain, plain, alpha}},
        {.name = "RGBAPremultiplied", .channels = {plain, plain, plain, {.alpha = 2}}},
        {.name = "Grey", .channels = {plain}, .space = grey},
        {.name = "GreyAlpha", .channels = {plain, alpha}, .space = grey},
        {.name = "Grey1", .channels = {{.bits = 1}}, .space = grey},
        {.name = "Grey12", .channels = {{.bits = 12}}, .space = grey},
        {.name = "Grey16Signed", .channels = {{.bits = 16, .isSigned = true}}, .space = grey},
        {.name = "RGB16", .channels = std::vector<Channel>(3, {.bits = 16})},
        {.name = "ChannelsOfDifferentBits", .channels = {{.bits = 5}, {.bits = 6}, {.bits = 10}}},
        {.name = "LumaAndChroma", .space = OPJ_CLRSPC_SYCC},
        {.name = "LumaAndHalfTheChroma",
         .channels = {plain, {.step = 2}, {.step = 2}},
         .space = OPJ_CLRSPC_SYCC},
        {.name = "Inks", .channels = std::vector<Channel>(4), .space = OPJ_CLRSPC_CMYK},
        {.name = "Tiles", .tile = 16},
        {.name = "TilesWithAlpha", .channels = {plain, plain, plain, alpha}, .tile = 32},
        {.name = "TilesOfHalfTheChroma",
         .channels = {plain, {.step = 2}, {.step = 2}},
         .space = OPJ_CLRSPC_SYCC,
         .tile = 16},
        {.name = "BareRGB", .format = bare},
        {.name = "BareGrey", .channels = {plain}, .space = grey, .format = bare},
        {.name = "BareTiles", .format = bare, .tile = 20},
        {.name = "OnePixel", .wide = 1, .high = 1},
    };
}

class Jpeg2000Kinds : public testing::TestWithParam<Jpeg2000Kind> {};
INSTANTIATE_TEST_SUITE_P(All, Jpeg2000Kinds, testing::ValuesIn(readableKinds()),
                         [](const auto& one) { return std::string(one.param.name); });

TEST_P(Jpeg2000Kinds, AreReadAsWritten) {
    const BitmapImageRep read = decoded(fileOf(GetParam()));
    // Conversions of colours round twice.
    const bool isConverted = GetParam().space == OPJ_CLRSPC_SYCC ||
                             GetParam().space == OPJ_CLRSPC_CMYK ||
                             GetParam().channels.back().alpha == 2;
    EXPECT_LE(largestDifference(read, expectedOf(GetParam())), isConverted ? 1 : 0);
}

TEST(Jpeg2000Reading, TakesABareFourthChannelAsAlpha) {
    Jpeg2000Kind kind{.channels = std::vector<Channel>(4), .format = OPJ_CODEC_J2K};
    const BitmapImageRep read = decoded(fileOf(kind));
    kind.channels[3].alpha = 1;
    EXPECT_EQ(largestDifference(read, expectedOf(kind)), 0);
}

TEST(Jpeg2000Reading, ComesCloseToWhatLosesALittle) {
    const Jpeg2000Kind kind{.isLossy = true};
    EXPECT_LE(meanDifference(decoded(fileOf(kind)), expectedOf(kind)), 3);
}

TEST(Jpeg2000Reading, RefusesMoreChannelsThanColoursHave) {
    EXPECT_EQ(Image::initWithData(fileOf({.channels = std::vector<Channel>(9)})), nullptr);
}

TEST(Jpeg2000Reading, RefusesColoursThatAreNotUnderstood) {
    Data file = fileOf({});
    const std::string text(file.begin(), file.end());
    file[text.find("colr") + 10] = 14;  // CIELab
    EXPECT_EQ(Image::initWithData(file), nullptr);
}

}  // namespace
