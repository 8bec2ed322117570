#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Support/NginxServer.h"

using namespace utilia::test;

namespace {

// Answers the exit status of curl; the body lands in `output`.
int curl(std::vector<std::string> arguments, const std::string& output) {
    arguments.insert(arguments.begin(), {"-q", "--silent", "--noproxy", "*"});
    auto program = ChildProcess::program("/usr/bin/curl", arguments, {.standardOutput = output});
    return program.waitForExit().value_or(-1);
}

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class NginxServerTest : public testing::Test {
protected:
    std::string output() const { return (folder_.path() / "output").string(); }
    const TemporaryFolder folder_;
};

TEST_F(NginxServerTest, ServesFilesWithAndWithoutTLSByBothKindsOfAddresses) {
    const NginxServer server;
    std::ofstream(server.root() / "page") << "a page.";
    ASSERT_EQ(curl({server.url("/page")}, output()), 0) << server.errors();
    ASSERT_EQ(curl({server.url("/page", "[::1]")}, output()), 0);
    ASSERT_EQ(curl({"--cacert", server.certificate(), server.secureURL("/page")}, output()), 0);
    EXPECT_EQ(contentOf(output()), "a page.a page.a page.");
    const auto requests = server.waitForRequests(3);
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/page");
    EXPECT_EQ(requests[0].protocol, "HTTP/1.1");
    EXPECT_EQ(requests[0].status, 200);
    EXPECT_FALSE(requests[1].isSecure);
    EXPECT_TRUE(requests[2].isSecure);
    EXPECT_EQ(requests[2].protocol, "HTTP/2.0");
}

TEST_F(NginxServerTest, HasACertificateThatNobodyTrustsOfItself) {
    const NginxServer server;
    const NginxServer expired("", {.isCertificateExpired = true});
    EXPECT_EQ(curl({server.secureURL("/")}, output()), 60);
    EXPECT_EQ(
        curl({"--cacert", server.certificate(), server.secureURL("/", "127.0.0.1")}, output()), 60);
    EXPECT_EQ(curl({"--cacert", expired.certificate(), expired.secureURL("/")}, output()), 60);
}

TEST_F(NginxServerTest, KeepsBodiesByteForByteAndLogsTheHeadersItIsAskedFor) {
    const std::string sent("some\0bytes\n", 11);
    std::ofstream(folder_.path() / "sent", std::ios::binary) << sent;
    const NginxServer server(std::string("location /upload { ") + kKeepBody + " }" +
                                 "location /busy { client_body_in_file_only on; "
                                 "proxy_pass http://body_sink/500; }",
                             {.headers = {"User-Agent", "Cookie"}});
    for (const char* path : {"/upload?a=\"b\"", "/busy"}) {
        ASSERT_EQ(curl({"--user-agent", "a \"test\"", "--data-binary",
                        "@" + (folder_.path() / "sent").string(), server.url(path)},
                       output()),
                  0);
    }
    const auto requests = server.waitForRequests(2);
    ASSERT_EQ(requests.size(), 2u) << server.errors();
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, "/upload?a=\"b\"");
    EXPECT_EQ(requests[0].status, 200);
    EXPECT_EQ(requests[0].body(), sent);
    EXPECT_EQ(requests[0].headers,
              (std::map<std::string, std::string>{{"User-Agent", "a \"test\""}}));
    EXPECT_EQ(requests[1].status, 500);
    EXPECT_EQ(requests[1].body(), sent);
}

TEST_F(NginxServerTest, SaysWhatIsWrongWithItsDirectives) {
    try {
        const NginxServer server("no_such_directive;");
        FAIL() << "it runs";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("no_such_directive"), std::string::npos)
            << error.what();
    }
}

}  // namespace
