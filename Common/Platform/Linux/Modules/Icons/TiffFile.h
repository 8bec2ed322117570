#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <tiffio.h>

#include "Common/Platform/Linux/Modules/Reason.h"

namespace utilia::platform::icons {

// A TIFF file in memory, opened with libtiff for reading or for writing. What libtiff has to say
// goes to the reason of this file alone: its process-wide handlers belong to the host, which may
// use the same library.
class TiffFile final {
public:
    // The bytes must stay. tiff() is null when they are no TIFF, with a first directory that can be
    // parsed.
    TiffFile(std::span<const std::uint8_t> bytes, Reason reason);
    // For writing; `expectedSize` bytes are set aside.
    TiffFile(std::size_t expectedSize, Reason reason);
    TiffFile(const TiffFile&) = delete;
    TiffFile& operator=(const TiffFile&) = delete;
    ~TiffFile();

    TIFF* tiff() const { return tiff_; }
    Reason& reason() { return reason_; }

    // Ends the writing and hands the bytes out, to be freed with free(); null when something could
    // not be written.
    std::uint8_t* finish(std::size_t* size);

private:
    struct Callbacks;
    bool reserve(std::size_t wanted);

    TIFF* tiff_ = nullptr;
    Reason reason_;
    std::span<const std::uint8_t> read_;
    std::unique_ptr<std::uint8_t, void (*)(void*)> written_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
    std::size_t position_ = 0;
    bool failed_ = false;
};

}  // namespace utilia::platform::icons
