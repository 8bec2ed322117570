#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <openjpeg.h>

#include "Common/Platform/Linux/Modules/Export/Codec.h"

namespace utilia::platform::bitmaps {

// OpenJPEG has one type for its codecs and its streams.
template <auto close>
struct Jpeg2000Closer {
    template <class T>
    void operator()(T* one) const {
        close(one);
    }
};
using Jpeg2000Codec = std::unique_ptr<opj_codec_t, Jpeg2000Closer<opj_destroy_codec>>;
using Jpeg2000Image = std::unique_ptr<opj_image_t, Jpeg2000Closer<opj_image_destroy>>;

// A file in memory as OpenJPEG reads or writes it.
class Jpeg2000Stream final {
public:
    // The bytes must stay.
    explicit Jpeg2000Stream(Bytes bytes);
    // For writing.
    Jpeg2000Stream();
    Jpeg2000Stream(const Jpeg2000Stream&) = delete;
    Jpeg2000Stream& operator=(const Jpeg2000Stream&) = delete;

    opj_stream_t* stream() const { return stream_.get(); }  // null without memory
    const std::vector<std::uint8_t>& written() const { return written_; }

private:
    struct Callbacks;
    void open(bool isRead);
    std::size_t end() const { return isRead_ ? read_.size() : written_.size(); }

    bool isRead_ = false;
    Bytes read_;
    std::vector<std::uint8_t> written_;
    std::size_t position_ = 0;
    std::unique_ptr<opj_stream_t, Jpeg2000Closer<opj_stream_destroy>> stream_;
};

// Has the first error that the codec reports kept as the reason, and everything else dropped.
void reportTo(Reason& reason, opj_codec_t* codec);

}  // namespace utilia::platform::bitmaps
