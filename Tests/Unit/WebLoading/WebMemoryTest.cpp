#include <atomic>
#include <memory>
#include <string>

#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/NginxServer.h"
#include "Tests/Unit/WebLoading/WebFixture.h"

namespace utilia {
namespace {

using namespace test;
using platform::URLSession;
using platform::URLSessionConfiguration;
using platform::URLSessionResult;
using platform::URLTransport;

// The system's, and tells when it is done: the main loop's own memory is GLib's, which ends the
// process when there is none, so it is served only when there is some again.
class WatchedTransport final : public URLTransport {
public:
    std::uint64_t start(const std::string& url, const URLSessionConfiguration& configuration,
                        Done done) override {
        const std::uint64_t load = URLTransport::system()->start(
            url, configuration, [this, done = std::move(done)](URLSessionResult result) {
                done(std::move(result));
                ++ended_;
                ended_.notify_all();
            });
        ++begun_;
        return load;
    }
    void cancel(std::uint64_t load) noexcept override { URLTransport::system()->cancel(load); }

    void waitForLoads() {
        for (int ended = ended_; ended < begun_; ended = ended_) ended_.wait(ended);
    }

private:
    std::atomic<int> ended_ = 0;
    std::atomic<int> begun_ = 0;
};

class WebMemory : public WebTest {
protected:
    WebMemory() {
        session_ = std::make_shared<URLSession>(
            URLSessionConfiguration{.timeoutIntervalForRequest = std::chrono::milliseconds(300)},
            transport_);
    }
    // The load with the fault; answers whether the fault was met.
    bool loadWith(Fault fault, unsigned ordinal, FaultThreads threads, const std::string& url,
                  Outcome& outcome) {
        const auto onSuccess = success(outcome);
        const auto onError = failure(outcome);
        WebDataLoader loader(std::chrono::seconds(10));
        loader.setUrlSession(session_);
        unsigned hits = 0;
        {
            const ArmedFault armed(fault, ordinal, FaultRepetition::Once, threads);
            loader.loadUrl(url, onSuccess, onError);
            transport_->waitForLoads();
            hits = armed.hits();
        }
        drain();
        return hits > 0;
    }

    const std::shared_ptr<WatchedTransport> transport_ = std::make_shared<WatchedTransport>();
    std::shared_ptr<URLSession> session_;
};

TEST_F(WebMemory, WhereItRunsOutEachLoadHasOneCallbackOrWasNeverBegun) {
    const NginxServer server("gzip on; gzip_types *; gzip_min_length 1;"
                             "location = /to { return 302 /page; }"
                             "location = /page { return 200 content-that-is-long-enough; }");
    const std::string url = server.url("/to");
    EXPECT_EQ(load(url).successes, 1);  // what is made once
    std::size_t runs = 0;
    for (const Fault& fault : memoryFaults()) {
        for (const auto threads : {FaultThreads::Mine, FaultThreads::All}) {
            for (unsigned ordinal = 1;; ++ordinal) {
                log_.clear();
                Outcome outcome;
                if (!loadWith(fault, ordinal, threads, url, outcome)) break;
                ++runs;
                const bool isRefused = log_.count("out of memory") > 0;
                ASSERT_TRUE(outcome.calls() == 1 || (outcome.calls() == 0 && isRefused))
                    << "allocation " << ordinal << ": " << outcome.calls();
                EXPECT_TRUE(outcome.errors == 0 || outcome.error.domain == kURLErrorDomain);
            }
        }
    }
    EXPECT_EQ(runs > 0, !memoryFaults().empty());
    EXPECT_EQ(load(url).successes, 1);
}

TEST_F(WebMemory, SystemCallsThatFailAreErrorsOfTheLoad) {
    const NginxServer server("location = /page { return 200 content; }");
    const std::string url = server.url("/page");
    EXPECT_EQ(load(url).successes, 1);
    std::size_t runs = 0;
    for (const Fault& fault : socketFaults()) {
        for (unsigned ordinal = 1; ordinal <= 10; ++ordinal) {
            Outcome outcome;
            if (!loadWith(fault, ordinal, FaultThreads::All, url, outcome)) break;
            ++runs;
            ASSERT_EQ(outcome.calls(), 1) << "call " << ordinal;
        }
    }
    EXPECT_GT(runs, 0u);
    EXPECT_EQ(load(url).successes, 1);
}

}  // namespace
}  // namespace utilia
