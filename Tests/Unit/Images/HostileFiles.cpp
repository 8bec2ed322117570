#include "Tests/Unit/Images/HostileFiles.h"

#include <algorithm>
#include <ostream>

#include <zlib.h>

namespace utilia::test {
namespace {

// Appends numbers in one byte order.
class Writer final {
public:
    enum class Order { Big, Little };
    explicit Writer(Order order) : order_(order) {}

    Writer& number(std::uint64_t value, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            const std::size_t place = order_ == Order::Big ? size - 1 - i : i;
            bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * place)));
        }
        return *this;
    }
    Writer& u8(std::uint64_t value) { return number(value, 1); }
    Writer& u16(std::uint64_t value) { return number(value, 2); }
    Writer& u32(std::uint64_t value) { return number(value, 4); }
    Writer& text(std::string_view value) {
        bytes_.insert(bytes_.end(), value.begin(), value.end());
        return *this;
    }
    Writer& bytes(const FileBytes& value) {
        bytes_.insert(bytes_.end(), value.begin(), value.end());
        return *this;
    }
    Writer& fill(std::size_t count, std::uint8_t value = 0) {
        bytes_.insert(bytes_.end(), count, value);
        return *this;
    }
    const FileBytes& done() const { return bytes_; }

private:
    Order order_;
    FileBytes bytes_;
};

Writer big() { return Writer(Writer::Order::Big); }
Writer little() { return Writer(Writer::Order::Little); }

// `size` zeros, packed as zlib packs them: a thousandth of it.
FileBytes packedZeros(std::size_t size) {
    z_stream state{};
    deflateInit(&state, 9);
    FileBytes packed;
    FileBytes zeros(1 << 20);
    FileBytes piece(1 << 16);
    for (int result = Z_OK; result != Z_STREAM_END;) {
        if (state.avail_in == 0 && size > 0) {
            const std::size_t count = std::min(size, zeros.size());
            state.next_in = zeros.data();
            state.avail_in = static_cast<uInt>(count);
            size -= count;
        }
        state.next_out = piece.data();
        state.avail_out = static_cast<uInt>(piece.size());
        result = deflate(&state, size == 0 ? Z_FINISH : Z_NO_FLUSH);
        packed.insert(packed.end(), piece.data(), state.next_out);
    }
    deflateEnd(&state);
    return packed;
}

// PNG

FileBytes chunk(std::string_view type, const FileBytes& content) {
    const FileBytes checked = big().text(type).bytes(content).done();
    const auto checksum = crc32(0, checked.data(), static_cast<uInt>(checked.size()));
    return big().u32(content.size()).bytes(checked).u32(checksum).done();
}

Writer png(std::uint32_t width, std::uint32_t height, unsigned bits = 8, unsigned colour = 6,
           unsigned interlace = 0) {
    Writer file = big();
    file.text("\x89PNG\r\n\x1a\n");
    return file.bytes(chunk(
        "IHDR", big().u32(width).u32(height).u8(bits).u8(colour).u8(0).u8(0).u8(interlace).done()));
}

FileBytes finished(Writer file, const FileBytes& data) {
    return file.bytes(chunk("IDAT", data)).bytes(chunk("IEND", {})).done();
}

// JPEG

FileBytes segment(unsigned marker, const FileBytes& content) {
    return big().u8(0xff).u8(marker).u16(content.size() + 2).bytes(content).done();
}

FileBytes frame(unsigned marker, unsigned width, unsigned height, unsigned components) {
    Writer content = big();
    content.u8(8).u16(height).u16(width).u8(components);
    for (unsigned i = 1; i <= components; ++i) content.u8(i).u8(0x11).u8(0);
    return segment(marker, content.done());
}

// A table with one code of one bit, for a block without content.
FileBytes shortestCodes(unsigned kind) {
    return segment(0xc4, big().u8(kind).u8(1).fill(15).u8(0).done());
}

FileBytes scan(unsigned components, unsigned first, unsigned last, unsigned approximation,
               const FileBytes& data) {
    Writer content = big();
    content.u8(components);
    for (unsigned i = 1; i <= components; ++i) content.u8(i).u8(0);
    content.u8(first).u8(last).u8(approximation);
    return big().bytes(segment(0xda, content.done())).bytes(data).done();
}

