#include "Benchmarks/Web/WebMeasures.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/Web/WebDataLoader.h"

namespace utilia::bench {
namespace {

constexpr int kLoads = 1000;
constexpr int kRounds = 7;
constexpr long kConnections = 6;
constexpr std::string_view kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 64\r\n\r\n"
                                     "0123456789abcdef0123456789abcdef"
                                     "0123456789abcdef0123456789abcdef";

// Answers whatever ends with an empty line: less of a server costs both less to wait for.
[[noreturn]] void serve(int listener) {
    const int epoll = check(epoll_create1(0), "epoll_create1");
    const auto watch = [epoll](int descriptor) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = descriptor;
        check(epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event), "epoll_ctl");
    };
    watch(listener);
    for (;;) {
        std::array<epoll_event, 64> events;
        const int count = epoll_wait(epoll, events.data(), events.size(), -1);
        for (int i = 0; i < count; ++i) {
            const int descriptor = events[static_cast<std::size_t>(i)].data.fd;
            if (descriptor == listener) {
                const int accepted = check(accept(listener, nullptr, nullptr), "accept");
                const int on = 1;
                setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                watch(accepted);
                continue;
            }
            std::array<char, 4096> request;
            const ssize_t size = recv(descriptor, request.data(), request.size(), 0);
            if (size <= 0) {
                close(descriptor);
            } else if (std::string_view(request.data(), static_cast<std::size_t>(size))
                           .ends_with("\r\n\r\n")) {
                check(send(descriptor, kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL), "send");
            }
        }
    }
}

int listenOnLoopback(std::string& url) {
    const int listener = check(socket(AF_INET, SOCK_STREAM, 0), "socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    check(bind(listener, plain, size), "bind");
    check(listen(listener, SOMAXCONN), "listen");
    check(getsockname(listener, plain, &size), "getsockname");
    url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/resource";
    return listener;
}

void loadWithLoader(WebDataLoader& loader, const std::string& url, int count) {
    int left = count;
    for (int i = 0; i < count; ++i) {
        loader.loadUrl(
            url, [&left](const Data& data) { left -= data.size() == 64; },
            [](const Error& error, const std::string&) { fail(error.description); });
    }
    const bool isDone = platform::RunLoop::mainRunLoop().runUntil([&left] { return left == 0; },
                                                                  std::chrono::seconds(60));
    if (!isDone) fail("loads do not end");
}

std::size_t append(char* bytes, std::size_t size, std::size_t count, void* data) {
    auto& body = *static_cast<std::vector<std::uint8_t>*>(data);
    body.insert(body.end(), bytes, bytes + size * count);
    return size * count;
}

// As libcurl's manual shows it.
void loadWithCurl(CURLM* multi, const std::string& url) {
    std::vector<std::vector<std::uint8_t>> bodies(kLoads);
    std::vector<CURL*> handles;
    for (auto& body : bodies) {
        CURL* const easy = curl_easy_init();
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &append);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
        curl_multi_add_handle(multi, easy);
        handles.push_back(easy);
    }
    int running = 1;
    while (running > 0) {
        if (curl_multi_perform(multi, &running) != CURLM_OK) fail("curl_multi_perform");
        if (running > 0) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    for (CURL* const easy : handles) {
        curl_multi_remove_handle(multi, easy);
        curl_easy_cleanup(easy);
    }
    for (const auto& body : bodies) {
        if (body.size() != 64) fail("libcurl has not loaded a resource");
    }
}

double millisecondsOf(const std::function<void()>& work) {
    const std::uint64_t start = nanoseconds();
    work();
    return static_cast<double>(nanoseconds() - start) / 1e6;
}

}  // namespace

Figures measureWebLoads(const Settings&) {
    for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY", "XDG_CURRENT_DESKTOP"})
        unsetenv(name);
    std::string url;
    const int listener = listenOnLoopback(url);
    const pid_t server = inChild([listener] { serve(listener); });
    close(listener);

    WebDataLoader loader(std::chrono::seconds(60));
    const double first = millisecondsOf([&] { loadWithLoader(loader, url, 1); });
    curl_global_init(CURL_GLOBAL_DEFAULT);
    CURLM* const multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kConnections);
    std::vector<double> ours;
    std::vector<double> curls;
    for (int round = 0; round <= kRounds; ++round) {
        const double own = millisecondsOf([&] { loadWithLoader(loader, url, kLoads); });
        const double peer = millisecondsOf([&] { loadWithCurl(multi, url); });
        if (round == 0) continue;  // connections are made, code is read from the disk
        ours.push_back(own);
        curls.push_back(peer);
    }
    curl_multi_cleanup(multi);
    endProgram(server);
    return {{"utilia_ms", percentile(ours, 50)},
            {"curl_ms", percentile(curls, 50)},
            {"loader_first_ms", first}};
}

}  // namespace utilia::bench
