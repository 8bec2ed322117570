#include "Tests/Support/NginxServer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Common/Platform/UniqueFd.h"

// A server that is told a port can find it taken by then. So the test binds and listens at ports
// that the kernel chooses, and nginx inherits the sockets, as it does from an older self during an
// upgrade: the variable NGINX lists their descriptors. Connections wait in the kernel until nginx
// is there. (That works only with a master and a worker, not with all in one process.)

namespace utilia::test {
namespace {

namespace fs = std::filesystem;
using platform::UniqueFd;

constexpr const char* kProgram = "/usr/sbin/nginx";
constexpr const char* kReadyPath = "/nginx-is-ready";

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

UniqueFd bindTo(const sockaddr* address, socklen_t size) {
    // Out of the way of the low numbers that a child process is given.
    const UniqueFd made(socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    UniqueFd descriptor(fcntl(made.get(), F_DUPFD_CLOEXEC, 10));
    const int on = 1;
    if (address->sa_family == AF_INET6)
        setsockopt(descriptor.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    if (!descriptor || bind(descriptor.get(), address, size) != 0) return {};
    if (listen(descriptor.get(), SOMAXCONN) != 0) fail("listen");
    return descriptor;
}

UniqueFd bindTo4(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return bindTo(reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

UniqueFd bindTo6(std::uint16_t port) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    address.sin6_addr = in6addr_loopback;
    return bindTo(reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

std::uint16_t portOf(const UniqueFd& descriptor) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(descriptor.get(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

// The same port on 127.0.0.1 and ::1.
struct Listeners {
    UniqueFd four;
    UniqueFd six;

    static Listeners make() {
        for (int tries = 0; tries < 100; ++tries) {
            Listeners made{bindTo4(0), {}};
            if (!made.four) fail("bind to 127.0.0.1");
            made.six = bindTo6(portOf(made.four));
            if (made.six) return made;
        }
        fail("bind to ::1");
    }
    void append(std::string& list) const {
        for (const UniqueFd* each : {&four, &six}) {
            fcntl(each->get(), F_SETFD, 0);
            list += std::to_string(each->get()) + ";";
        }
    }
};

void run(const std::string& command) {
    auto shell = ChildProcess::program("/bin/sh", {"-c", command});
    if (shell.waitForExit() != 0) throw std::runtime_error("failed: " + command);
}

// "User-Agent" is logged by nginx's variable $http_user_agent.
std::string headerVariable(std::string header) {
    for (char& each : header) each = each == '-' ? '_' : static_cast<char>(std::tolower(each));
    return "$http_" + header;
}

std::string logFormat(const std::vector<std::string>& headers) {
    std::string format = "log_format requests escape=json '{\"method\":\"$request_method\","
                         "\"target\":\"$request_uri\",\"protocol\":\"$server_protocol\","
                         "\"status\":\"$status\",\"https\":\"$https\","
                         "\"body\":\"$request_body_file\",\"headers\":{";
    for (const std::string& header : headers) {
        if (&header != &headers.front()) format += ",";
        format += "\"" + header + "\":\"" + headerVariable(header) + "\"";
    }
    return format + "}}';\n";
}

NginxRequest parseRequest(const std::string& line) {
    const auto logged = nlohmann::json::parse(line);
    NginxRequest request{.method = logged["method"],
                         .target = logged["target"],
                         .protocol = logged["protocol"],
                         .status = std::stoi(logged["status"].get<std::string>()),
                         .isSecure = logged["https"] == "on",
                         .headers = {},
                         .bodyFile = logged["body"].get<std::string>()};
    for (const auto& [name, value] : logged["headers"].items()) {
        if (value != "") request.headers[name] = value;
    }
    return request;
}

}  // namespace

std::string NginxRequest::body() const { return bodyFile.empty() ? "" : contentOf(bodyFile); }

NginxServer::NginxServer(const std::string& directives, const Options& options) {
    fs::create_directories(root());
    makeCertificate(options);
    start(directives, options);
    waitUntilItAnswers();
}

// Its worker would outlive it if it were killed.
NginxServer::~NginxServer() {
    resume();
    process_.signal(SIGTERM);
    process_.waitForExit();
}

void NginxServer::start(const std::string& directives, const Options& options) {
    const auto plain = Listeners::make();
    const auto secure = Listeners::make();
    port_ = portOf(plain.four);
    securePort_ = portOf(secure.four);
    writeConfiguration(directives, options);
    std::string inherited;
    plain.append(inherited);
    secure.append(inherited);
    process_ =
        ChildProcess::program("/usr/bin/setpriv",
                              {"--pdeathsig", "TERM", kProgram, "-p", folder_.path().string(), "-c",
                               "nginx.conf", "-e", "errors.log"},
                              {.environment = {{"NGINX", inherited}},
                               .standardError = (folder_.path() / "stderr.log").string()});
}

void NginxServer::stop() { signalWorker(SIGSTOP); }

void NginxServer::resume() { signalWorker(SIGCONT); }

void NginxServer::signalWorker(int number) {
    const std::string pid = std::to_string(process_.pid());
    const std::string worker = contentOf("/proc/" + pid + "/task/" + pid + "/children");
    if (!worker.empty()) kill(std::stoi(worker), number);
}

std::string NginxServer::url(const std::string& path, const std::string& host) const {
    return "http://" + host + ":" + std::to_string(port_) + path;
}

std::string NginxServer::secureURL(const std::string& path, const std::string& host) const {
    return "https://" + host + ":" + std::to_string(securePort_) + path;
}

std::string NginxServer::errors() const {
    return contentOf(folder_.path() / "stderr.log") + contentOf(folder_.path() / "errors.log");
}

// Its own authority, so that whoever trusts it need trust nothing else. openssl makes certificates
// that are over only from a request.
void NginxServer::makeCertificate(const Options& options) const {
    std::string names;
    for (const std::string& name : options.certificateNames) {
        in6_addr ignored{};
        const bool isAddress = inet_pton(AF_INET, name.c_str(), &ignored) == 1 ||
                               inet_pton(AF_INET6, name.c_str(), &ignored) == 1;
        names += (names.empty() ? "" : ",") + std::string(isAddress ? "IP:" : "DNS:") + name;
    }
    const std::string folder = "cd '" + folder_.path().string() + "' && ";
    run(folder +
        "openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
        " -subj /CN=test -addext subjectAltName=" +
        names +
        " -addext basicConstraints=critical,CA:TRUE -keyout key.pem -out request.pem 2>/dev/null");
    run(folder + "openssl x509 -req -in request.pem -signkey key.pem -copy_extensions copy -days " +
        (options.isCertificateExpired ? "-1" : "2") + " -out certificate.pem 2>/dev/null");
}

void NginxServer::writeConfiguration(const std::string& directives, const Options& options) const {
    const auto listen = [](std::uint16_t port, const std::string& kind) {
        const std::string text = std::to_string(port) + kind + ";\n";
        return "listen 127.0.0.1:" + text + "listen [::1]:" + text;
    };
    std::ofstream file(folder_.path() / "nginx.conf");
    if (geteuid() == 0) file << "user root;\n";
    file << "daemon off;\nworker_processes 1;\npid nginx.pid;\n"
            "events { worker_connections 4096; }\nworker_rlimit_nofile 8192;\n"
            "http {\n"
         << logFormat(options.headers)
         << "access_log requests.log requests;\ndefault_type application/octet-stream;\n"
            "keepalive_requests 100000;\n";
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        file << kind << "_temp_path " << kind << ";\n";
    const std::string sink = "unix:" + (folder_.path() / "sink").string();
    file << "upstream body_sink { server " << sink << "; }\n"
         << "server { listen " << sink << "; access_log off; client_max_body_size 0;\n"
         << "location / { return 200; } location /500 { return 500; } }\n"
         << options.outside << "\nserver {\n"
         << listen(port_, "") << listen(securePort_, " ssl http2")
         << "ssl_certificate certificate.pem;\nssl_certificate_key key.pem;\nroot root;\n"
         << "location = " << kReadyPath << " { access_log off; return 204; }\n"
         << directives << "\n}\n}\n";
}

void NginxServer::waitUntilItAnswers() {
    const UniqueFd connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval patience{60, 0};
    setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string request = std::string("GET ") + kReadyPath + " HTTP/1.0\r\n\r\n";
    std::array<char, 64> answer{};
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
            0 &&
        send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL) > 0 &&
        recv(connection.get(), answer.data(), answer.size() - 1, 0) > 0 &&
        std::string_view(answer.data()).find(" 204 ") != std::string_view::npos) {
        return;
    }
    throw std::runtime_error("nginx does not answer: " + errors());
}

std::vector<NginxRequest> NginxServer::requests() const {
    std::vector<NginxRequest> found;
    std::istringstream log(contentOf(folder_.path() / "requests.log"));
    for (std::string line; std::getline(log, line) && !log.eof();)
        found.push_back(parseRequest(line));
    return found;
}

std::vector<NginxRequest> NginxServer::waitForRequests(std::size_t count) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const UniqueFd changes(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (inotify_add_watch(changes.get(), (folder_.path() / "requests.log").c_str(), IN_MODIFY) < 0)
        fail("inotify_add_watch");
    for (;;) {
        auto found = requests();
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (found.size() >= count || left.count() <= 0) return found;
        pollfd waiting{changes.get(), POLLIN, 0};
        if (poll(&waiting, 1, static_cast<int>(left.count())) > 0) {
            std::array<char, 4096> ignored{};
            if (read(changes.get(), ignored.data(), ignored.size()) < 0) fail("read");
        }
    }
}

}  // namespace utilia::test