Writer jpeg(unsigned frameMarker, unsigned width, unsigned height, unsigned components = 3) {
    Writer file = big();
    file.u16(0xffd8).bytes(segment(0xdb, big().u8(0).fill(64, 1).done()));
    return file.bytes(frame(frameMarker, width, height, components))
        .bytes(shortestCodes(0x00))
        .bytes(shortestCodes(0x10));
}

// GIF

Writer gif(unsigned width, unsigned height) {
    Writer file = little();
    file.text("GIF89a").u16(width).u16(height).u8(0x80).u8(0).u8(0);
    return file.text(std::string_view("\0\0\0\xff\xff\xff", 6));
}

Writer& gifFrame(Writer& file, unsigned left, unsigned top, unsigned width, unsigned height,
                 unsigned codeSize, unsigned flags = 0) {
    return file.u8(0x2c).u16(left).u16(top).u16(width).u16(height).u8(flags).u8(codeSize);
}

// BMP

Writer bmp(std::uint32_t width, std::uint32_t height, unsigned bits, std::uint32_t compression,
           std::uint32_t colours = 0, std::uint32_t offset = 54) {
    Writer file = little();
    file.text("BM").u32(1000).u32(0).u32(offset);
    file.u32(40).u32(width).u32(height).u16(1).u16(bits).u32(compression).u32(0);
    return file.u32(2835).u32(2835).u32(colours).u32(0);
}

// JPEG 2000, as a bare codestream

Writer jpeg2000(std::uint32_t width, std::uint32_t height, std::uint32_t tileWidth,
                std::uint32_t tileHeight, unsigned components, unsigned bits = 7) {
    Writer file = big();
    file.u16(0xff4f).u16(0xff51).u16(38 + 3 * components).u16(0);
    file.u32(width).u32(height).u32(0).u32(0).u32(tileWidth).u32(tileHeight).u32(0).u32(0);
    file.u16(components);
    for (unsigned i = 0; i < components; ++i) file.u8(bits).u8(1).u8(1);
    // COD: one layer, five levels, blocks of 64; QCD: none.
    file.u16(0xff52).u16(12).u8(0).u8(0).u16(1).u8(0).u8(5).u8(4).u8(4).u8(0).u8(1);
    file.u16(0xff5c).u16(19).u8(0x40);
    for (unsigned i = 0; i < 16; ++i) file.u8(0x48);
    return file;
}

FileBytes withTile(Writer file, std::uint32_t length) {
    return file.u16(0xff90)
        .u16(10)
        .u16(0)
        .u32(length)
        .u8(0)
        .u8(1)
        .u16(0xff93)
        .fill(64)
        .u16(0xffd9)
        .done();
}

// TIFF

struct Entry {
    unsigned tag;
    unsigned type;  // 3: 16 bits, 4: 32 bits
    std::uint32_t count;
    std::uint32_t value;
};

FileBytes tiff(const std::vector<Entry>& entries, std::uint32_t next = 0, std::size_t more = 0) {
    Writer file = little();
    file.text("II").u16(42).u32(8).u16(entries.size());
    for (const Entry& entry : entries)
        file.u16(entry.tag).u16(entry.type).u32(entry.count).u32(entry.value);
    return file.u32(next).fill(more).done();
}

std::vector<Entry> tiffOf(std::uint32_t width, std::uint32_t height, std::uint32_t rowsPerStrip,
                          std::uint32_t strips, std::uint32_t bytes, unsigned compression = 1) {
    return {
        {256, 4, 1, width},     {257, 4, 1, height},   {258, 3, 1, 8}, {259, 3, 1, compression},
        {262, 3, 1, 1},         {273, 4, strips, 200}, {277, 3, 1, 1}, {278, 4, 1, rowsPerStrip},
        {279, 4, strips, bytes}};
}

}  // namespace

void PrintTo(const HostileFile& file, std::ostream* out) { *out << file.name; }

