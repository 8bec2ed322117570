#include <climits>
#include <cstdlib>

#include <unistd.h>

#include "Common/Platform/Linux/FrameworkLocation.h"

namespace utilia::platform {

std::string frameworkLocation() {
    char program[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
    if (length <= 0) return {};
    const std::string path(program, static_cast<std::size_t>(length));
    char resolved[PATH_MAX];
    const std::string bundle = path.substr(0, path.rfind('/') + 1) + UTILIA_FRAMEWORK_RELATIVE;
    return realpath(bundle.c_str(), resolved) ? std::string(resolved) : std::string();
}

}  // namespace utilia::platform
