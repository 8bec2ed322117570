#include "Common/Platform/Linux/URLAddress.h"

#include <algorithm>
#include <array>
#include <optional>

#include "Common/Foundation/Unicode.h"
#include "Common/Platform/Linux/HostName.h"

namespace utilia::platform {
namespace {

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isASCII(char c) { return static_cast<unsigned char>(c) < 0x80; }
bool isBlankOrControl(char c) { return isASCII(c) && (c <= ' ' || c == 0x7F); }

Error bad(const char* why) { return Error::url(URLErrorCode::BadURL, why); }

// In lower case; empty when the text does not begin with one.
std::string schemeOf(std::string_view url) {
    const std::size_t colon = url.find(':');
    if (colon == std::string_view::npos || colon == 0 || !isLetter(url[0])) return {};
    std::string scheme;
    for (const char c : url.substr(0, colon)) {
        if (!isLetter(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return {};
        scheme += c >= 'A' && c <= 'Z' ? static_cast<char>(c + 'a' - 'A') : c;
    }
    return scheme;
}

std::string escapedBeyondASCII(std::string_view text) {
    constexpr std::array<char, 17> digits{"0123456789ABCDEF"};
    std::string escaped;
    for (const char c : text) {
        if (isASCII(c)) {
            escaped += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            escaped += {'%', digits[byte >> 4], digits[byte & 0xF]};
        }
    }
    return escaped;
}

int hexDigit(char c) {
    if (isDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Empty for an escape that is none, and for one of NUL.
std::optional<std::string> withoutEscapes(std::string_view text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            plain += text[i];
            continue;
        }
        if (text.size() - i < 3) return std::nullopt;
        const int high = hexDigit(text[i + 1]);
        const int low = hexDigit(text[i + 2]);
        if (high < 0 || low < 0 || high + low == 0) return std::nullopt;
        plain += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return plain;
}

Result<URLAddress> parseFile(std::string_view rest) {
    rest = rest.substr(0, rest.find_first_of("?#"));
    if (rest.starts_with("//")) {
        rest.remove_prefix(2);
        const std::string_view host = rest.substr(0, rest.find('/'));
        if (!host.empty() && host != "localhost") return bad("a file on another host");
        rest.remove_prefix(host.size());
    }
    if (!rest.starts_with('/')) return bad("a file without a path");
    auto path = withoutEscapes(rest);
    if (!path) return bad("a percent sign that begins no escape");
    return URLAddress{URLAddress::Kind::File, *std::move(path)};
}

Result<URLAddress> parseWeb(const std::string& scheme, std::string_view rest) {
    if (!rest.starts_with("//")) return bad("no host");
    rest.remove_prefix(2);
    const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
    const std::string_view path = rest.substr(authority.size());
    const std::size_t sign = authority.rfind('@');
    const std::string_view user =
        sign == std::string_view::npos ? std::string_view() : authority.substr(0, sign + 1);
    std::string_view host = authority.substr(user.size());
    const std::size_t bracket = host.starts_with('[') ? host.find(']') : 0;
    if (bracket == std::string_view::npos) return bad("an address in brackets that does not end");
    const std::string_view port = host.substr(std::min(host.find(':', bracket), host.size()));
    host.remove_suffix(port.size());
    if (host.empty()) return bad("no host");
    std::string asciiHost(host);
    if (!std::all_of(host.begin(), host.end(), isASCII)) {
        auto found = lookupHostName(host);
        if (!found) return bad("this is no name of a host");
        asciiHost = *std::move(found);
    }
    return URLAddress{URLAddress::Kind::Web, scheme + "://" + escapedBeyondASCII(user) + asciiHost +
                                                 escapedBeyondASCII(port) +
                                                 escapedBeyondASCII(path)};
}

}  // namespace

Result<URLAddress> parseURLAddress(std::string_view url) {
    if (url.empty()) return bad("an empty address");
    if (std::any_of(url.begin(), url.end(), isBlankOrControl))
        return bad("blanks and control characters have to be escaped");
    if (!isValidUtf8(url)) return bad("an address that is not UTF-8");
    const std::string scheme = schemeOf(url);
    const std::string_view rest = url.substr(scheme.empty() ? 0 : scheme.size() + 1);
    if (scheme == "file") return parseFile(rest);
    if (scheme == "http" || scheme == "https") return parseWeb(scheme, rest);
    return Error::url(URLErrorCode::UnsupportedURL, scheme.empty()
                                                        ? "an address without a scheme"
                                                        : "nothing is loaded by " + scheme);
}

}  // namespace utilia::platform