std::vector<HostileFile> hostilePngs() {
    const FileBytes little_ = packedZeros(100);
    FileBytes wrongSum = chunk("IDAT", packedZeros(8 * 33));
    wrongSum.back() = static_cast<std::uint8_t>(wrongSum.back() ^ 1);
    return {
        {"all that a header can claim", finished(png(0x7fffffff, 0x7fffffff), little_)},
        {"more pixels than there may be", finished(png(1'000'000, 1'000'000), little_)},
        {"as many as there may be, without data", finished(png(14'000, 14'000), little_)},
        {"a row that is too long", finished(png(200'000'000, 1), little_)},
        {"one bit a pixel, and few bits", finished(png(14'000, 14'000, 1, 0), little_)},
        {"interlaced, without data", finished(png(14'000, 14'000, 8, 6, 1), little_)},
        {"no width", finished(png(0, 10), little_)},
        {"no height", finished(png(10, 0), little_)},
        {"a palette of 16 bits", finished(png(8, 8, 16, 3), little_)},
        {"an unknown colour", finished(png(8, 8, 8, 5), little_)},
        {"an unknown interlacing", finished(png(8, 8, 8, 6, 2), little_)},
        {"a palette that is missing", finished(png(8, 8, 8, 3), packedZeros(72))},
        {"rows that are missing", finished(png(100, 100), packedZeros(401 * 50))},
        {"no data", png(8, 8).bytes(chunk("IEND", {})).done()},
        {"data that is none", finished(png(8, 8), FileBytes(300, 0xaa))},
        {"a wrong sum", png(8, 8).bytes(wrongSum).bytes(chunk("IEND", {})).done()},
        {"an endless chunk", png(8, 8).u32(0x7fffffff).text("IDAT").fill(100).done()},
        {"a chunk of 4 GiB", png(8, 8).u32(0xffffffff).text("tEXt").fill(100).done()},
        {"an unknown filter",
         finished(png(8, 8),
                  [] {
                      FileBytes rows(33 * 8, 9);
                      uLongf size = compressBound(static_cast<uLong>(rows.size()));
                      FileBytes packed(size);
                      compress(packed.data(), &size, rows.data(), static_cast<uLong>(rows.size()));
                      packed.resize(size);
                      return packed;
                  }())},
    };
}

std::vector<HostileFile> hostileJpegs() {
    const FileBytes end = big().u16(0xffd9).done();
    const auto withScan = [&](Writer file, unsigned components) {
        return file.bytes(scan(components, 0, 63, 0, FileBytes(8, 0))).bytes(end).done();
    };
    Writer scans = jpeg(0xc2, 7000, 7000);
    scans.bytes(scan(3, 0, 0, 0, FileBytes(16, 0)));
    for (int i = 0; i < 3000; ++i) scans.bytes(scan(1, 1, 63, 0, FileBytes(4, 0)));
    return {
        {"as large as a header can claim", withScan(jpeg(0xc0, 65'500, 65'500), 3)},
        {"as many pixels as there may be, without data", withScan(jpeg(0xc0, 14'000, 14'000), 3)},
        {"the same, progressive", withScan(jpeg(0xc2, 14'000, 14'000), 3)},
        {"thousands of scans", scans.bytes(end).done()},
        {"no height", withScan(jpeg(0xc0, 100, 0), 3)},
        {"no width", withScan(jpeg(0xc0, 0, 100), 3)},
        {"no components", withScan(jpeg(0xc0, 16, 16, 0), 1)},
        {"too many components", withScan(jpeg(0xc0, 16, 16, 9), 3)},
        {"a scan of what is not in the frame", withScan(jpeg(0xc0, 16, 16, 1), 3)},
        {"no scan", jpeg(0xc0, 16, 16).bytes(end).done()},
        {"no frame", big().u16(0xffd8).bytes(scan(1, 0, 63, 0, {0, 0})).bytes(end).done()},
        {"two frames", withScan(jpeg(0xc0, 16, 16).bytes(frame(0xc0, 1000, 1000, 3)), 3)},
        {"a frame without loss", withScan(jpeg(0xc3, 16, 16), 3)},
        {"a segment that is too long",
         big().u16(0xffd8).u8(0xff).u8(0xe1).u16(0xffff).fill(100).done()},
        {"a segment without length", big().u16(0xffd8).u16(0xffe1).u16(0).fill(10).done()},
        {"nothing behind the start", big().u16(0xffd8).u16(0xffd9).done()},
        {"codes that are too many",
         big()
             .u16(0xffd8)
             .bytes(segment(0xc4, big().u8(0).fill(16, 255).fill(200).done()))
             .bytes(end)
             .done()},
    };
}

