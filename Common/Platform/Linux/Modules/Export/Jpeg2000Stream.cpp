#include "Common/Platform/Linux/Modules/Export/Jpeg2000Stream.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace utilia::platform::bitmaps {
namespace {

constexpr std::size_t kBuffer = 1 << 18;
constexpr OPJ_SIZE_T kNoBytes = static_cast<OPJ_SIZE_T>(-1);

}  // namespace

// What OpenJPEG calls.
struct Jpeg2000Stream::Callbacks {
    static Jpeg2000Stream& self(void* data) { return *static_cast<Jpeg2000Stream*>(data); }

    static OPJ_SIZE_T read(void* to, OPJ_SIZE_T count, void* data) {
        Jpeg2000Stream& file = self(data);
        if (file.position_ >= file.read_.size()) return kNoBytes;
        const std::size_t taken = std::min<std::size_t>(count, file.read_.size() - file.position_);
        std::memcpy(to, file.read_.data() + file.position_, taken);
        file.position_ += taken;
        return taken;
    }

    static OPJ_SIZE_T write(void* from, OPJ_SIZE_T count, void* data) noexcept try {
        Jpeg2000Stream& file = self(data);
        const std::size_t end = file.position_ + count;
        if (end > file.written_.size()) file.written_.resize(end);
        std::memcpy(file.written_.data() + file.position_, from, count);
        file.position_ = end;
        return count;
    } catch (const std::bad_alloc&) {
        return kNoBytes;
    }

    static OPJ_OFF_T skip(OPJ_OFF_T count, void* data) noexcept try {
        Jpeg2000Stream& file = self(data);
        if (count < 0) return -1;
        const auto wanted = static_cast<std::size_t>(count);
        if (file.isRead_) {
            const std::size_t taken =
                std::min(wanted, file.end() - std::min(file.end(), file.position_));
            if (taken == 0 && wanted != 0) return -1;
            file.position_ += taken;
            return static_cast<OPJ_OFF_T>(taken);
        }
        file.position_ += wanted;
        if (file.position_ > file.written_.size()) file.written_.resize(file.position_);
        return count;
    } catch (const std::bad_alloc&) {
        return -1;
    }

    static OPJ_BOOL seek(OPJ_OFF_T to, void* data) {
        Jpeg2000Stream& file = self(data);
        if (to < 0 || static_cast<std::size_t>(to) > file.end()) return OPJ_FALSE;
        file.position_ = static_cast<std::size_t>(to);
        return OPJ_TRUE;
    }
};

Jpeg2000Stream::Jpeg2000Stream(Bytes bytes) : isRead_(true), read_(bytes) { open(true); }

Jpeg2000Stream::Jpeg2000Stream() { open(false); }

void Jpeg2000Stream::open(bool isRead) {
    stream_.reset(opj_stream_create(kBuffer, isRead));
    if (!stream_) return;
    opj_stream_set_user_data(stream_.get(), this, nullptr);
    opj_stream_set_user_data_length(stream_.get(), read_.size());
    opj_stream_set_read_function(stream_.get(), Callbacks::read);
    opj_stream_set_write_function(stream_.get(), Callbacks::write);
    opj_stream_set_skip_function(stream_.get(), Callbacks::skip);
    opj_stream_set_seek_function(stream_.get(), Callbacks::seek);
}

void reportTo(Reason& reason, opj_codec_t* codec) {
    const auto ignore = [](const char*, void*) {};
    opj_set_info_handler(codec, ignore, nullptr);
    opj_set_warning_handler(codec, ignore, nullptr);
    opj_set_error_handler(
        codec,
        [](const char* text, void* data) {
            char line[Reason::kSize];
            const std::size_t length = std::min(std::strcspn(text, "\n"), sizeof line - 1);
            std::memcpy(line, text, length);
            line[length] = 0;
            static_cast<Reason*>(data)->set(line);
        },
        &reason);
}

}  // namespace utilia::platform::bitmaps
