#include "Common/Foundation/PathFunctions.h"

namespace utilia {
namespace {

// Runs of "/" become one, a trailing one is dropped unless it is all there is.
std::string normalized(std::string_view path) {
    std::string result;
    result.reserve(path.size());
    for (const char character : path) {
        if (character == '/' && !result.empty() && result.back() == '/') continue;
        result.push_back(character);
    }
    if (result.size() > 1 && result.back() == '/') result.pop_back();
    return result;
}

// Where the last component of a normalized path begins.
std::size_t lastComponentStart(std::string_view path) {
    if (path == "/") return 0;
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? 0 : slash + 1;
}

// The position of the "." that parts a normalized path from its extension, which may be empty; npos
// without one. A component that only begins with "." has none, nor has "..".
std::size_t extensionDot(std::string_view path) {
    const std::size_t start = lastComponentStart(path);
    const std::string_view component = path.substr(start);
    const std::size_t dot = component.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || component == "..")
        return std::string_view::npos;
    return start + dot;
}

}  // namespace

std::string lastPathComponent(std::string_view path) {
    std::string whole = normalized(path);
    whole.erase(0, lastComponentStart(whole));
    return whole;
}

std::string stringByDeletingLastPathComponent(std::string_view path) {
    std::string whole = normalized(path);
    const std::size_t slash = whole.rfind('/');
    if (slash == std::string::npos) return {};
    whole.resize(slash == 0 ? 1 : slash);
    return whole;
}

std::string stringByAppendingPathComponent(std::string_view path, std::string_view component) {
    if (path.empty()) return normalized(component);
    std::string joined;
    joined.reserve(path.size() + 1 + component.size());
    joined.append(path).append("/").append(component);
    return normalized(joined);
}

std::string pathExtension(std::string_view path) {
    const std::string whole = normalized(path);
    const std::size_t dot = extensionDot(whole);
    return dot == std::string::npos ? std::string() : whole.substr(dot + 1);
}

std::string stringByDeletingPathExtension(std::string_view path) {
    std::string whole = normalized(path);
    const std::size_t dot = extensionDot(whole);
    if (dot != std::string::npos) whole.resize(dot);
    return whole;
}

std::optional<std::string> stringByAppendingPathExtension(std::string_view path,
                                                          std::string_view extension) {
    std::string whole = normalized(path);
    if (whole.empty() || whole == "/" || extension.starts_with('/')) return std::nullopt;
    whole.append(".").append(extension);
    return normalized(whole);
}

}  // namespace utilia
