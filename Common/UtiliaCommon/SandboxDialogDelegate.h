#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

namespace utilia {

// Lets a file dialog enable one given location and nothing else, neither its parents nor its
// children.
//
// Threads: immutable once made.
class UTILIA_EXPORT SandboxDialogDelegate final {
public:
    // Empty for no location at all: nothing is enabled then.
    explicit SandboxDialogDelegate(std::optional<std::string> restrictedURL);

    const std::optional<std::string>& url() const { return url_; }

    // Whether the URL is equal, as text, to the one given: "file:///A/" is not "file:///A". The
    // dialog itself is not looked at.
    bool panel(const void* panel, std::string_view shouldEnableURL) const;

private:
    std::optional<std::string> url_;
};

}  // namespace utilia
