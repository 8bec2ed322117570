#include "Common/Foundation/Error.h"

#include <cerrno>
#include <system_error>

namespace utilia {
namespace {

CocoaErrorCode readingCode(int errorNumber) {
    switch (errorNumber) {
    case ENOENT:
        return CocoaErrorCode::FileReadNoSuchFile;
    case EACCES:
    case EPERM:
        return CocoaErrorCode::FileReadNoPermission;
    case ENAMETOOLONG:
        return CocoaErrorCode::FileReadInvalidFileName;
    case EFBIG:
        return CocoaErrorCode::FileReadTooLarge;
    default:
        return CocoaErrorCode::FileReadUnknown;
    }
}

CocoaErrorCode writingCode(int errorNumber) {
    switch (errorNumber) {
    case ENOENT:
        return CocoaErrorCode::FileNoSuchFile;
    case EACCES:
    case EPERM:
        return CocoaErrorCode::FileWriteNoPermission;
    case ENAMETOOLONG:
        return CocoaErrorCode::FileWriteInvalidFileName;
    case EEXIST:
        return CocoaErrorCode::FileWriteFileExists;
    case ENOSPC:
    case EDQUOT:
        return CocoaErrorCode::FileWriteOutOfSpace;
    case EROFS:
        return CocoaErrorCode::FileWriteVolumeReadOnly;
    default:
        return CocoaErrorCode::FileWriteUnknown;
    }
}

}  // namespace

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

Error Error::cocoa(const Error& posix, FileAccess access) {
    if (posix.domain != kPosixErrorDomain) return posix;
    Error error =
        cocoa(access == FileAccess::Reading ? readingCode(posix.code) : writingCode(posix.code),
              posix.description);
    error.underlyingPosixCode = posix.code;
    return error;
}

Error Error::utilia(UtiliaErrorCode code, std::string description) {
    return {std::string(kUtiliaErrorDomain), static_cast<int>(code), std::move(description)};
}

Error Error::url(URLErrorCode code, std::string description) {
    return {std::string(kURLErrorDomain), static_cast<int>(code), std::move(description)};
}

std::string Error::text() const {
    return "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" + description + "\"";
}

Error Error::withContext(std::string_view doing) const {
    Error error = *this;
    error.description.insert(0, std::string(doing).append(": "));
    return error;
}

}  // namespace utilia
