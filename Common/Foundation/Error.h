#pragma once

#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

namespace utilia {

// The error domains that this library uses. A code is only meaningful within its domain.
inline constexpr std::string_view kPosixErrorDomain = "NSPOSIXErrorDomain";  // code: errno
inline constexpr std::string_view kCocoaErrorDomain = "NSCocoaErrorDomain";  // CocoaErrorCode
inline constexpr std::string_view kURLErrorDomain = "NSURLErrorDomain";      // URLErrorCode
inline constexpr std::string_view kUtiliaErrorDomain = "UtiliaErrorDomain";  // UtiliaErrorCode

// Contract: never renumber. Values of the original platform's file and property-list errors.
enum class CocoaErrorCode : int {
    FileNoSuchFile = 4,  // on writing, moving and changing
    FileReadUnknown = 256,
    FileReadNoPermission = 257,
    FileReadInvalidFileName = 258,
    FileReadNoSuchFile = 260,
    FileReadTooLarge = 263,
    FileWriteUnknown = 512,
    FileWriteNoPermission = 513,
    FileWriteInvalidFileName = 514,
    FileWriteFileExists = 516,
    FileWriteOutOfSpace = 640,
    FileWriteVolumeReadOnly = 642,
    PropertyListReadCorrupt = 3840,
    PropertyListWriteInvalid = 3852,
};

// Contract: never renumber. Values of the original platform's errors of loading from a URL.
enum class URLErrorCode : int {
    Unknown = -1,
    Cancelled = -999,
    BadURL = -1000,
    TimedOut = -1001,
    UnsupportedURL = -1002,
    CannotFindHost = -1003,
    CannotConnectToHost = -1004,
    NetworkConnectionLost = -1005,
    DNSLookupFailed = -1006,
    HTTPTooManyRedirects = -1007,
    NotConnectedToInternet = -1009,
    BadServerResponse = -1011,
    ZeroByteResource = -1014,
    CannotDecodeContentData = -1016,
    FileDoesNotExist = -1100,
    FileIsDirectory = -1101,
    NoPermissionsToReadFile = -1102,
    DataLengthExceedsMaximum = -1103,
    SecureConnectionFailed = -1200,
    ServerCertificateHasBadDate = -1201,
    ServerCertificateUntrusted = -1202,
    ServerCertificateHasUnknownRoot = -1203,
    ServerCertificateNotYetValid = -1204,
    ClientCertificateRequired = -1206,
};

// Contract: never renumber.
enum class UtiliaErrorCode : int {
    Busy = 1,         // another holder kept a lock past the deadline
    NotFound = 2,     // the thing asked for does not exist
    Refused = 3,      // the input is not acceptable: wrong form, too large, another user's
    Unavailable = 4,  // a module or service that is needed cannot be used
    Cancelled = 5,    // the caller wanted no more of it
};

// Why something could not be done. Values, not exceptions, travel through this library.
//
// Threads: a value; distinct objects may be used on distinct threads.
struct UTILIA_EXPORT Error {
    std::string domain;
    int code = 0;
    std::string description;      // with the call and its object: "open /a/b: Permission denied"
    int underlyingPosixCode = 0;  // the errno behind a file error of kCocoaErrorDomain

    // An errno with the call and its object: posix(ENOSPC, "rename", "/x/state").
    static Error posix(int errorNumber, std::string_view call, std::string_view object);
    static Error cocoa(CocoaErrorCode code, std::string description);
    // The file error of the original platform for an errno; any other error is answered as it is.
    enum class FileAccess { Reading, Writing };
    static Error cocoa(const Error& posix, FileAccess access);
    static Error utilia(UtiliaErrorCode code, std::string description);
    static Error url(URLErrorCode code, std::string description);

    bool is(URLErrorCode wanted) const {
        return domain == kURLErrorDomain && code == static_cast<int>(wanted);
    }
    bool is(UtiliaErrorCode wanted) const {
        return domain == kUtiliaErrorDomain && code == static_cast<int>(wanted);
    }
    bool isPosix(int errorNumber) const {
        return domain == kPosixErrorDomain && code == errorNumber;
    }

    // As the original platform prints an error object: Error Domain=DOMAIN Code=N "DESCRIPTION".
    std::string text() const;

    // The same error with what was being done put before the description: "save icon: rename …".
    Error withContext(std::string_view doing) const;

    friend bool operator==(const Error&, const Error&) = default;
};

}  // namespace utilia