std::vector<HostileFile> hostileGifs() {
    const auto file = [](unsigned width, unsigned height, unsigned frameWidth, unsigned frameHeight,
                         unsigned codeSize, const FileBytes& data) {
        Writer writer = gif(width, height);
        return gifFrame(writer, 0, 0, frameWidth, frameHeight, codeSize).bytes(data).done();
    };
    const FileBytes pixel = {2, 0x44, 0x01, 0, 0x3b};
    Writer extensions = gif(10, 10);
    for (int i = 0; i < 100'000; ++i) extensions.u8(0x21).u8(0xfe).u8(0);
    Writer outside = gif(10, 10);
    return {
        {"all that a header can claim", file(65'535, 65'535, 1, 1, 2, pixel)},
        {"a large canvas for one pixel", file(14'000, 14'000, 1, 1, 2, pixel)},
        {"a large frame without data", file(14'000, 14'000, 14'000, 14'000, 2, pixel)},
        {"a frame far outside",
         gifFrame(outside, 65'535, 65'535, 65'535, 65'535, 2).bytes(pixel).done()},
        {"a frame without pixels", file(10, 10, 0, 0, 2, pixel)},
        {"rows that are missing", file(10, 10, 10, 10, 2, pixel)},
        {"codes of 13 bits", file(2, 2, 2, 2, 13, pixel)},
        {"codes of 255 bits", file(2, 2, 2, 2, 255, pixel)},
        {"codes that no table has", file(4, 4, 4, 4, 2, {4, 0xff, 0xff, 0xff, 0xff, 0, 0x3b})},
        {"a block that is cut off", file(4, 4, 4, 4, 2, {200, 0x44})},
        {"extensions and no frame", extensions.u8(0x3b).done()},
        {"no frame", gif(10, 10).u8(0x3b).done()},
        {"an unknown block", gif(10, 10).fill(50, 0x77).done()},
        {"nothing but the header", gif(10, 10).done()},
        {"no colours", little()
                           .text("GIF89a")
                           .u16(4)
                           .u16(4)
                           .fill(3)
                           .u8(0x2c)
                           .fill(4)
                           .u16(4)
                           .u16(4)
                           .u8(0)
                           .u8(2)
                           .bytes(pixel)
                           .done()},
    };
}

std::vector<HostileFile> hostileBmps() {
    constexpr std::uint32_t kNone = 0, kRle8 = 1, kMasks = 3;
    return {
        {"all that a header can claim", bmp(0x7fffffff, 0x7fffffff, 24, kNone).fill(100).done()},
        {"the least height", bmp(10, 0x80000000, 24, kNone).fill(400).done()},
        {"a negative width", bmp(0xffffffff, 10, 24, kNone).fill(400).done()},
        {"as many pixels as there may be, without data",
         bmp(14'000, 14'000, 24, kNone).fill(100).done()},
        {"the same, packed", bmp(14'000, 14'000, 8, kRle8).fill(1024 + 100).done()},
        {"one bit a pixel", bmp(14'000, 14'000, 1, kNone).fill(100).done()},
        {"no width", bmp(0, 10, 24, kNone).fill(400).done()},
        {"no height", bmp(10, 0, 24, kNone).fill(400).done()},
        {"no bits", bmp(10, 10, 0, kNone).fill(400).done()},
        {"7 bits", bmp(10, 10, 7, kNone).fill(400).done()},
        {"rows that are missing", bmp(10, 10, 24, kNone).fill(100).done()},
        {"data behind the end", bmp(10, 10, 24, kNone, 0, 0xffffff00).fill(400).done()},
        {"an unknown packing", bmp(10, 10, 24, 77).fill(400).done()},
        {"packing of 24 bits as 8", bmp(10, 10, 24, kRle8).fill(400).done()},
        {"masks that lie over one another",
         bmp(4, 4, 32, kMasks).u32(0xffffff).u32(0xffffff).u32(0xffffff).u32(0xff).fill(8).done()},
        {"a header without end",
         little().text("BM").u32(0).u32(0).u32(54).u32(0xffffffff).fill(100).done()},
    };
}

std::vector<HostileFile> hostileJpeg2000s() {
    const auto box = [](std::uint32_t length, std::string_view type) {
        return big().u32(12).text("jP  ").u32(0x0d0a870a).u32(length).text(type).fill(40).done();
    };
    return {
        {"all that a header can claim",
         withTile(jpeg2000(0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff, 1), 0)},
        {"as many pixels as there may be",
         withTile(jpeg2000(14'000, 14'000, 14'000, 14'000, 3), 0)},
        {"as many tiles as pixels", withTile(jpeg2000(100'000, 1000, 1, 1, 3), 0)},
        {"16,384 components", withTile(jpeg2000(64, 64, 64, 64, 16'384), 0)},
        {"no components", withTile(jpeg2000(64, 64, 64, 64, 0), 0)},
        {"no size", withTile(jpeg2000(0, 0, 64, 64, 1), 0)},
        {"tiles without size", withTile(jpeg2000(64, 64, 0, 0, 1), 0)},
        {"no tile", jpeg2000(64, 64, 64, 64, 1).u16(0xffd9).done()},
        {"a tile that is too long", withTile(jpeg2000(64, 64, 64, 64, 1), 0x7fffffff)},
        {"nothing but the start", big().u16(0xff4f).u16(0xff51).done()},
        {"boxes that go round", box(0, "ftyp")},
        {"a box that is too long", box(0xffffffff, "jp2h")},
        {"a box that is too short", box(3, "jp2c")},
    };
}

std::vector<HostileFile> hostileTiffs() {
    return {
        {"all that a header can claim",
         tiff(tiffOf(0xffffffff, 0xffffffff, 0xffffffff, 1, 10), 0, 300)},
        {"as many pixels as there may be, without data",
         tiff(tiffOf(14'000, 14'000, 14'000, 1, 10, 8), 0, 300)},
        {"a strip for each of a million rows", tiff(tiffOf(1, 1'000'000, 1, 1'000'000, 1), 0, 300)},
        {"a directory that follows itself", tiff({{256, 3, 1, 1}}, 8, 100)},
        {"a directory of 65,535 entries",
         little().text("II").u16(42).u32(8).u16(0xffff).fill(100).done()},
        {"a directory behind the end", little().text("II").u16(42).u32(0xfffffff0).done()},
    };
}

namespace {

// Much that is packed into little, but is not the picture's.
constexpr std::size_t kMuch = 512u << 20;

FileBytes pngWith(const FileBytes& chunks) {
    return finished(png(8, 8).bytes(chunks), packedZeros(33 * 8));
}

FileBytes manyTexts() {
    Writer texts = big();
    const FileBytes one = chunk("tEXt", big().text("a").u8(0).text("b").done());
    for (int i = 0; i < 200'000; ++i) texts.bytes(one);
    return texts.done();
}

// A small grey picture with these segments before its own.
FileBytes jpegWith(const FileBytes& segments) {
    Writer file = jpeg(0xc0, 8, 8, 1);
    file.bytes(scan(1, 0, 63, 0, {0x00})).u16(0xffd9);
    const FileBytes rest(file.done().begin() + 2, file.done().end());
    return big().u16(0xffd8).bytes(segments).bytes(rest).done();
}

FileBytes wrongOrientation() {
    return segment(
        0xe1,
        big().text("Exif").u16(0).text("MM").u16(42).u32(8).u16(0xffff).fill(200, 0xff).done());
}

FileBytes profileOf15Megabytes() {
    Writer segments = big();
    for (unsigned i = 1; i <= 255; ++i) {
        segments.bytes(
            segment(0xe2, big().text("ICC_PROFILE").u8(0).u8(i).u8(255).fill(60'000, 0x41).done()));
    }
    return segments.done();
}

}  // namespace

std::vector<HostileFile> oddFiles() {
    const auto packed = [](std::string_view name) {
        return chunk(name, big().text("n").u8(0).u8(0).bytes(packedZeros(kMuch)).done());
    };
    return {
        {"a profile of half a gigabyte in a PNG", [=] { return pngWith(packed("iCCP")); }},
        {"a text of half a gigabyte in a PNG", [=] { return pngWith(packed("zTXt")); }},
        {"200,000 texts in a PNG", [] { return pngWith(manyTexts()); }},
        {"half a gigabyte behind the pixels of a PNG",
         [] { return finished(png(8, 8), packedZeros(kMuch)); }},
        {"an orientation that leads astray in a JPEG", jpegWith(wrongOrientation())},
        {"a profile of 15 megabytes in a JPEG", [] { return jpegWith(profileOf15Megabytes()); }},
        {"more in a BMP than it says", bmp(4, 4, 8, 0, 256, 54 + 1024).fill(1024 + 16).done()},
        {"a palette without end in a BMP", bmp(10, 10, 8, 0, 0xffffffff).fill(400).done()},
        {"four thousand million strips in a TIFF", tiff(tiffOf(10, 10, 1, 0xffffffff, 1), 0, 300)},
    };
}

}  // namespace utilia::test
