#include <chrono>
#include <string>

#include "Tests/Support/ListeningPort.h"
#include "Tests/Support/MisbehavingServer.h"
#include "Tests/Unit/WebLoading/WebFixture.h"

namespace utilia {
namespace {

using namespace std::chrono_literals;
using platform::URLSession;
using platform::URLSessionConfiguration;
using test::ListeningPort;
using test::MisbehavingServer;
using test::Outcome;
using Connection = MisbehavingServer::Connection;

constexpr const char* kHead = "HTTP/1.1 200 OK\r\n";

class WebDamage : public test::WebTest {
protected:
    // Answers each request with these bytes, and closes.
    static MisbehavingServer::Handler says(const std::string& bytes) {
        return [bytes](Connection& connection) {
            if (!connection.readRequest().empty()) connection.send(bytes);
        };
    }
    static MisbehavingServer::Handler saysAndStalls(const std::string& bytes) {
        return [bytes](Connection& connection) {
            if (connection.readRequest().empty()) return;
            connection.send(bytes);
            connection.waitForEnd();
        };
    }
    // A load with a limit of the test's own.
    static Outcome loadAtMost(std::size_t size, const std::string& url) {
        WebDataLoader loader(10s);
        loader.setUrlSession(std::make_shared<URLSession>(
            URLSessionConfiguration{.timeoutIntervalForRequest = 10s, .maximumDataLength = size}));
        Outcome outcome;
        begin(loader, url, outcome);
        EXPECT_TRUE(waitUntil([&] { return outcome.calls() > 0; }));
        return outcome;
    }
};

TEST_F(WebDamage, ASlowSteadyLoadIsNotCut) {
    // Each byte comes within the time-out; the load as a whole takes longer, in the middle of the
    // status line, of a header, and of the body.
    MisbehavingServer server([](Connection& connection) {
        connection.readRequest();
        connection.send("HTTP/1.1 2");
        connection.drip("00 OK\r\n", 200ms);
        connection.drip("Content-Length: 6\r\n", 200ms);
        connection.drip("\r\n123456", 200ms);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(load(server.url(), 5s).text(), "123456");
    EXPECT_GT(std::chrono::steady_clock::now() - start, 6500ms);
}

TEST_F(WebDamage, SilenceIsATimeOutWhereverItComes) {
    for (const std::string& said :
         {std::string(), std::string("HTTP/1.1 200"), std::string(kHead),
          std::string(kHead) + "Content-Length: 6\r\n\r\n", std::string(kHead) + "\r\n123"}) {
        MisbehavingServer server(saysAndStalls(said));
        const auto start = std::chrono::steady_clock::now();
        expectError(URLErrorCode::TimedOut, server.url(), 300ms);
        EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms) << said;
    }
    MisbehavingServer server([](Connection& connection) { connection.waitForEnd(); });
    expectError(URLErrorCode::TimedOut, server.url("/", "https"), 300ms);
}

TEST_F(WebDamage, EachRequestOfARedirectHasItsTimeOut) {
    MisbehavingServer server([](Connection& connection) {
        for (int i = 0; i < 4; ++i) {
            if (connection.readRequest().empty()) return;
            std::this_thread::sleep_for(1600ms);
            connection.send(i < 3 ? "HTTP/1.1 302 Found\r\nLocation: /\r\nContent-Length: 0\r\n\r\n"
                                  : "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx");
        }
    });
    EXPECT_EQ(load(server.url(), 5s).text(), "x");
}

TEST_F(WebDamage, TheWholeLoadHasATimeOutToo) {
    MisbehavingServer server([](Connection& connection) {
        connection.readRequest();
        connection.send(std::string(kHead) + "\r\n");
        while (connection.drip("x", 20ms)) {
        }
    });
    WebDataLoader loader(10s);
    loader.setUrlSession(std::make_shared<URLSession>(URLSessionConfiguration{
        .timeoutIntervalForRequest = 10s, .timeoutIntervalForResource = 300ms}));
    Outcome outcome;
    begin(loader, server.url(), outcome);
    EXPECT_TRUE(waitUntil([&] { return outcome.calls() > 0; }));
    EXPECT_TRUE(outcome.error.is(URLErrorCode::TimedOut));
}

TEST_F(WebDamage, AConnectionThatEndsTooSoonIsLost) {
    for (const std::string& said :
         {std::string(), std::string("HTTP/1.1 200 OK\r\nContent-Le"), std::string(kHead),
          std::string(kHead) + "Content-Length: 6\r\n\r\n123",
          std::string(kHead) + "Transfer-Encoding: chunked\r\n\r\n3\r\n123\r\n",
          std::string(kHead) + "Transfer-Encoding: chunked\r\n\r\n6\r\n123"}) {
        for (const bool isReset : {false, true}) {
            MisbehavingServer server([&](Connection& connection) {
                if (connection.readRequest().empty()) return;
                connection.send(said);
                if (isReset) connection.reset();
            });
            const Outcome outcome = load(server.url());
            EXPECT_TRUE(outcome.error.is(URLErrorCode::NetworkConnectionLost))
                << said << (isReset ? " reset" : "") << " → " << outcome.error.text();
        }
    }
}

TEST_F(WebDamage, AResetAlsoEndsABodyWithoutLength) {
    MisbehavingServer server([](Connection& connection) {
        connection.readRequest();
        connection.send(std::string(kHead) + "\r\n123");
        connection.reset();
    });
    expectError(URLErrorCode::NetworkConnectionLost, server.url());
}

TEST_F(WebDamage, WhatIsNotHTTPIsABadResponse) {
    for (const std::string& said :
         {std::string("SSH-2.0-OpenSSH_9.2\r\n\r\n"), std::string("<html></html>\r\n\r\n"),
          std::string("HTTP/1.1 abc OK\r\n\r\n"), std::string("HTTP/9.9 200 OK\r\n\r\n"),
          std::string("HTTP/1.1\r\n\r\n"), std::string("\r\n\r\n\r\n\r\n\r\n\r\n"),
          std::string("\0\0\0\0\0\0\0\0\0\0\r\n\r\n", 14),
          std::string(kHead) + "Content-Length: x\r\n\r\n",
          std::string(kHead) + "Content-Length: -1\r\n\r\n"}) {
        MisbehavingServer server(says(said));
        const Outcome outcome = load(server.url());
        EXPECT_TRUE(outcome.error.is(URLErrorCode::BadServerResponse))
            << said << " → " << outcome.error.text() << " " << outcome.text();
    }
}

TEST_F(WebDamage, HeadersWithoutAnEndAreABadResponse) {
    MisbehavingServer many([](Connection& connection) {
        connection.readRequest();
        connection.send(kHead);
        while (connection.send("X-More: and more\r\n")) {
        }
    });
    expectError(URLErrorCode::BadServerResponse, many.url());
    MisbehavingServer endless([](Connection& connection) {
        connection.readRequest();
        connection.send(std::string(kHead) + "X-Long: ");
        while (connection.send(std::string(1000, 'x'))) {
        }
    });
    expectError(URLErrorCode::BadServerResponse, endless.url());
    MisbehavingServer preliminary([](Connection& connection) {
        connection.readRequest();
        while (connection.send("HTTP/1.1 103 Early Hints\r\nLink: <x>\r\n\r\n")) {
        }
    });
    expectError(URLErrorCode::BadServerResponse, preliminary.url());
}

TEST_F(WebDamage, BodiesUpToTheLimitAreTaken) {
    MisbehavingServer server(says(std::string(kHead) + "\r\n" + std::string(5000, 'x')));
    EXPECT_EQ(loadAtMost(5000, server.url()).data.size(), 5000u);
    EXPECT_TRUE(loadAtMost(4999, server.url()).error.is(URLErrorCode::DataLengthExceedsMaximum));
}

TEST_F(WebDamage, ABodyThatIsAnnouncedAsTooLargeIsNotLoaded) {
    MisbehavingServer server(
        saysAndStalls(std::string(kHead) + "Content-Length: 67108865\r\n\r\nx"));
    expectError(URLErrorCode::DataLengthExceedsMaximum, server.url());
}

TEST_F(WebDamage, AnEndlessBodyIsTooLarge) {
    MisbehavingServer server([](Connection& connection) {
        connection.readRequest();
        connection.send(std::string(kHead) + "\r\n");
        const std::string block(1 << 16, 'x');
        while (connection.send(block)) {
        }
    });
    expectError(URLErrorCode::DataLengthExceedsMaximum, server.url());
    // Also that of a redirect, of which nothing is kept.
    MisbehavingServer redirect([](Connection& connection) {
        connection.readRequest();
        connection.send("HTTP/1.1 302 Found\r\nLocation: /x\r\n\r\n");
        const std::string block(1 << 16, 'x');
        while (connection.send(block)) {
        }
    });
    expectError(URLErrorCode::DataLengthExceedsMaximum, redirect.url());
}

TEST_F(WebDamage, TheContentOfAnErrorPageIsNotWanted) {
    MisbehavingServer server(says("HTTP/1.1 500 Oh\r\nContent-Length: 3\r\n\r\nabc"));
    EXPECT_TRUE(load(server.url()).error.is(URLErrorCode::ZeroByteResource));
}

TEST_F(WebDamage, PackedContentThatIsDamagedCannotBeDecoded) {
    const std::string gzip("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03", 10);
    for (const std::string& body : {std::string("this is not packed"), gzip + "damaged data"}) {
        MisbehavingServer server(says(std::string(kHead) +
                                      "Content-Encoding: gzip\r\nContent-Length: " +
                                      std::to_string(body.size()) + "\r\n\r\n" + body));
        expectError(URLErrorCode::CannotDecodeContentData, server.url());
    }
    MisbehavingServer server(says(std::string(kHead) + "Content-Encoding: secret\r\n\r\nx"));
    expectError(URLErrorCode::CannotDecodeContentData, server.url());
}

// What libcurl cannot tell: the response is whole, what is packed in it is not.
TEST_F(WebDamage, PackedContentThatIsCutOffIsTakenForWhatThereIs) {
    const std::string gzip("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03", 10);
    MisbehavingServer server(
        says(std::string(kHead) + "Content-Encoding: gzip\r\nContent-Length: 10\r\n\r\n" + gzip));
    EXPECT_EQ(load(server.url()).successes, 1);
}

TEST_F(WebDamage, NobodyAtTheHostIsNoConnection) {
    const ListeningPort nobody(false);
    const std::string url = nobody.url();
    const Outcome outcome = load(url);
    EXPECT_TRUE(outcome.error.is(URLErrorCode::CannotConnectToHost)) << outcome.error.text();
    EXPECT_TRUE(outcome.error.description.starts_with("the host cannot be connected to: "))
        << outcome.error.description;
    EXPECT_EQ(log_.lines().at(0),
              "Error loading web resource at " + url + " : " + outcome.error.text());
}

TEST_F(WebDamage, WrongAddressesAreErrorsLikeOthers) {
    expectError(URLErrorCode::BadURL, "");
    expectError(URLErrorCode::BadURL, "http://");
    expectError(URLErrorCode::BadURL, "http://exa mple.com/");
    expectError(URLErrorCode::BadURL, "http://127.0.0.1:99999/");
    expectError(URLErrorCode::UnsupportedURL, "ftp://127.0.0.1/");
    expectError(URLErrorCode::UnsupportedURL, "example");
}

TEST_F(WebDamage, WithoutATimeOutTheUsualOneHolds) {
    MisbehavingServer server(says(std::string(kHead) + "Content-Length: 1\r\n\r\nx"));
    for (const double seconds : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN(),
                                 std::numeric_limits<double>::infinity(), 1e300}) {
        EXPECT_EQ(load(server.url(), std::chrono::duration<double>(seconds)).text(), "x");
    }
}

}  // namespace
}  // namespace utilia
