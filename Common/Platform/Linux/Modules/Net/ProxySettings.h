#pragma once

#include <string>
#include <string_view>

namespace utilia::platform::net {

// Whom to ask for pages, as libcurl writes it: "http://proxy:8080", "socks5h://…"; "" for nobody.
struct ProxySettings {
    std::string http;
    std::string https;
    std::string exceptions;  // names, addresses and networks, separated by commas; "*" for all

    const std::string& forURL(std::string_view url) const {
        return url.starts_with("https:") ? https : http;
    }
    friend bool operator==(const ProxySettings&, const ProxySettings&) = default;
};

// Those of the environment: http_proxy, https_proxy and HTTPS_PROXY, all_proxy and ALL_PROXY,
// no_proxy and NO_PROXY, as libcurl reads them. `isGiven`: whether any proxy is named.
ProxySettings proxiesOfEnvironment(bool* isGiven);

// Those in what "gsettings list-recursively org.gnome.system.proxy" prints: http and https, else
// SOCKS, in mode "manual"; nobody in other modes, and for what cannot be read.
ProxySettings proxiesOfDesktop(std::string_view printed);

// Whether there is a desktop to be asked (XDG_CURRENT_DESKTOP).
bool isInDesktop();

// Asks it, by that program, for at most two seconds. Nobody where it does not answer.
ProxySettings askDesktop();

}  // namespace utilia::platform::net
