#pragma once

#include <cstdarg>
#include <cstddef>

namespace utilia::platform {

// Where a module puts the reason of a failure: a buffer of kSize bytes, or nowhere. The first one
// stays.
class Reason final {
public:
    static constexpr std::size_t kSize = 256;

    explicit Reason(char* buffer) : buffer_(buffer) {
        if (buffer_) *buffer_ = 0;
    }
    void set(const char* text);
    void setFormatted(const char* format, va_list arguments);

    // For `return reason.refuse("no such picture")`.
    bool refuse(const char* text) {
        set(text);
        return false;
    }

private:
    char* buffer_;
};

}  // namespace utilia::platform
