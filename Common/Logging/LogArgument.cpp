#include "Common/Logging/LogArgument.h"

namespace utilia {

LogArgument::LogArgument(const char* text) {
    if (text) value_ = std::string_view(text);
}

LogArgument::LogArgument(const std::optional<std::string>& text) {
    if (text) value_ = std::string_view(*text);
}

LogArgument::LogArgument(const Error& error) : value_(std::string_view(error.description)) {}

}  // namespace utilia
