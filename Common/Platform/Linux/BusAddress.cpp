#include "Common/Platform/Linux/BusAddress.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

#include <unistd.h>

namespace utilia::platform {
namespace {

constexpr std::string_view kSocketTransport = "unix:";

// What D-Bus lets stand as it is.
bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-_/\\.").find(c) != std::string_view::npos;
}

std::optional<std::string> standardSocket() {
    const char* const folder = std::getenv("XDG_RUNTIME_DIR");
    if (!folder || folder[0] != '/') return std::nullopt;
    return std::string(folder) + "/bus";
}

const char* explicitAddresses() {
    const char* const addresses = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    return addresses && *addresses ? addresses : nullptr;
}

}  // namespace

std::optional<std::string> sessionBusAddress() {
    if (const char* const addresses = explicitAddresses()) return socketAddresses(addresses);
    const auto socket = standardSocket();
    return socket ? std::optional(socketAddress(*socket)) : std::nullopt;
}

std::optional<std::string> reachableSessionBusAddress() {
    if (explicitAddresses()) return sessionBusAddress();
    const auto socket = standardSocket();
    if (!socket || access(socket->c_str(), F_OK) != 0) return std::nullopt;
    return socketAddress(*socket);
}

std::optional<std::string> socketAddresses(std::string_view addresses) {
    std::string kept;
    while (!addresses.empty()) {
        const std::string_view first = addresses.substr(0, addresses.find(';'));
        addresses.remove_prefix(std::min(first.size() + 1, addresses.size()));
        if (!first.starts_with(kSocketTransport)) continue;
        if (!kept.empty()) kept += ';';
        kept += first;
    }
    return kept.empty() ? std::nullopt : std::optional(kept);
}

std::string socketAddress(std::string_view path) {
    std::string address = "unix:path=";
    for (const char c : path) {
        if (isPlain(c)) {
            address += c;
            continue;
        }
        std::array<char, 4> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "%%%02x", static_cast<unsigned char>(c));
        address += escaped.data();
    }
    return address;
}

}  // namespace utilia::platform
