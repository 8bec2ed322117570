#pragma once

#include <optional>
#include <string>

#include "Common/Foundation/Export.h"

namespace utilia {

// Services that applications share and that are too small for classes of their own.
//
// Login items: applications are told apart by their URL, the resolved path of the bundle, as
// platform::Workspace and platform::Bundle answer it. An empty URL is that of no application.
// Failures are logged once, with the file's name.
//
// Threads: any.
class UTILIA_EXPORT CommonAuxiliary final {
public:
    // The one instance of the process.
    static CommonAuxiliary& sharedInstance();

    // Makes the application a login item, and removes items of the same file name at other places.
    // Answers whether it is one now.
    bool addAppToLoginItems(const std::optional<std::string>& url);
    // Removes every item of that file name, wherever it lies. False only when the list cannot be
    // read.
    bool removeAppFromLoginItems(const std::optional<std::string>& url);
    // Whether some item has exactly this URL.
    bool findAppInLoginItems(const std::optional<std::string>& url);
};

}  // namespace utilia
