#include "Common/UtiliaCommon/SandboxDialogDelegate.h"

#include <utility>

namespace utilia {

SandboxDialogDelegate::SandboxDialogDelegate(std::optional<std::string> restrictedURL)
    : url_(std::move(restrictedURL)) {}

bool SandboxDialogDelegate::panel(const void*, std::string_view shouldEnableURL) const {
    return url_ == shouldEnableURL;
}

}  // namespace utilia
