#include <atomic>
#include <cmath>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include "Tests/Unit/WebLoading/WebFixture.h"

namespace utilia {
namespace {

using namespace platform;
using test::Outcome;
using Lines = std::vector<std::string>;

// Loads end when and how the test says.
class HeldTransport final : public URLTransport {
public:
    std::uint64_t start(const std::string& url, const URLSessionConfiguration& configuration,
                        Done done) override {
        const std::lock_guard guard(mutex_);
        urls.push_back(url);
        configurations.push_back(configuration);
        loads_.push_back(std::move(done));
        return loads_.size();
    }
    void cancel(std::uint64_t load) noexcept override {
        ++cancels;
        end(load - 1, {});
    }
    // On another thread, and waits for it.
    void end(std::size_t index, URLSessionResult result) {
        Done done;
        {
            const std::lock_guard guard(mutex_);
            done = std::exchange(loads_.at(index), nullptr);
        }
        if (done) std::thread([&] { done(std::move(result)); }).join();
    }

    std::vector<std::string> urls;
    std::vector<URLSessionConfiguration> configurations;
    std::atomic<int> cancels = 0;

private:
    std::mutex mutex_;
    std::vector<Done> loads_;
};

URLSessionResult answer(int statusCode, std::optional<Data> data = Data{1, 2, 3}) {
    return {std::move(data), statusCode, std::nullopt};
}
URLSessionResult failed(URLErrorCode code) {
    return {std::nullopt, 0, Error::url(code, "as the test says")};
}

class WebDataLoaderTest : public test::WebTest {
protected:
    WebDataLoaderTest() {
        loader_->setUrlSession(std::make_shared<URLSession>(URLSessionConfiguration{}, transport_));
    }
    // Begins a load, ends it, and serves the main queue.
    Outcome outcomeOf(URLSessionResult result) {
        Outcome outcome;
        begin(*loader_, kURL, outcome);
        transport_->end(transport_->urls.size() - 1, std::move(result));
        EXPECT_EQ(outcome.calls(), 0);
        drain();
        return outcome;
    }

