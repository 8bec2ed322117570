#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Error.h"
#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"

namespace utilia::platform {

// How a session loads. There is one kind: it keeps no cache, cookies or credentials.
struct URLSessionConfiguration {
    // The longest time without any data arriving; a load that goes on, however slowly, is not cut.
    // What is not positive, and not-a-number, stand for the default.
    std::chrono::duration<double> timeoutIntervalForRequest = std::chrono::seconds(60);
    // The longest time for a load as a whole, redirects included.
    std::chrono::duration<double> timeoutIntervalForResource = std::chrono::hours(7 * 24);
    // What a body may have, in bytes, after it has been decompressed.
    std::size_t maximumDataLength = std::size_t{64} << 20;
};

// What a load has come to: data, or an error of kURLErrorDomain.
struct URLSessionResult {
    std::optional<Data> data;  // also when it is empty; absent with an error
    int statusCode = 0;        // of HTTP; 0 when the response is none of HTTP, or with an error
    std::optional<Error> error;
};

// What carries loads; tests hand in their own.
//
// Threads: any.
class UTILIA_EXPORT URLTransport {
public:
    using Done = std::function<void(URLSessionResult result)>;

    virtual ~URLTransport() = default;
    // Loads from a URL of http, https or file. `done` is called exactly once, on a thread of the
    // transport's or inside this call, and throws nothing. Answers a number for cancel(), or 0 when
    // there is nothing to cancel. May throw std::bad_alloc, without having called `done`.
    virtual std::uint64_t start(const std::string& url,
                                const URLSessionConfiguration& configuration, Done done) = 0;
    // The load ends soon, with any result. A number that is over does nothing.
    virtual void cancel(std::uint64_t load) noexcept = 0;

    // What the system loads with. Never destroyed.
    static const std::shared_ptr<URLTransport>& system();
};

// One load, made by a session. It goes on whoever lets go of it, and of the session.
//
// Threads: any.
class UTILIA_EXPORT URLSessionDataTask final
    : public std::enable_shared_from_this<URLSessionDataTask> {
public:
    // Called once, with -999 when the task was cancelled. On a thread of the transport's, which it
    // must not hold up, or inside resume() or cancel(). Throws nothing.
    using Completion = std::function<void(const std::shared_ptr<URLSessionDataTask>& task,
                                          URLSessionResult result)>;
    // Completed: the result has been taken, by complete().
    enum class State { Suspended, Running, Canceling, Completed };

    URLSessionDataTask(const URLSessionDataTask&) = delete;
    URLSessionDataTask& operator=(const URLSessionDataTask&) = delete;
    ~URLSessionDataTask();

    const std::string& originalURL() const { return url_; }
    State state() const { return state_; }

    // Begins the load. Only the first call does something.
    void resume();
    // Ends the load, if complete() has not come before.
    void cancel() noexcept;
    // For a completion that hands the result on to another thread, to be called there: whether the
    // result may still be used. True at most once, and not after cancel(), which from then on does
    // nothing.
    bool complete() noexcept;

private:
    friend class URLSession;
    URLSessionDataTask(std::string url, const URLSessionConfiguration& configuration,
                       std::shared_ptr<URLTransport> transport, Completion completion);
    void begin();
    void finish(URLSessionResult result) noexcept;
    URLSessionResult failure(URLErrorCode code, const char* shortDescription) noexcept;

    const std::string url_;
    const URLSessionConfiguration configuration_;
    const std::shared_ptr<URLTransport> transport_;
    Completion completion_;
    // Made beforehand, so that ending does not need memory.
    Error preparedError_;
    std::atomic<State> state_ = State::Suspended;
    std::mutex mutex_;
    std::uint64_t load_ = 0;
};

// Loads web resources into memory, by GET. Redirects are followed (16 at most, to http and https
// only; user names and passwords stay with the host that they were given for), compressed bodies
// are unpacked. Certificates are judged by the system's store, or that of SSL_CERT_FILE and
// SSL_CERT_DIR. Proxies are those of the environment (http_proxy, https_proxy, all_proxy,
// no_proxy), else those of the desktop.
//
// Addresses of other schemes than http, https and file are refused. The work for http and https is
// done by a module that is opened with the first such load, on a thread of its own.
//
// Threads: any.
class UTILIA_EXPORT URLSession final {
public:
    explicit URLSession(const URLSessionConfiguration& configuration,
                        std::shared_ptr<URLTransport> transport = URLTransport::system())
        : configuration_(configuration), transport_(std::move(transport)) {}

    const URLSessionConfiguration& configuration() const { return configuration_; }

    // A suspended task. Null, with one log line, where memory runs out; `completion` is not called
    // then.
    std::shared_ptr<URLSessionDataTask>
    dataTaskWithURL(std::string_view url, URLSessionDataTask::Completion completion) const;

private:
    const URLSessionConfiguration configuration_;
    const std::shared_ptr<URLTransport> transport_;
};

}  // namespace utilia::platform
