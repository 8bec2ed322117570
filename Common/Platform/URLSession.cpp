#include "Common/Platform/URLSession.h"

#include <cmath>
#include <new>
#include <utility>

#include "Common/Logging/MemoryGuard.h"

// A task is held by whoever made it, and by its transport until the load is over. Its state says
// who may still do what: the first of cancel() and complete() wins, on whichever threads they are.

namespace utilia::platform {

URLSessionDataTask::URLSessionDataTask(std::string url,
                                       const URLSessionConfiguration& configuration,
                                       std::shared_ptr<URLTransport> transport,
                                       Completion completion)
    : url_(std::move(url)), configuration_(configuration), transport_(std::move(transport)),
      completion_(std::move(completion)), preparedError_(Error::url(URLErrorCode::Unknown, "")) {}

URLSessionDataTask::~URLSessionDataTask() = default;

void URLSessionDataTask::resume() {
    State expected = State::Suspended;
    if (!state_.compare_exchange_strong(expected, State::Running)) return;
    try {
        begin();
    } catch (const std::bad_alloc&) {
        finish(failure(URLErrorCode::Unknown, "out of memory"));
    }
}

void URLSessionDataTask::begin() {
    const std::uint64_t load = transport_->start(
        url_, configuration_,
        [self = shared_from_this()](URLSessionResult result) { self->finish(std::move(result)); });
    bool isLate = false;
    {
        const std::lock_guard guard(mutex_);
        load_ = load;
        isLate = state_ == State::Canceling;
    }
    if (isLate) transport_->cancel(load);
}

void URLSessionDataTask::cancel() noexcept {
    State before = State::Suspended;
    if (state_.compare_exchange_strong(before, State::Canceling)) {
        finish({});
        return;
    }
    before = State::Running;
    if (!state_.compare_exchange_strong(before, State::Canceling)) return;
    std::uint64_t load = 0;
    {
        const std::lock_guard guard(mutex_);
        load = load_;
    }
    if (load != 0) transport_->cancel(load);
}

bool URLSessionDataTask::complete() noexcept {
    return state_.exchange(State::Completed) == State::Running;
}

void URLSessionDataTask::finish(URLSessionResult result) noexcept {
    if (state_ == State::Canceling) {
        // The prepared error may be in it already.
        if (result.error) preparedError_ = *std::move(result.error);
        result = failure(URLErrorCode::Cancelled, "cancelled");
    }
    // What the completion holds ends with it, and not with the task.
    const Completion completion = std::exchange(completion_, nullptr);
    if (completion) completion(shared_from_this(), std::move(result));
}

// A description of at most 15 bytes needs no memory.
URLSessionResult URLSessionDataTask::failure(URLErrorCode code,
                                             const char* shortDescription) noexcept {
    URLSessionResult result;
    result.error = std::move(preparedError_);
    result.error->code = static_cast<int>(code);
    result.error->description = shortDescription;
    return result;
}

std::shared_ptr<URLSessionDataTask>
URLSession::dataTaskWithURL(std::string_view url, URLSessionDataTask::Completion completion) const {
    return unlessOutOfMemory("Loading from a URL", [&] {
        return std::shared_ptr<URLSessionDataTask>(new URLSessionDataTask(
            std::string(url), configuration_, transport_, std::move(completion)));
    });
}

}  // namespace utilia::platform