    static constexpr const char* kURL = "http://example.com/page";
    const std::shared_ptr<HeldTransport> transport_ = std::make_shared<HeldTransport>();
    std::unique_ptr<WebDataLoader> loader_ =
        std::make_unique<WebDataLoader>(std::chrono::seconds(5));
};

TEST_F(WebDataLoaderTest, StatusesWithBit2SetThatMake204AreSuccess) {
    for (int status = 0; status < 600; ++status) {
        const Outcome outcome = outcomeOf(answer(status));
        const bool isSuccess = status == 200 || status == 204;
        EXPECT_EQ(outcome.successes, isSuccess) << status;
        EXPECT_EQ(outcome.errors, !isSuccess) << status;
    }
}

TEST_F(WebDataLoaderTest, AResponseThatIsNotOfHTTPFailsWithStatus0) {
    const Outcome outcome = outcomeOf(answer(0));
    EXPECT_TRUE(outcome.error.is(URLErrorCode::ZeroByteResource));
    EXPECT_EQ(log_.lines(),
              Lines{"Error loading web resource at http://example.com/page. HTTP status code: 0"});
}

TEST_F(WebDataLoaderTest, EmptyDataCountAndMissingDataDoNot) {
    EXPECT_EQ(outcomeOf(answer(200, Data())).successes, 1);
    const Outcome outcome = outcomeOf(answer(200, std::nullopt));
    EXPECT_EQ(outcome.successes, 0);
    EXPECT_EQ(outcome.error.domain, "NSURLErrorDomain");
    EXPECT_EQ(outcome.error.code, -1014);
    EXPECT_EQ(outcome.url, kURL);
    EXPECT_EQ(log_.lines(),
              (Lines{"Web data loaded successfully from http://example.com/page. Size = 0",
                     "Error loading web resource at http://example.com/page. Zero data received"}));
}

TEST_F(WebDataLoaderTest, ErrorsArePassedOnAndLogged) {
    setExtendedLoggingProbe([] { return false; });
    const Outcome outcome = outcomeOf(failed(URLErrorCode::TimedOut));
    EXPECT_EQ(outcome.error, Error::url(URLErrorCode::TimedOut, "as the test says"));
    EXPECT_EQ(outcome.url, kURL);
    EXPECT_EQ(log_.lines(), Lines{"Error loading web resource at http://example.com/page : Error "
                                  "Domain=NSURLErrorDomain Code=-1001 \"as the test says\""});
}

TEST_F(WebDataLoaderTest, NamesAndPasswordsOfAddressesAreNotLogged) {
    Outcome outcome;
    begin(*loader_, "http://user:p@ss@example.com/a@b", outcome);
    transport_->end(0, answer(404));
    drain();
    EXPECT_EQ(outcome.url, "http://user:p@ss@example.com/a@b");
    EXPECT_EQ(log_.lines(),
              Lines{"Error loading web resource at http://example.com/a@b. HTTP status code: 404"});
}

TEST_F(WebDataLoaderTest, AfterACancelNothingIsCalledAndOnlyExtendedLoggingTells) {
    for (const bool isExtended : {false, true}) {
        setExtendedLoggingProbe([isExtended] { return isExtended; });
        Outcome outcome;
        begin(*loader_, kURL, outcome);
        loader_->cancel();
        drain();
        EXPECT_EQ(outcome.calls(), 0);
        EXPECT_EQ(log_.lines(), isExtended ? Lines{"Web request cancelled"} : Lines{});
    }
    EXPECT_EQ(transport_->cancels, 2);
    EXPECT_EQ(loader_->downloadDescriptionTask()->state(), URLSessionDataTask::State::Completed);
    EXPECT_FALSE(loader_->isCancelled()) << "it is the owner's";
}

TEST_F(WebDataLoaderTest, ACancelAlsoMeetsAResultThatWaitsInTheMainQueue) {
    for (auto result : {answer(200), answer(404), failed(URLErrorCode::TimedOut)}) {
        log_.clear();
        Outcome outcome;
        begin(*loader_, kURL, outcome);
        transport_->end(transport_->urls.size() - 1, result);
        loader_->cancel();
        drain();
        EXPECT_EQ(outcome.calls(), 0);
        EXPECT_EQ(log_.lines(), Lines{"Web request cancelled"});
    }
}

TEST_F(WebDataLoaderTest, ACancelFromAnotherThreadMeetsWhatHasNotBegun) {
    Outcome outcome;
    begin(*loader_, kURL, outcome);
    transport_->end(0, answer(200));
    std::thread([this] { loader_->cancel(); }).join();
    drain();
    EXPECT_EQ(outcome.calls(), 0);
}

TEST_F(WebDataLoaderTest, ACancelInsideTheCallbackOrAfterItDoesNothing) {
    int calls = 0;
    loader_->loadUrl(
        kURL,
        [&](const Data&) {
            ++calls;
            loader_->cancel();
        },
        nullptr);
    transport_->end(0, answer(200));
    drain();
    loader_->cancel();
    drain();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(log_.count("cancelled"), 0u);
    EXPECT_EQ(transport_->cancels, 0);
}

TEST_F(WebDataLoaderTest, ATransportThatCancelsByItselfCallsNothing) {
    for (const bool isExtended : {false, true}) {
        setExtendedLoggingProbe([isExtended] { return isExtended; });
        EXPECT_EQ(outcomeOf(failed(URLErrorCode::Cancelled)).calls(), 0);
        EXPECT_EQ(log_.lines(), isExtended ? Lines{"Web request cancelled"} : Lines{});
    }
}

TEST_F(WebDataLoaderTest, WithoutALoadThereIsNothingToCancel) {
    loader_->cancel();
    drain();
    EXPECT_EQ(loader_->downloadDescriptionTask(), nullptr);
    EXPECT_EQ(log_.lines(), Lines{});
}

TEST_F(WebDataLoaderTest, ASecondLoadReplacesTheStoredTaskAndLeavesTheFirstAlone) {
    Outcome first;
    Outcome second;
    begin(*loader_, "http://example.com/1", first);
    const auto task = loader_->downloadDescriptionTask();
    begin(*loader_, "http://example.com/2", second);
    EXPECT_NE(loader_->downloadDescriptionTask(), task);
    EXPECT_EQ(loader_->downloadDescriptionTask()->originalURL(), "http://example.com/2");
    loader_->cancel();
    transport_->end(0, answer(200));
    drain();
    EXPECT_EQ(first.successes, 1);
    EXPECT_EQ(second.calls(), 0);
}

TEST_F(WebDataLoaderTest, LoadsGoOnWithoutTheirLoader) {
    Outcome outcome;
    begin(*loader_, kURL, outcome);
    loader_ = nullptr;
    transport_->end(0, answer(200));
    drain();
    EXPECT_EQ(outcome.successes, 1);
}

TEST_F(WebDataLoaderTest, CallbacksMayEndTheLoaderAndBeginLoads) {
    Outcome outcome;
    loader_->loadUrl(
        kURL,
        [&](const Data&) {
            begin(*loader_, kURL, outcome);
            loader_ = nullptr;
        },
        nullptr);
    transport_->end(0, answer(200));
    drain();
    transport_->end(1, answer(204));
    drain();
    EXPECT_EQ(outcome.successes, 1);
}

TEST_F(WebDataLoaderTest, WhatCallbacksHoldEndsOnTheMainThread) {
    for (const bool isCancelled : {false, true}) {
        int ended = 0;
        int offMain = 0;
        std::shared_ptr<int> held(new int, [&](int* number) {
            delete number;
            ++ended;
            offMain += gettid() != getpid();
        });
        loader_->loadUrl(
            kURL, [held](const Data&) {}, [held](const Error&, const std::string&) {});
        held = nullptr;
        if (isCancelled) loader_->cancel();
        transport_->end(transport_->urls.size() - 1, answer(200));
        EXPECT_EQ(ended, 0);
        drain();
        EXPECT_EQ(ended, 1);
        EXPECT_EQ(offMain, 0);
    }
}

TEST_F(WebDataLoaderTest, MissingCallbacksAreNotCalled) {
    loader_->loadUrl(kURL, nullptr, nullptr);
    loader_->loadUrl(kURL, nullptr, nullptr);
    transport_->end(0, answer(200));
    transport_->end(1, answer(404));
    drain();
    EXPECT_EQ(log_.lines().size(), 2u);
}

TEST_F(WebDataLoaderTest, HasTheSessionItWasMadeWith) {
    const WebDataLoader made(std::chrono::milliseconds(1500));
    EXPECT_EQ(made.urlSession()->configuration().timeoutIntervalForRequest.count(), 1.5);
    EXPECT_EQ(made.urlSession()->configuration().timeoutIntervalForResource.count(), 7 * 24 * 3600);
    EXPECT_EQ(made.downloadDescriptionTask(), nullptr);
}

TEST_F(WebDataLoaderTest, KeepsWhatItsOwnerStores) {
    EXPECT_FALSE(loader_->isCancelled());
    loader_->setCancelled(true);
    EXPECT_TRUE(loader_->isCancelled());
    EXPECT_FALSE(loader_->successHandler());
    EXPECT_FALSE(loader_->errorHandler());
    Outcome outcome;
    loader_->setSuccessHandler(success(outcome));
    loader_->setErrorHandler(failure(outcome));
    Outcome other;
    begin(*loader_, kURL, other);
    transport_->end(0, answer(200));
    drain();
    EXPECT_EQ(outcome.calls(), 0) << "the loader does not use them";
    loader_->successHandler()(Data{1});
    loader_->errorHandler()(Error::url(URLErrorCode::TimedOut, ""), kURL);
    EXPECT_EQ(outcome.calls(), 2);
    EXPECT_TRUE(loader_->isCancelled());
}

TEST_F(WebDataLoaderTest, ATaskThatWasNotResumedCanBeCancelled) {
    std::vector<int> codes;
    const auto task = loader_->urlSession()->dataTaskWithURL(
        kURL, [&](const auto&, URLSessionResult result) { codes.push_back(result.error->code); });
    EXPECT_EQ(task->state(), URLSessionDataTask::State::Suspended);
    task->cancel();
    task->resume();
    task->cancel();
    EXPECT_EQ(codes, std::vector<int>{-999});
    EXPECT_TRUE(transport_->urls.empty());
}

TEST_F(WebDataLoaderTest, ATaskIsResumedOnce) {
    int calls = 0;
    const auto task = loader_->urlSession()->dataTaskWithURL(
        kURL, [&](const auto& ended, const URLSessionResult&) { calls += ended->complete(); });
    task->resume();
    task->resume();
    EXPECT_EQ(task->state(), URLSessionDataTask::State::Running);
    transport_->end(0, answer(200));
    EXPECT_EQ(transport_->urls.size(), 1u);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(task->state(), URLSessionDataTask::State::Completed);
    EXPECT_FALSE(task->complete());
}

TEST_F(WebDataLoaderTest, ACancelledTaskEndsWithItsNumber) {
    int code = 0;
    const auto task = loader_->urlSession()->dataTaskWithURL(
        kURL, [&](const auto&, const URLSessionResult& result) { code = result.error->code; });
    task->resume();
    task->cancel();
    EXPECT_EQ(code, -999);
    EXPECT_FALSE(task->complete());
}

}  // namespace
}  // namespace utilia
