#pragma once

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/Web/WebDataLoader.h"
#include "Tests/Support/TestLog.h"

namespace utilia::test {

// What a load's callbacks have told.
struct Outcome {
    int successes = 0;
    int errors = 0;
    int offMain = 0;  // calls on another thread than the main one
    Data data;
    Error error;
    std::string url;  // with the error

    int calls() const { return successes + errors; }
    std::string text() const { return {data.begin(), data.end()}; }
};

// Loads in this process, whose environment names neither proxies nor a desktop.
class WebTest : public testing::Test {
protected:
    WebTest() {
        for (const char* name :
             {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy",
              "NO_PROXY", "XDG_CURRENT_DESKTOP", "SSL_CERT_FILE", "SSL_CERT_DIR"}) {
            unsetenv(name);
        }
        setExtendedLoggingProbe([] { return true; });
    }
    ~WebTest() override { setExtendedLoggingProbe(nullptr); }

    static WebDataLoader::SuccessHandler success(Outcome& outcome) {
        return [&outcome](Data data) {
            ++outcome.successes;
            outcome.offMain += gettid() != getpid();
            outcome.data = std::move(data);
        };
    }
    static WebDataLoader::ErrorHandler failure(Outcome& outcome) {
        return [&outcome](const Error& error, const std::string& url) {
            ++outcome.errors;
            outcome.offMain += gettid() != getpid();
            outcome.error = error;
            outcome.url = url;
        };
    }
    static void begin(WebDataLoader& loader, const std::string& url, Outcome& outcome) {
        loader.loadUrl(url, success(outcome), failure(outcome));
    }
    static bool waitUntil(const std::function<bool()>& done) {
        return platform::RunLoop::mainRunLoop().runUntil(done, std::chrono::seconds(60));
    }
    // What the main queue holds already is worked off.
    static void drain() { platform::RunLoop::mainRunLoop().runFor(std::chrono::seconds(0)); }

    static Outcome load(const std::string& url,
                        std::chrono::duration<double> timeout = std::chrono::seconds(60)) {
        WebDataLoader loader(timeout);
        Outcome outcome;
        begin(loader, url, outcome);
        EXPECT_EQ(outcome.calls(), 0) << "a callback inside the call";
        EXPECT_TRUE(waitUntil([&] { return outcome.calls() > 0; })) << url;
        drain();
        EXPECT_EQ(outcome.calls(), 1);
        EXPECT_EQ(outcome.offMain, 0);
        return outcome;
    }
    static void expectError(URLErrorCode code, const std::string& url,
                            std::chrono::duration<double> timeout = std::chrono::seconds(60)) {
        const Outcome outcome = load(url, timeout);
        EXPECT_TRUE(outcome.error.is(code)) << url << " → " << outcome.error.text();
        EXPECT_EQ(outcome.url, url);
    }

    TestLog log_;
};

}  // namespace utilia::test
