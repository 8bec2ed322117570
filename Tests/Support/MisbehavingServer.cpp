#include "Tests/Support/MisbehavingServer.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace utilia::test {

using platform::UniqueFd;

std::string MisbehavingServer::Connection::readRequest() {
    std::string request;
    while (!request.ends_with("\r\n\r\n")) {
        char byte = 0;
        if (recv(socket_.get(), &byte, 1, 0) != 1) return "";
        request += byte;
    }
    return request;
}

bool MisbehavingServer::Connection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

bool MisbehavingServer::Connection::drip(std::string_view bytes, std::chrono::milliseconds pause) {
    for (const char& byte : bytes) {
        std::this_thread::sleep_for(pause);
        if (!send({&byte, 1})) return false;
    }
    return true;
}

void MisbehavingServer::Connection::waitForEnd() {
    std::array<char, 4096> ignored;
    while (recv(socket_.get(), ignored.data(), ignored.size(), 0) > 0) {
    }
}

void MisbehavingServer::Connection::reset() {
    const linger none{1, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    // The end of a socket without lingering is a reset; the descriptor stays for whoever has it.
    const sockaddr unspecified{AF_UNSPEC, {}};
    connect(socket_.get(), &unspecified, sizeof unspecified);
}

MisbehavingServer::MisbehavingServer(Handler handler)
    : handler_(std::move(handler)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_.get(), plain, size) != 0 || listen(listener_.get(), SOMAXCONN) != 0 ||
        getsockname(listener_.get(), plain, &size) != 0) {
        throw std::runtime_error(std::string("no server: ") + std::strerror(errno));
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { accept(); });
}

MisbehavingServer::~MisbehavingServer() {
    {
        const std::lock_guard guard(mutex_);
        isEnding_ = true;
        for (const Connection& each : open_) shutdown(each.descriptor(), SHUT_RDWR);
    }
    shutdown(listener_.get(), SHUT_RDWR);
    acceptor_.join();
    for (std::thread& each : threads_) each.join();
}

std::string MisbehavingServer::url(const std::string& path, const std::string& scheme) const {
    return scheme + "://127.0.0.1:" + std::to_string(port_) + path;
}

int MisbehavingServer::waitForConnections(int count) {
    std::unique_lock guard(mutex_);
    arrived_.wait_for(guard, std::chrono::seconds(60), [&] { return connections_ >= count; });
    return connections_;
}

void MisbehavingServer::accept() {
    for (;;) {
        UniqueFd accepted(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!accepted && (errno == EINTR || errno == ECONNABORTED)) continue;
        if (!accepted) return;
        const int on = 1;
        setsockopt(accepted.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const std::lock_guard guard(mutex_);
        if (isEnding_) return;
        open_.emplace_back(std::move(accepted));
        ++connections_;
        arrived_.notify_all();
        threads_.emplace_back([this, connection = std::prev(open_.end())] {
            handler_(*connection);
            std::list<Connection> ended;
            const std::lock_guard within(mutex_);
            ended.splice(ended.begin(), open_, connection);
        });
    }
}

}  // namespace utilia::test
