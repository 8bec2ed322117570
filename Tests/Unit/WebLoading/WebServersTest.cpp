#include <filesystem>
#include <fstream>
#include <string>

#include "Tests/Support/NginxServer.h"
#include "Tests/Unit/WebLoading/WebFixture.h"

namespace utilia {
namespace {

using test::NginxServer;
using test::Outcome;
using Lines = std::vector<std::string>;

class WebServers : public test::WebTest {
protected:
    static void trust(const NginxServer& server) {
        setenv("SSL_CERT_FILE", server.certificate().c_str(), 1);
    }
    static void write(const NginxServer& server, const std::string& name, const std::string& text) {
        std::ofstream(server.root() / name, std::ios::binary) << text;
    }
};

TEST_F(WebServers, APageIsLoadedAndItsSizeIsLogged) {
    const NginxServer server;
    write(server, "page", "twelve bytes");
    const Outcome outcome = load(server.url("/page"));
    EXPECT_EQ(outcome.text(), "twelve bytes");
    EXPECT_EQ(log_.lines(),
              Lines{"Web data loaded successfully from " + server.url("/page") + ". Size = 12"});
    const auto requests = server.waitForRequests(1);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
}

TEST_F(WebServers, SuccessIsLoggedWithExtendedLoggingOnly) {
    setExtendedLoggingProbe([] { return false; });
    const NginxServer server("location / { return 204; }");
    EXPECT_EQ(load(server.url("/")).successes, 1);
    EXPECT_EQ(log_.lines(), Lines{});
}

TEST_F(WebServers, WithoutContentIsSuccessWithoutData) {
    const NginxServer server("location /204 { return 204; } location /200 { return 200; }");
    for (const char* path : {"/204", "/200"}) {
        const Outcome outcome = load(server.url(path));
        EXPECT_EQ(outcome.successes, 1) << path;
        EXPECT_EQ(outcome.data, Data());
    }
    EXPECT_EQ(log_.lines().back(),
              "Web data loaded successfully from " + server.url("/200") + ". Size = 0");
}

TEST_F(WebServers, AnyOtherStatusIsAnErrorAndLogged) {
    setExtendedLoggingProbe([] { return false; });
    const NginxServer server(
        "location ~ ^/201 { return 201 made; } location ~ ^/304 { return 304; }"
        "location ~ ^/203 { return 203 x; } location ~ ^/206 { return 206 x; }"
        "location ~ ^/302 { return 302; } location ~ ^/401 { return 401; }"
        "location ~ ^/404 { return 404; } location ~ ^/500 { return 500; }");
    for (const char* status : {"201", "203", "206", "304", "401", "404", "500"}) {
        const std::string url = server.url(std::string("/") + status);
        expectError(URLErrorCode::ZeroByteResource, url);
        EXPECT_EQ(log_.lines().back(),
                  "Error loading web resource at " + url + ". HTTP status code: " + status);
    }
    EXPECT_EQ(log_.lines().size(), 7u);
}

TEST_F(WebServers, PackedPagesAreUnpacked) {
    const NginxServer server("gzip on; gzip_types *; gzip_min_length 1;",
                             {.headers = {"Accept-Encoding"}});
    const std::string page(100'000, 'x');
    write(server, "page", page);
    EXPECT_EQ(load(server.url("/page")).text(), page);
    const auto requests = server.waitForRequests(1);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_NE(requests[0].headers.at("Accept-Encoding").find("gzip"), std::string::npos);
}

TEST_F(WebServers, PackedPagesThatAreTooLargeWhenUnpackedAreNotLoaded) {
    const NginxServer server("gzip on; gzip_types *; gzip_min_length 1; gzip_comp_level 1;");
    write(server, "page", "");
    std::filesystem::resize_file(server.root() / "page", std::size_t{66} << 20);
    expectError(URLErrorCode::DataLengthExceedsMaximum, server.url("/page"));
}

TEST_F(WebServers, PagesInChunksAreLoaded) {
    // What nginx changes on its way has no length any more.
    const NginxServer server("location /page { sub_filter_types *; sub_filter a b; }");
    write(server, "page", std::string(300'000, 'a'));
    std::string changed(300'000, 'a');
    changed[0] = 'b';
    EXPECT_EQ(load(server.url("/page")).text(), changed);
}

TEST_F(WebServers, ByIPv6) {
    const NginxServer server;
    write(server, "page", "by IPv6");
    EXPECT_EQ(load(server.url("/page", "[::1]")).text(), "by IPv6");
}

TEST_F(WebServers, ByHTTP2) {
    const NginxServer server;
    trust(server);
    const std::string page(1'000'000, 'y');
    write(server, "page", page);
    EXPECT_EQ(load(server.secureURL("/page")).text(), page);
    const auto requests = server.waitForRequests(1);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].protocol, "HTTP/2.0");
    EXPECT_TRUE(requests[0].isSecure);
}

}  // namespace
}  // namespace utilia
