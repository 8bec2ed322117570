#include <climits>
#include <cstdlib>

#include <dlfcn.h>

#include "Common/Platform/Linux/FrameworkLocation.h"

namespace utilia::platform {

std::string frameworkLocation() {
    Dl_info self{};
    char resolved[PATH_MAX];
    if (dladdr(reinterpret_cast<const void*>(&frameworkLocation), &self) == 0 ||
        !realpath(self.dli_fname, resolved)) {
        return {};
    }
    const std::string library = resolved;
    return library.substr(0, library.rfind('/') + 1) + "UtiliaCommon.framework";
}

}  // namespace utilia::platform
