#include "Common/UtiliaCommon/Web/WebDataLoader.h"

#include <cstdint>
#include <new>
#include <thread>
#include <utility>

#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/RunLoop.h"

// What a load needs at its end is made at its beginning: the end comes when it comes, and exactly
// one callback has to follow, also when there is no memory at that moment.

namespace utilia {
namespace {

using platform::MainQueue;
using platform::URLSessionDataTask;
using platform::URLSessionResult;

// 200 and 204.
bool isSuccess(int statusCode) { return (statusCode | 4) == 204; }

struct Load {
    Load(std::string_view address, WebDataLoader::SuccessHandler success,
         WebDataLoader::ErrorHandler error)
        : url(address), loggedURL(WebDataLoader::withoutCredentials(url)),
          onSuccess(std::move(success)), onError(std::move(error)) {}

    // On the main queue.
    void handle() {
        // What the callbacks hold ends here, on the main thread.
        const auto success = std::move(onSuccess);
        const auto failure = std::move(onError);
        const bool isCancelled = result.error && result.error->is(URLErrorCode::Cancelled);
        if ((task && !task->complete()) || isCancelled) {
            if (KUIsExtendedLoggingOn()) KULogVariadic("Web request cancelled");
        } else if (result.error) {
            unlessOutOfMemory("An error of loading a web resource", [this] {
                KULogVariadic("Error loading web resource at %@ : %@", loggedURL,
                              result.error->text());
            });
            if (failure) failure(*result.error, url);
        } else if (!isSuccess(result.statusCode)) {
            KULogVariadic("Error loading web resource at %@. HTTP status code: %ld", loggedURL,
                          result.statusCode);
            if (failure) failure(noResource, url);
        } else if (!result.data) {
            KULogVariadic("Error loading web resource at %@. Zero data received", loggedURL);
            if (failure) failure(noResource, url);
        } else {
            if (KUIsExtendedLoggingOn()) {
                KULogVariadic("Web data loaded successfully from %@. Size = %ld", loggedURL,
                              result.data->size());
            }
            if (success) success(std::move(*result.data));
        }
    }

    const std::string url;
    const std::string loggedURL;
    WebDataLoader::SuccessHandler onSuccess;
    WebDataLoader::ErrorHandler onError;
    const Error noResource =
        Error::url(URLErrorCode::ZeroByteResource, "the answer is no success with content");
    Error outOfMemory = Error::url(URLErrorCode::Unknown, "out of memory");
    const std::thread::id beginner = std::this_thread::get_id();
    std::shared_ptr<URLSessionDataTask> task;
    URLSessionResult result;
    std::shared_ptr<Load> self;  // while it waits in the main queue
};

// A pointer fits into the queue's function, which so needs no memory of its own.
void tryToPost(const std::shared_ptr<Load>& load) {
    load->self = load;
    try {
        MainQueue::async([waiting = load.get()] {
            const auto owned = std::move(waiting->self);
            owned->handle();
        });
    } catch (const std::bad_alloc&) {
        load->self = nullptr;
        throw;
    }
}

// A thread of the transport's has nothing better to do than to wait until there is memory; the
// thread that begins a load may not be held up.
void post(const std::shared_ptr<Load>& load) noexcept {
    const bool mayWait = std::this_thread::get_id() != load->beginner;
    for (;;) {
        try {
            tryToPost(load);
            return;
        } catch (const std::bad_alloc&) {
            if (!mayWait) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    KULogVariadic("Error loading web resource at %@ : out of memory", load->loggedURL);
}

}  // namespace

WebDataLoader::WebDataLoader(std::chrono::duration<double> requestTimeout) {
    unlessOutOfMemory("A web data loader", [&] {
        urlSession_ = std::make_shared<platform::URLSession>(
            platform::URLSessionConfiguration{requestTimeout});
    });
}

WebDataLoader::~WebDataLoader() = default;

std::string WebDataLoader::withoutCredentials(std::string_view url) {
    const std::size_t scheme = url.find("://");
    if (scheme == std::string_view::npos) return std::string(url);
    const std::size_t start = scheme + 3;
    const std::size_t end = url.find_first_of("/?#", start);
    const std::size_t sign = url.substr(0, end).rfind('@');
    if (sign == std::string_view::npos || sign < start) return std::string(url);
    return std::string(url.substr(0, start)).append(url.substr(sign + 1));
}

void WebDataLoader::loadUrl(std::string_view url, SuccessHandler onSuccess, ErrorHandler onError) {
    unlessOutOfMemory("Loading a web resource", [&] {
        const auto load = std::make_shared<Load>(url, std::move(onSuccess), std::move(onError));
        const auto session = urlSession();
        const auto task =
            session
                ? session->dataTaskWithURL(url,
                                           [load](const std::shared_ptr<URLSessionDataTask>& ended,
                                                  URLSessionResult result) {
                                               load->task = ended;
                                               load->result = std::move(result);
                                               post(load);
                                           })
                : nullptr;
        if (!task) {
            load->result.error = std::move(load->outOfMemory);
            post(load);
            return;
        }
        setDownloadDescriptionTask(task);
        task->resume();
    });
}

void WebDataLoader::cancel() {
    if (const auto task = downloadDescriptionTask()) task->cancel();
}

std::shared_ptr<platform::URLSession> WebDataLoader::urlSession() const {
    const std::lock_guard guard(mutex_);
    return urlSession_;
}

void WebDataLoader::setUrlSession(std::shared_ptr<platform::URLSession> session) {
    const std::lock_guard guard(mutex_);
    urlSession_.swap(session);
}

std::shared_ptr<URLSessionDataTask> WebDataLoader::downloadDescriptionTask() const {
    const std::lock_guard guard(mutex_);
    return downloadDescriptionTask_;
}

void WebDataLoader::setDownloadDescriptionTask(std::shared_ptr<URLSessionDataTask> task) {
    const std::lock_guard guard(mutex_);
    downloadDescriptionTask_.swap(task);
}

}  // namespace utilia
