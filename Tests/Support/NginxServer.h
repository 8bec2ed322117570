#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {

// A request as nginx has logged it after its answer.
struct NginxRequest {
    std::string method;
    std::string target;                          // as it arrived: "/a%20b?c=d"
    std::string protocol;                        // "HTTP/1.1", "HTTP/2.0"
    int status = 0;                              // of the answer
    bool isSecure = false;                       // arrived by TLS
    std::map<std::string, std::string> headers;  // those of NginxOptions::headers that it had
    std::filesystem::path bodyFile;              // where kKeepBody has put the body; else empty

    // The kept body, byte for byte; "" without one.
    std::string body() const;
};

struct NginxOptions {
    std::string outside = {};  // directives beside the servers: upstreams, maps, more servers
    std::vector<std::string> headers = {};  // of requests, to be logged: "Cookie", "User-Agent"
    std::vector<std::string> certificateNames = {"localhost"};  // addresses are recognised
    bool isCertificateExpired = false;
};

// Put into a location, lets nginx keep the body of each request in a file and answer 200; with
// "/500" appended to the address it answers 500: "proxy_pass http://body_sink/500;".
inline constexpr const char* kKeepBody =
    "client_body_in_file_only on; client_max_body_size 0; proxy_pass http://body_sink;";

// An nginx of a test's own: for HTTP and for HTTPS with HTTP/2, on 127.0.0.1 and ::1, at ports that
// the kernel chose and nobody else can get in between. It serves the files of root(), and the
// directives that the test gives it (those of a "server" block).
//
//     NginxServer server("location = /old { return 302 /new; }");
//     server.url("/old"), server.secureURL("/")     // http://127.0.0.1:…, https://localhost:…
//     server.waitForRequests(1).at(0).target        // "/old"
//
// It has a certificate that nobody trusts, except those who take certificate() for an authority
// (SSL_CERT_FILE, curl --cacert).
class NginxServer final {
public:
    using Options = NginxOptions;

    // Waits until it answers; throws std::runtime_error with what it complains about.
    explicit NginxServer(const std::string& directives = "", const Options& options = {});
    ~NginxServer();
    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    std::uint16_t port() const { return port_; }
    std::uint16_t securePort() const { return securePort_; }
    // The path begins with "/". IPv6 addresses are given in brackets.
    std::string url(const std::string& path, const std::string& host = "127.0.0.1") const;
    std::string secureURL(const std::string& path, const std::string& host = "localhost") const;

    std::filesystem::path root() const { return folder_.path() / "root"; }
    std::filesystem::path certificate() const { return folder_.path() / "certificate.pem"; }
    std::filesystem::path key() const { return folder_.path() / "key.pem"; }
    std::string errors() const;

    // All requests that have been answered so far, in the order of their answers.
    std::vector<NginxRequest> requests() const;
    // The same, when there are that many, or after 20 s.
    std::vector<NginxRequest> waitForRequests(std::size_t count) const;

    // While it is stopped the kernel takes connections and nobody answers them.
    void stop();
    void resume();

private:
    void makeCertificate(const Options& options) const;
    void writeConfiguration(const std::string& directives, const Options& options) const;
    void start(const std::string& directives, const Options& options);
    void waitUntilItAnswers();
    void signalWorker(int number);

    TemporaryFolder folder_;
    std::uint16_t port_ = 0;
    std::uint16_t securePort_ = 0;
    ChildProcess process_;
};

}  // namespace utilia::test
