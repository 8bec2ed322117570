#include "Common/Platform/Linux/Modules/Icons/TiffFile.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace utilia::platform::icons {
namespace {

// The most that libtiff may allocate at once. Its own needs are a row, a strip's bytes, and the
// tables of a directory, which are the largest: 8 bytes for each of at most 1,000,000 strips of 8
// planes, or for each tile.
constexpr tmsize_t kMaximumSingleAllocation = 64 << 20;

}  // namespace

// What libtiff calls; the client data is the file itself.
struct TiffFile::Callbacks {
    static TiffFile& self(thandle_t data) { return *static_cast<TiffFile*>(data); }
    static std::size_t end(const TiffFile& file) {
        return file.written_ ? file.size_ : file.read_.size();
    }

    static tmsize_t read(thandle_t data, void* buffer, tmsize_t size) {
        TiffFile& file = self(data);
        const std::size_t all = end(file);
        if (size <= 0 || file.position_ >= all) return 0;
        const std::size_t count = std::min(static_cast<std::size_t>(size), all - file.position_);
        const std::uint8_t* from = file.written_ ? file.written_.get() : file.read_.data();
        std::memcpy(buffer, from + file.position_, count);
        file.position_ += count;
        return static_cast<tmsize_t>(count);
    }

    static tmsize_t write(thandle_t data, void* buffer, tmsize_t size) {
        TiffFile& file = self(data);
        if (!file.written_ || size < 0) return -1;
        const std::size_t count = static_cast<std::size_t>(size);
        // A seek may have left a gap behind the end, which reads as zeros as in a file.
        if (count > std::numeric_limits<std::size_t>::max() / 2 - file.position_ ||
            !file.reserve(file.position_ + count)) {
            file.failed_ = true;
            return -1;
        }
        if (file.position_ > file.size_) {
            std::memset(file.written_.get() + file.size_, 0, file.position_ - file.size_);
        }
        std::memcpy(file.written_.get() + file.position_, buffer, count);
        file.position_ += count;
        file.size_ = std::max(file.size_, file.position_);
        return size;
    }

    static toff_t seek(thandle_t data, toff_t offset, int whence) {
        TiffFile& file = self(data);
        toff_t base = 0;
        if (whence == SEEK_CUR) base = file.position_;
        if (whence == SEEK_END) base = end(file);
        // Backward seeks arrive as offsets that wrap around.
        const toff_t wanted = base + offset;
        if (wanted > std::numeric_limits<std::size_t>::max() / 2) return static_cast<toff_t>(-1);
        file.position_ = static_cast<std::size_t>(wanted);
        return wanted;
    }

    static int close(thandle_t) { return 0; }
    static toff_t size(thandle_t data) { return end(self(data)); }

    static int map(thandle_t data, void** base, toff_t* size) {
        TiffFile& file = self(data);
        if (file.written_) return 0;
        // libtiff only reads what is mapped: the file is opened for reading.
        *base = const_cast<std::uint8_t*>(file.read_.data());
        *size = file.read_.size();
        return 1;
    }
    static void unmap(thandle_t, void*, toff_t) {}

    static int error(TIFF*, void* data, const char*, const char* format, va_list arguments) {
        self(data).reason_.setFormatted(format, arguments);
        return 1;
    }
    static int warning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

    static TIFF* open(TiffFile& file, const char* mode) {
        const std::unique_ptr<TIFFOpenOptions, void (*)(TIFFOpenOptions*)> options(
            TIFFOpenOptionsAlloc(), TIFFOpenOptionsFree);
        if (!options) return nullptr;
        if (*mode == 'r')
            TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), kMaximumSingleAllocation);
        TIFFOpenOptionsSetErrorHandlerExtR(options.get(), error, &file);
        TIFFOpenOptionsSetWarningHandlerExtR(options.get(), warning, &file);
        return TIFFClientOpenExt("image", mode, &file, read, write, seek, close, size, map, unmap,
                                 options.get());
    }
};

TiffFile::TiffFile(std::span<const std::uint8_t> bytes, Reason reason)
    : reason_(reason), read_(bytes), written_(nullptr, std::free) {
    tiff_ = Callbacks::open(*this, "r");
}

TiffFile::TiffFile(std::size_t expectedSize, Reason reason)
    : reason_(reason),
      written_(static_cast<std::uint8_t*>(std::malloc(expectedSize + 1)), std::free),
      capacity_(expectedSize + 1) {
    if (written_) {
        tiff_ = Callbacks::open(*this, "wl");
    } else {
        reason_.set("not enough memory");
    }
}

TiffFile::~TiffFile() {
    if (tiff_) TIFFClose(tiff_);
}

bool TiffFile::reserve(std::size_t wanted) {
    if (wanted <= capacity_) return true;
    const std::size_t larger = std::max(wanted, capacity_ + capacity_ / 2);
    void* grown = std::realloc(written_.get(), larger);
    if (!grown) return false;
    static_cast<void>(written_.release());
    written_.reset(static_cast<std::uint8_t*>(grown));
    capacity_ = larger;
    return true;
}

std::uint8_t* TiffFile::finish(std::size_t* size) {
    if (!tiff_) return nullptr;
    TIFFClose(tiff_);
    tiff_ = nullptr;
    if (failed_) {
        reason_.set("not enough memory");
        return nullptr;
    }
    *size = size_;
    return written_.release();
}

}  // namespace utilia::platform::icons
