#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <curl/curl.h>

#include "Common/Foundation/Error.h"
#include "Common/Platform/Linux/Modules/Net/NetModule.h"
#include "Common/Platform/Linux/Modules/Net/ProxySettings.h"

namespace utilia::platform::net {

using Clock = std::chrono::steady_clock;

struct EasyCleanup {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;

// One load: a request, and those that redirects lead to, one after the other.
//
// Threads: made on any, everything else on the worker's.
class Transfer final {
public:
    // May throw std::bad_alloc.
    Transfer(const UtiliaNetRequest& request, const UtiliaNetClient& client);
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    // Whether the desktop's settings are wanted: the environment names no proxy.
    bool asksDesktop() const { return asksDesktop_; }
    // By whom loads take turns: scheme, host and port as the address spells them.
    const std::string& server() const { return server_; }

    // Prepares the handle for the first request. False, with error(), when that is not possible.
    bool prepare(CURL* easy, std::uint32_t number, const ProxySettings& desktop);
    // The request has ended like this. True when another one has to follow, for which the handle is
    // prepared; else the transfer is over.
    bool goOn(CURL* easy, CURLcode code);
    void fail(URLErrorCode code, const char* detail = "");
    // Tells the client; the last thing.
    void finish() noexcept;

    // Something has arrived at the socket.
    void dataArrived();
    // When it is too late, unless there is activity. Silence does not count before the request has
    // begun, for it may have to wait for a connection.
    Clock::time_point deadline() const;
    // The same, but as if the request had begun when libcurl was told of it: deadline() is not before
    // this time.
    Clock::time_point earliestDeadline() const;
    bool hasBegun() const { return lastActivity_ != kNotBegun; }

private:
    static constexpr Clock::time_point kNotBegun = Clock::time_point::max();

    static std::size_t headerArrived(char* bytes, std::size_t size, std::size_t count, void* self);
    static std::size_t bodyArrived(char* bytes, std::size_t size, std::size_t count, void* self);
    static int progressed(void* self, curl_off_t expected, curl_off_t loaded, curl_off_t,
                          curl_off_t);
    static int prepared(void* self, char*, char*, int, int);
    static int resolving(void*, void*, void* self);
    static curl_socket_t openSocket(void* self, curlsocktype purpose, curl_sockaddr* address);

    void touch() { lastActivity_ = Clock::now(); }
    bool setAddress(CURL* easy, CURLU* address);
    bool setRequest(CURL* easy, const std::string& url, bool isWithPassword);
    void setConnectLimit(Clock::duration limit);
    bool follow(CURL* easy);
    bool takeHeader(std::string_view line);
    bool takeBody(const std::uint8_t* bytes, std::size_t size);

    const UtiliaNetClient client_;
    const std::string certificateFile_;
    const std::string certificateFolder_;
    const Clock::duration idle_;
    const Clock::time_point end_;
    const std::uint64_t maximumSize_;
    const std::string url_;
    const std::string server_;
    std::string origin_;  // what the name and the password are for
    std::string user_;
    std::string password_;
    ProxySettings proxies_;
    bool asksDesktop_ = false;

    CURL* easy_ = nullptr;
    Clock::time_point lastActivity_ = kNotBegun;
    Clock::time_point handedOver_ = Clock::now();
    curl_off_t loaded_ = 0;
    std::uint64_t bodySize_ = 0;
    std::uint64_t headerSize_ = 0;
    int redirects_ = 0;
    bool isInHead_ = false;  // its status line has come, and the empty line has not
    bool hasReceived_ = false;
    bool isConnectLimited_ = false;
    URLErrorCode error_{0};
    long statusCode_ = 0;
    std::array<char, CURL_ERROR_SIZE> detail_{};       // what libcurl says
    std::array<char, 2 * CURL_ERROR_SIZE> message_{};  // what the client is told
};

}  // namespace utilia::platform::net
