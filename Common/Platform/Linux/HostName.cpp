#include "Common/Platform/Linux/HostName.h"

#include <algorithm>
#include <memory>

#include <arpa/inet.h>
#include <glib.h>

#include "Common/Foundation/Unicode.h"

// What a name server could be asked for, and no more: names are not as strict as the rules for
// registering one ("_" is in use, and so are digits alone), but text with a space, a slash or a
// colon in it is no name, and asking would only pass it on to some server. A dot at the end, which
// stands for the root, is as good as none.

namespace utilia::platform {
namespace {

constexpr std::size_t kLongestName = 253;
constexpr std::size_t kLongestLabel = 63;
// No longer text has an ASCII form of that length: each character of up to four bytes takes one.
constexpr std::size_t kLongestText = 4 * (kLongestName + 1);

bool isAddress(const std::string& text) {
    in6_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool isLabel(std::string_view label) {
    return !label.empty() && label.size() <= kLongestLabel &&
           std::all_of(label.begin(), label.end(),
                       [](char c) { return g_ascii_isalnum(c) || c == '-' || c == '_'; });
}

bool isName(std::string_view name) {
    if (name.ends_with('.')) name.remove_suffix(1);
    if (name.size() > kLongestName) return false;
    for (;;) {
        const std::size_t dot = name.find('.');
        if (!isLabel(name.substr(0, dot))) return false;
        if (dot == std::string_view::npos) return true;
        name.remove_prefix(dot + 1);
    }
}

}  // namespace

std::optional<std::string> lookupHostName(std::string_view host) {
    if (host.empty() || host.size() > kLongestText || host.find('\0') != std::string_view::npos ||
        !isValidUtf8(host)) {
        return std::nullopt;
    }
    std::string text(host);
    if (isAddress(text)) return text;
    if (g_hostname_is_non_ascii(text.c_str())) {
        const std::unique_ptr<char, void (*)(void*)> ascii(g_hostname_to_ascii(text.c_str()),
                                                           g_free);
        if (!ascii) return std::nullopt;
        text = ascii.get();
    }
    if (!isName(text)) return std::nullopt;
    return text;
}

}  // namespace utilia::platform
