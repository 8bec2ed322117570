#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "Common/Foundation/Error.h"
#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/URLSession.h"
#include "Common/UtiliaCommon/ToolDataProvider/AtomicBlock.h"

namespace utilia {

// Fetches web resources into memory, each with one GET. No cache, cookies or credentials are kept.
// platform::URLSession says how, Documentation/WebDataLoader.md with which limits and error numbers.
//
// Threads: any. Callbacks run on the main queue.
class UTILIA_EXPORT WebDataLoader final {
public:
    using SuccessHandler = std::function<void(Data data)>;
    // With the URL as it was given to loadUrl().
    using ErrorHandler = std::function<void(const Error& error, const std::string& url)>;

    // The time-out is the longest time of a request without any data arriving. What is not
    // positive, and not-a-number, stand for 60 seconds.
    explicit WebDataLoader(std::chrono::duration<double> requestTimeout);
    WebDataLoader(const WebDataLoader&) = delete;
    WebDataLoader& operator=(const WebDataLoader&) = delete;
    // Loads go on, and call back.
    ~WebDataLoader();

    // Calls exactly one of the two, once, on the main queue and never inside this call; neither
    // when the load is cancelled. HTTP's status 200 and 204 are success, also with empty data. Any
    // other status, and a response that is none of HTTP (status 0), is error -1014 of
    // kURLErrorDomain. What could not be loaded at all has an error of that domain, too. Where
    // memory runs out before the load has begun, this is logged, and neither may be called.
    //
    // The load becomes the stored task; the one before goes on.
    void loadUrl(std::string_view url, SuccessHandler onSuccess, ErrorHandler onError);

    // Cancels the stored task. When this returns, no callback of it begins any more; one that has
    // begun on the main thread may still be running when this is called on another.
    void cancel();

    // The URL as log lines have it, which others may see: without "user:password@".
    static std::string withoutCredentials(std::string_view url);

    // The loader's own session. Null where there was no memory for one.
    std::shared_ptr<platform::URLSession> urlSession() const;
    void setUrlSession(std::shared_ptr<platform::URLSession> session);
    // The stored task: that of the last load. Null before.
    std::shared_ptr<platform::URLSessionDataTask> downloadDescriptionTask() const;
    void setDownloadDescriptionTask(std::shared_ptr<platform::URLSessionDataTask> task);

    // For the owner's use: false at first, and not changed by the loader itself.
    bool isCancelled() const { return isCancelled_; }
    void setCancelled(bool isCancelled) { isCancelled_ = isCancelled; }

    // For the owner's use: the loader does not call them.
    SuccessHandler successHandler() const { return successHandler_.get(); }
    void setSuccessHandler(SuccessHandler handler) { successHandler_.set(std::move(handler)); }
    ErrorHandler errorHandler() const { return errorHandler_.get(); }
    void setErrorHandler(ErrorHandler handler) { errorHandler_.set(std::move(handler)); }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<platform::URLSession> urlSession_;
    std::shared_ptr<platform::URLSessionDataTask> downloadDescriptionTask_;
    std::atomic<bool> isCancelled_ = false;
    BasicAtomicBlock<Data> successHandler_;
    BasicAtomicBlock<const Error&, const std::string&> errorHandler_;
};

}  // namespace utilia
