#include "Common/Platform/ProcessInfo.h"

#include <array>
#include <climits>

#include <fcntl.h>
#include <unistd.h>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {
namespace {

std::vector<std::string> readArguments() {
    std::vector<std::string> arguments;
    const UniqueFd file(open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC));
    if (!file) return arguments;
    std::string argument;
    std::array<char, 4096> block;
    for (;;) {
        const ssize_t count = read(file.get(), block.data(), block.size());
        if (count <= 0) break;  // reads from this file are not interrupted
        for (const char character :
             std::string_view(block.data(), static_cast<std::size_t>(count))) {
            if (character != '\0') {
                argument.push_back(character);
            } else {
                arguments.push_back(std::exchange(argument, {}));
            }
        }
    }
    if (!argument.empty()) arguments.push_back(std::move(argument));
    return arguments;
}

std::string readProcessName() {
    std::array<char, PATH_MAX> target;
    const ssize_t count = readlink("/proc/self/exe", target.data(), target.size());
    if (count <= 0) {
        const std::vector<std::string>& arguments = ProcessInfo::arguments();
        return arguments.empty() ? std::string() : lastPathComponent(arguments.front());
    }
    std::string path(target.data(), static_cast<std::size_t>(count));
    // An update may have replaced the program since it was started; the kernel says so in the
    // link's text.
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.ends_with(kDeleted) && access(path.c_str(), F_OK) != 0)
        path.resize(path.size() - kDeleted.size());
    return lastPathComponent(path);
}

}  // namespace

const std::vector<std::string>& ProcessInfo::arguments() {
    static const auto* const arguments = new std::vector<std::string>(readArguments());
    return *arguments;
}

const std::string& ProcessInfo::processName() {
    static const auto* const name = new std::string(readProcessName());
    return *name;
}

std::int64_t ProcessInfo::processIdentifier() { return getpid(); }

}  // namespace utilia::platform
