#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "Common/Platform/UniqueFd.h"

namespace utilia::test {

// A server that does with each connection what a test tells it: stalls, resets, says half of
// something, or what is no HTTP at all. On 127.0.0.1, at a port of the kernel's choice; each
// connection has a thread of its own.
//
//     MisbehavingServer server([](auto& connection) {
//         connection.readRequest();
//         connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf");
//         connection.reset();
//     });
class MisbehavingServer final {
public:
    class Connection final {
    public:
        explicit Connection(platform::UniqueFd socket) : socket_(std::move(socket)) {}

        // The request line and the headers, with the empty line; "" when the client is gone.
        std::string readRequest();
        // False when the client, or the test, is gone.
        bool send(std::string_view bytes);
        // Every byte by itself, with this pause before each.
        bool drip(std::string_view bytes, std::chrono::milliseconds pause);
        // Until the client is gone, or the test.
        void waitForEnd();
        // Ends the connection as a machine does that has forgotten it.
        void reset();
        int descriptor() const { return socket_.get(); }

    private:
        platform::UniqueFd socket_;
    };
    using Handler = std::function<void(Connection& connection)>;

    // What the handler leaves open is closed in an orderly way behind it.
    explicit MisbehavingServer(Handler handler);
    // Ends all connections.
    ~MisbehavingServer();
    MisbehavingServer(const MisbehavingServer&) = delete;
    MisbehavingServer& operator=(const MisbehavingServer&) = delete;

    std::uint16_t port() const { return port_; }
    std::string url(const std::string& path = "/", const std::string& scheme = "http") const;
    // So far.
    int connections() const { return connections_; }
    // The same, when there are that many, or after 20 s.
    int waitForConnections(int count);

private:
    void accept();

    const Handler handler_;
    platform::UniqueFd listener_;
    std::uint16_t port_ = 0;
    std::atomic<int> connections_ = 0;
    std::mutex mutex_;
    std::condition_variable arrived_;
    bool isEnding_ = false;
    std::list<Connection> open_;
    std::list<std::thread> threads_;
    std::thread acceptor_;
};

}  // namespace utilia::test
