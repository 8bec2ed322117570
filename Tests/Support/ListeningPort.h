#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

#include "Common/Platform/UniqueFd.h"

namespace utilia::test {

// A port of 127.0.0.1 at which connections are refused, or wait for ever. It is held for as long as this lives, so
// that the kernel gives its number to nobody else's server.
class ListeningPort final {
public:
    explicit ListeningPort(bool takesConnections)
        : socket_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            (takesConnections && listen(socket_.get(), 5) != 0) ||
            getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0)
            throw std::runtime_error("no port");
        port_ = ntohs(address.sin_port);
    }
    std::string number() const { return std::to_string(port_); }
    std::string url(const std::string& path = "/", const std::string& scheme = "http") const {
        return scheme + "://127.0.0.1:" + number() + path;
    }
    // Whether a connection waits that nobody has taken yet.
    bool wasConnectedTo() const {
        const platform::UniqueFd connection(
            accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        return static_cast<bool>(connection);
    }

private:
    platform::UniqueFd socket_;
    std::uint16_t port_ = 0;
};

}  // namespace utilia::test
