#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "Tests/Support/MisbehavingServer.h"
#include "Tests/Support/NginxServer.h"
#include "Tests/Unit/WebLoading/WebFixture.h"

namespace utilia {
namespace {

using namespace test;

class WebThreads : public WebTest {};

TEST_F(WebThreads, AThousandLoadsAtOnceEndWithOneCallbackEach) {
    setExtendedLoggingProbe([] { return false; });
    const NginxServer server("location / { return 200 $arg_n; }");
    constexpr int kLoads = 1000;
    std::vector<Outcome> outcomes(kLoads);
    int calls = 0;
    WebDataLoader loader(std::chrono::seconds(60));
    for (int i = 0; i < kLoads; ++i) {
        loader.loadUrl(
            server.url("/?n=" + std::to_string(i)),
            [&, i](Data data) {
                ++calls;
                success(outcomes[static_cast<std::size_t>(i)])(std::move(data));
            },
            [&, i](const Error& error, const std::string& url) {
                ++calls;
                failure(outcomes[static_cast<std::size_t>(i)])(error, url);
            });
    }
    ASSERT_TRUE(waitUntil([&] { return calls >= kLoads; }));
    drain();
    for (int i = 0; i < kLoads; ++i) {
        const Outcome& outcome = outcomes[static_cast<std::size_t>(i)];
        ASSERT_EQ(outcome.calls(), 1);
        ASSERT_EQ(outcome.text(), std::to_string(i)) << outcome.error.text();
        ASSERT_EQ(outcome.offMain, 0);
    }
}

TEST_F(WebThreads, LoadsAreBegunAndCancelledOnAnyThreadAtAnyTime) {
    setExtendedLoggingProbe([] { return false; });
    const NginxServer server("location / { return 200 content; }");
    MisbehavingServer slow([](auto& connection) {
        connection.readRequest();
        connection.waitForEnd();
    });
    constexpr int kThreads = 4;
    constexpr int kLoadsOfThread = 60;
    std::atomic<int> calls = 0;
    std::atomic<int> offMain = 0;
    std::atomic<int> lateCalls = 0;
    std::atomic<int> running = kThreads;
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < kThreads; ++seed) {
        threads.emplace_back([&, seed] {
            std::minstd_rand random(seed + 1);
            for (int i = 0; i < kLoadsOfThread; ++i) {
                WebDataLoader loader(std::chrono::seconds(60));
                const auto called = std::make_shared<std::atomic<int>>(0);
                const auto call = [&, called] {
                    lateCalls += called->fetch_add(1) != 0;
                    ++calls;
                    offMain += gettid() != getpid();
                };
                loader.loadUrl(
                    i % 3 == 0 ? slow.url() : server.url("/"), [call](const Data&) { call(); },
                    [call](const Error&, const std::string&) { call(); });
                std::thread other([&loader, pause = random() % 3000] {
                    std::this_thread::sleep_for(std::chrono::microseconds(pause));
                    loader.cancel();
                });
                if (i % 2 == 0) loader.cancel();
                other.join();
            }
            --running;
            platform::MainQueue::async([] {});
        });
    }
    EXPECT_TRUE(waitUntil([&] { return running == 0; }));
    for (std::thread& each : threads) each.join();
    drain();
    EXPECT_EQ(offMain, 0);
    EXPECT_EQ(lateCalls, 0);
    // The slow ones cannot have ended by themselves.
    EXPECT_LE(calls, kThreads * kLoadsOfThread * 2 / 3);
    // The worker is well.
    EXPECT_EQ(load(server.url("/")).text(), "content");
}

TEST_F(WebThreads, LoadsOfOneServerThatHangDoNotHoldUpAnother) {
    setExtendedLoggingProbe([] { return false; });
    MisbehavingServer hanging([](auto& connection) { connection.waitForEnd(); });
    const NginxServer server("location / { return 200 content; }");
    std::vector<std::unique_ptr<WebDataLoader>> loaders;
    Outcome none;
    for (int i = 0; i < 300; ++i) {
        loaders.push_back(std::make_unique<WebDataLoader>(std::chrono::seconds(60)));
        begin(*loaders.back(), hanging.url(), none);
    }
    EXPECT_EQ(load(server.url("/")).text(), "content");
    EXPECT_EQ(none.calls(), 0);
    for (const auto& loader : loaders) loader->cancel();
    drain();
    EXPECT_EQ(none.calls(), 0);
}

TEST_F(WebThreads, LoadsOfOneServerHaveSixConnectionsFromTheBeginning) {
    for (const char* scheme : {"http", "https"}) {
        MisbehavingServer silent([](auto& connection) { connection.waitForEnd(); });
        std::vector<std::unique_ptr<WebDataLoader>> loaders;
        Outcome none;
        for (int i = 0; i < 8; ++i) {
            loaders.push_back(std::make_unique<WebDataLoader>(std::chrono::seconds(60)));
            begin(*loaders.back(), silent.url("/", scheme), none);
        }
        EXPECT_EQ(silent.waitForConnections(6), 6);
        for (const auto& loader : loaders) loader->cancel();
        drain();
        EXPECT_EQ(none.calls(), 0);
    }
}

TEST_F(WebThreads, LoadsThatWaitForAConnectionAreNotSilent) {
    // Seven loads for six connections, of which each takes longer than the time-out.
    MisbehavingServer server([](auto& connection) {
        while (!connection.readRequest().empty()) {
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n");
            connection.drip("12345678901234567890", std::chrono::milliseconds(300));
        }
    });
    WebDataLoader loader(std::chrono::seconds(5));
    std::array<Outcome, 7> outcomes;
    for (Outcome& outcome : outcomes) begin(loader, server.url(), outcome);
    EXPECT_TRUE(waitUntil([&] {
        return std::all_of(outcomes.begin(), outcomes.end(),
                           [](const Outcome& each) { return each.calls() > 0; });
    }));
    for (const Outcome& outcome : outcomes)
        EXPECT_EQ(outcome.data.size(), 20u) << outcome.error.text();
    EXPECT_EQ(server.connections(), 6);
}

}  // namespace
}  // namespace utilia
