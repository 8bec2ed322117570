#include "Common/Platform/Linux/Modules/Reason.h"

#include <cstdio>

namespace utilia::platform {

void Reason::set(const char* text) {
    if (buffer_ && !*buffer_) std::snprintf(buffer_, kSize, "%s", text);
}

void Reason::setFormatted(const char* format, va_list arguments) {
    if (buffer_ && !*buffer_) std::vsnprintf(buffer_, kSize, format, arguments);
}

}  // namespace utilia::platform
