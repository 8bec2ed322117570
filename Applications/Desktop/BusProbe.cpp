#include "Applications/Desktop/BusProbe.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// The greeting goes as far as the bus's answer to Hello: a bus whose place is kept by somebody else until it has started,
// as session managers do, answers nothing at all before, and what guards a bus may answer the first lines in its stead.
//
// Nothing in here waits but in poll(): to connect would wait as well, for a bus whose queue is full.

namespace utilia::desktop {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kPauseBeforeFullQueue = 50ms;

class Socket final {
public:
    Socket() : descriptor_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
    ~Socket() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int get() const { return descriptor_; }

private:
    const int descriptor_;
};

std::optional<std::string> unescaped(std::string_view text) {
    const auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            plain += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? digit(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? digit(text[i + 2]) : -1;
        if (high < 0 || low < 0) return std::nullopt;
        plain += static_cast<char>(16 * high + low);
        i += 2;
    }
    return plain;
}

// The name to connect with, which for an abstract socket begins with a zero.
std::optional<std::string> socketName(std::string_view address) {
    constexpr std::string_view kTransport = "unix:";
    if (!address.starts_with(kTransport)) return std::nullopt;
    address.remove_prefix(kTransport.size());
    while (!address.empty()) {
        const std::string_view pair = address.substr(0, address.find(','));
        address.remove_prefix(std::min(pair.size() + 1, address.size()));
        const std::size_t equals = std::min(pair.find('='), pair.size());
        const std::string_view key = pair.substr(0, equals);
        const auto value = unescaped(pair.substr(std::min(equals + 1, pair.size())));
        if (!value) return std::nullopt;
        if (key == "path") return value;
        if (key == "abstract") return std::string(1, '\0') + *value;
        if (key == "runtime" && *value == "yes") {
            const char* const folder = std::getenv("XDG_RUNTIME_DIR");
            return folder ? std::optional(folder + std::string("/bus")) : std::nullopt;
        }
    }
    return std::nullopt;
}

// Whether the socket comes to be as wanted before the end.
bool becomes(int socket, short wanted, Clock::time_point end) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (left <= 0ms) return false;
        pollfd looked{socket, wanted, 0};
        const int found = ::poll(&looked, 1, static_cast<int>(left.count()));
        if (found > 0) return true;
        if (found < 0 && errno != EINTR) return true;  // what is done next says why
    }
}

enum class Answer { Given, None, Broken };

// Broken where nobody listens, None where nobody takes the connection in time.
Answer connectTo(int socket, const std::string& name, Clock::time_point end) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (name.empty() || name.size() >= sizeof address.sun_path) return Answer::Broken;
    std::memcpy(address.sun_path, name.data(), name.size());
    // The name of an abstract socket has no end but its length.
    const std::size_t length =
        offsetof(sockaddr_un, sun_path) + name.size() + (name.front() == '\0' ? 0 : 1);
    for (;;) {
        if (::connect(socket, reinterpret_cast<const sockaddr*>(&address),
                      static_cast<socklen_t>(length)) == 0)
            return Answer::Given;
        if (errno != EAGAIN && errno != EINTR) return Answer::Broken;
        if (Clock::now() + kPauseBeforeFullQueue >= end) return Answer::None;
        std::this_thread::sleep_for(kPauseBeforeFullQueue);
    }
}

// All of it fits into what the kernel keeps for a socket.
bool send(int socket, std::string_view text) {
    ssize_t sent = 0;
    do {
        sent = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(text.size());
}

Answer receive(int socket, std::string& received, Clock::time_point end) {
    for (;;) {
        if (!becomes(socket, POLLIN, end)) return Answer::None;
        std::array<char, 512> buffer{};
        const ssize_t count = ::recv(socket, buffer.data(), buffer.size(), 0);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (count <= 0) return Answer::Broken;
        received.assign(buffer.data(), static_cast<std::size_t>(count));
        return Answer::Given;
    }
}

std::string authentication() {
    std::string line("\0AUTH EXTERNAL ", 15);
    for (const char digit : std::to_string(geteuid())) {
        std::array<char, 3> hex{};
        std::snprintf(hex.data(), hex.size(), "%02x", static_cast<unsigned>(digit));
        line += hex.data();
    }
    return line + "\r\n";
}

// The method call that each connection with a bus begins with.
std::string hello() {
    std::string message("l\1\0\1", 4);  // the order of bytes below, call, no flags, version
    const auto number = [&message](std::uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8) message += static_cast<char>(value >> shift);
    };
    const auto field = [&](char code, const char* type, std::string_view value) {
        message.append((8 - message.size() % 8) % 8, '\0');
        message += {code, '\1', *type, '\0'};
        number(static_cast<std::uint32_t>(value.size()));
        message.append(value) += '\0';
    };
    number(0);  // the length of the body
    number(1);  // which message this is
    number(0);  // the length of the fields, once it is known
    constexpr std::size_t kFields = 16;
    field(1, "o", "/org/freedesktop/DBus");
    field(6, "s", "org.freedesktop.DBus");
    field(2, "s", "org.freedesktop.DBus");
    field(3, "s", "Hello");
    message[kFields - 4] = static_cast<char>(message.size() - kFields);
    message.append((8 - message.size() % 8) % 8, '\0');
    return message;
}

Answer greet(const std::string& name, Clock::time_point end) {
    const Socket socket;
    if (socket.get() < 0) return Answer::Broken;
    if (const Answer taken = connectTo(socket.get(), name, end); taken != Answer::Given)
        return taken;
    std::string received;
    if (!send(socket.get(), authentication())) return Answer::Broken;
    if (const Answer answer = receive(socket.get(), received, end); answer != Answer::Given)
        return answer;
    // Whom it refuses it has answered.
    if (!received.starts_with("OK")) return Answer::Given;
    if (!send(socket.get(), "BEGIN\r\n" + hello())) return Answer::Broken;
    return receive(socket.get(), received, end);
}

}  // namespace

bool isBusSilent(std::string_view addresses, std::chrono::milliseconds patience) {
    const auto end = Clock::now() + patience;
    while (!addresses.empty()) {
        const std::string_view address = addresses.substr(0, addresses.find(';'));
        addresses.remove_prefix(std::min(address.size() + 1, addresses.size()));
        const auto name = socketName(address);
        if (!name) continue;
        const Answer answer = greet(*name, end);
        if (answer != Answer::Broken) return answer == Answer::None;
    }
    return false;
}

}  // namespace utilia::desktop
