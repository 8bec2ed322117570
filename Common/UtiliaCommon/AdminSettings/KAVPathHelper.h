#pragma once

#include <string>
#include <string_view>

#include "Common/Foundation/Error.h"
#include "Common/Foundation/Export.h"

// Where the administrator's settings lie, and whose they are.
//
// The place is a constant of the system: no environment variable, home or working folder moves it.
//
// Threads: any.

namespace utilia {

class UTILIA_EXPORT KAVPathHelper final {
public:
    KAVPathHelper() = delete;

    static std::string filePath();           // "/etc/com.korvane.utilia/settings.conf"
    static std::string dirPath();            // its folder
    static std::string appSupportDirPath();  // the machine-wide folder around that: "/etc"

    // The folder with its missing parents; each new one belongs to user 0 and the administrators'
    // group, mode 0775, as far as the caller may give that away: what cannot be given is no failure.
    // An existing folder is success and is left as it is. On failure `error` (may be null) is the
    // file system's.
    static bool createFolderAtPath(std::string_view path, Error* error);

    // Gives an existing file to the administrators' group, mode 0664; the owner stays. On failure one
    // log line, and `error` (may be null).
    static bool setPermissionsToFileAtPath(std::string_view path, Error* error);
};

}  // namespace utilia
