#include "Common/Foundation/Error.h"

#include <system_error>

namespace utilia {

Error Error::posix(int errorNumber, std::string_view call, std::string_view object) {
    std::string description(call);
    if (!object.empty()) description.append(" ").append(object);
    // The generic category's text is thread-safe and independent of the process's language.
    description.append(": ").append(std::generic_category().message(errorNumber));
    return {std::string(kPosixErrorDomain), errorNumber, std::move(description)};
}

Error Error::cocoa(CocoaErrorCode code, std::string description) {
    return {std::string(kCocoaErrorDomain), static_cast<int>(code), std::move(description)};
}

Error Error::utilia(UtiliaErrorCode code, std::string description) {
    return {std::string(kUtiliaErrorDomain), static_cast<int>(code), std::move(description)};
}

Error Error::withContext(std::string_view doing) const {
    std::string text(doing);
    text.append(": ").append(description);
    return {domain, code, std::move(text)};
}

}  // namespace utilia
