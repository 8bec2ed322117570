#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Common/Platform/Linux/Modules/Net/ProxySettings.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/ListeningPort.h"
#include "Tests/Support/MisbehavingServer.h"
#include "Tests/Support/NginxServer.h"
#include "Tests/Unit/WebLoading/WebFixture.h"

namespace utilia {
namespace {

using namespace test;
using platform::net::proxiesOfDesktop;
using platform::net::ProxySettings;

namespace fs = std::filesystem;

void copyBothWays(int left, int right) {
    std::array<pollfd, 2> ends{{{left, POLLIN, 0}, {right, POLLIN, 0}}};
    for (;;) {
        if (poll(ends.data(), ends.size(), -1) < 0) return;
        for (std::size_t i = 0; i < 2; ++i) {
            if (!ends[i].revents) continue;
            std::array<char, 4096> bytes;
            const ssize_t size = recv(ends[i].fd, bytes.data(), bytes.size(), 0);
            if (size <= 0 || send(ends[1 - i].fd, bytes.data(), static_cast<std::size_t>(size),
                                  MSG_NOSIGNAL) != size) {
                return;
            }
        }
    }
}

// A proxy: its port, and then each request line. Answers plain requests itself, and opens tunnels to
// ports of this machine, whatever the host; to port 1 it refuses them.
UTILIA_CHILD_ROLE(webProxy) {
    MisbehavingServer proxy([&self](auto& connection) {
        const std::string request = connection.readRequest();
        const bool hasPassword = request.find("Proxy-Authorization: Basic ") != std::string::npos;
        self.say(request.substr(0, request.find(" HTTP/")) +
                 (hasPassword ? " with a password" : ""));
        if (!request.starts_with("CONNECT ")) {
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nby proxy");
            return;
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int port = std::stoi(request.substr(request.find(':') + 1));
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        const platform::UniqueFd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (port == 1 ||
            connect(server.get(), reinterpret_cast<sockaddr*>(&address), sizeof address)) {
            connection.send("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n");
            return;
        }
        connection.send("HTTP/1.1 200 Connected\r\n\r\n");
        copyBothWays(connection.descriptor(), server.get());
    });
    self.say(std::to_string(proxy.port()));
    self.waitForLine();
    return 0;
}

class WebProxy : public WebTest {
protected:
    WebProxy() : port_(proxy_.waitForLine().value_or("")) {}
    ~WebProxy() override {
        for (const char* name :
             {"http_proxy", "https_proxy", "all_proxy", "no_proxy", "HTTP_PROXY"})
            unsetenv(name);
    }
    std::string address(const std::string& user = "") const {
        return "http://" + user + "127.0.0.1:" + port_;
    }
    static void set(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }
    std::string request() { return proxy_.waitForLine().value_or("no request"); }
    bool isUnasked() { return !proxy_.waitForLine(std::chrono::milliseconds(0)); }

    const TemporaryHome home_;
    ChildProcess proxy_ = ChildProcess::role("webProxy");
    const std::string port_;
};

TEST_F(WebProxy, OfTheEnvironmentIsAskedForPlainPages) {
    set("http_proxy", address());
    EXPECT_EQ(load("http://example.test/a?b").text(), "by proxy");
    EXPECT_EQ(request(), "GET http://example.test/a?b");
    set("http_proxy", address("me:word@"));
    EXPECT_EQ(load("http://example.test/").text(), "by proxy");
    EXPECT_EQ(request(), "GET http://example.test/ with a password");
}

TEST_F(WebProxy, OfTheEnvironmentOpensATunnelForSecurePages) {
    const NginxServer server("location / { return 200 secure; }");
    setenv("SSL_CERT_FILE", server.certificate().c_str(), 1);
    set("https_proxy", address());
    EXPECT_EQ(load(server.secureURL("/")).text(), "secure");
    EXPECT_EQ(request(), "CONNECT localhost:" + std::to_string(server.securePort()));
    expectError(URLErrorCode::CannotConnectToHost, "https://localhost:1/");
    EXPECT_EQ(request(), "CONNECT localhost:1");
}

TEST_F(WebProxy, IsChosenByTheSchemeAlsoInTheMiddleOfALoad) {
    const NginxServer server("location = /to { return 302 https://localhost:$arg_port/; }"
                             "location / { return 200 secure; }");
    setenv("SSL_CERT_FILE", server.certificate().c_str(), 1);
    set("https_proxy", address());
    EXPECT_EQ(load(server.url("/to?port=" + std::to_string(server.securePort()))).text(), "secure");
    EXPECT_EQ(request(), "CONNECT localhost:" + std::to_string(server.securePort()));
    EXPECT_TRUE(isUnasked());
}

TEST_F(WebProxy, OfAllSchemesIsUsedWithoutOneOfItsOwn) {
    set("all_proxy", address());
    EXPECT_EQ(load("http://example.test/").text(), "by proxy");
    EXPECT_EQ(request(), "GET http://example.test/");
}

TEST_F(WebProxy, IsNotAskedForExceptions) {
    const NginxServer server("location / { return 200 direct; }");
    set("http_proxy", address());
    for (const char* exceptions : {"127.0.0.1", "example.test,127.0.0.1", "127.0.0.0/8", "*"}) {
        set("no_proxy", exceptions);
        EXPECT_EQ(load(server.url("/")).text(), "direct") << exceptions;
    }
    set("no_proxy", "example.test");
    EXPECT_EQ(load(server.url("/")).text(), "by proxy");
}

TEST_F(WebProxy, IsNotTakenFromTheVariableThatRequestsCanSet) {
    const NginxServer server("location / { return 200 direct; }");
    set("HTTP_PROXY", address());
    EXPECT_EQ(load(server.url("/")).text(), "direct");
}

TEST_F(WebProxy, ThatIsNotThereIsNoConnection) {
    const ListeningPort nobody(false);
    set("http_proxy", nobody.url(""));
    expectError(URLErrorCode::CannotConnectToHost, "http://example.test/");
}

// The desktop's settings, in a file instead of its database.
class DesktopProxy : public WebProxy {
protected:
    void writeSettings(const std::string& text) const {
        fs::create_directories(home_.config() / "glib-2.0/settings");
        std::ofstream(home_.config() / "glib-2.0/settings/keyfile") << text;
    }
    std::string manual() const {
        return "[system/proxy]\nmode='manual'\nignore-hosts=['localhost', "
               "'127.0.0.0/8']\n"
               "[system/proxy/http]\nhost='127.0.0.1'\nport=" +
               port_ + "\n";
    }
    static ScriptedChild startTool(std::map<std::string, std::string> environment = {}) {
        environment.merge(std::map<std::string, std::string>{{"XDG_CURRENT_DESKTOP", "GNOME"},
                                                             {"GSETTINGS_BACKEND", "keyfile"},
                                                             {"XDG_DATA_DIRS", "/usr/share"}});
        return ScriptedChild(ChildProcess::role("webTool", {}, {.environment = environment}));
    }
};

TEST_F(DesktopProxy, IsAskedWhenTheEnvironmentNamesNone) {
    writeSettings(manual());
    auto tool = startTool();
    EXPECT_EQ(tool.ask("load", {"http://example.test/"}), "by proxy");
    EXPECT_EQ(request(), "GET http://example.test/");
    EXPECT_EQ(tool.ask("load", {tool.ask("serve")}), "hello") << "an exception";
    EXPECT_EQ(tool.ask("maps"), "Net libcurl") << "without the desktop's libraries";
}

TEST_F(DesktopProxy, DoesNotCountBesideTheEnvironment) {
    writeSettings("[system/proxy]\nmode='manual'\n"
                  "[system/proxy/http]\nhost='127.0.0.1'\nport=1\n");
    auto tool = startTool({{"http_proxy", address()}});
    EXPECT_EQ(tool.ask("load", {"http://example.test/"}), "by proxy");
}

TEST_F(DesktopProxy, DoesNotCountWhenTheDesktopHasItOff) {
    std::string text = manual();
    text.replace(text.find("manual"), 6, "none");
    writeSettings(text);
    auto tool = startTool();
    EXPECT_EQ(tool.ask("load", {tool.ask("serve")}), "hello");
    EXPECT_TRUE(isUnasked());
}

TEST_F(DesktopProxy, IsNotWaitedForForLong) {
    const auto program = home_.path() / "gsettings";
    std::ofstream(program) << "#!/bin/sh\nexec sleep 1000\n";
    fs::permissions(program, fs::perms::owner_all);
    auto tool = startTool({{"PATH", home_.path().string() + ":/usr/bin:/bin"}});
    EXPECT_EQ(tool.ask("load", {tool.ask("serve")}), "hello");
    // Nor for one that says nothing more, and does not end.
    std::ofstream(program) << "#!/bin/sh\nexec >&-\nexec sleep 1000\n";
    auto closing = startTool({{"PATH", home_.path().string() + ":/usr/bin:/bin"}});
    EXPECT_EQ(closing.ask("load", {closing.ask("serve")}), "hello");
    // Nor is a program that is missing.
    auto other = startTool({{"PATH", home_.path().string() + "/none"}});
    EXPECT_EQ(other.ask("load", {other.ask("serve")}), "hello");
}

TEST(ProxySettings, AreReadFromWhatTheDesktopPrints) {
    const std::string printed =
        "org.gnome.system.proxy autoconfig-url ''\n"
        "org.gnome.system.proxy ignore-hosts ['localhost', \"*.it's.example\", '::1', 'a,b', '']\n"
        "org.gnome.system.proxy mode 'manual'\n"
        "org.gnome.system.proxy use-same-proxy true\n"
        "org.gnome.system.proxy.http authentication-password ''\n"
        "org.gnome.system.proxy.http host 'proxy.example'\n"
        "org.gnome.system.proxy.http port 8080\n"
        "org.gnome.system.proxy.https host '::1'\n"
        "org.gnome.system.proxy.https port 8443\n"
        "org.gnome.system.proxy.socks host 'socks.example'\n"
        "org.gnome.system.proxy.socks port 1080\n";
    EXPECT_EQ(proxiesOfDesktop(printed),
              (ProxySettings{"http://proxy.example:8080", "http://[::1]:8443",
                             "localhost,.it's.example,::1"}));
    // Without a proxy of its own, a scheme has that of SOCKS.
    std::string other = printed;
    other.replace(other.find("8080"), 4, "0");
    EXPECT_EQ(proxiesOfDesktop(other).http, "socks5h://socks.example:1080");
}

TEST(ProxySettings, ThatCannotBeReadAreNone) {
    for (const char* printed :
         {"", "\n\n", "org.gnome.system.proxy mode", "org.gnome.system.proxy mode 'auto'",
          "org.gnome.system.proxy mode manual", "No such schema",
          "org.gnome.system.proxy mode 'manual'\norg.gnome.system.proxy.http host 'a b'\n"
          "org.gnome.system.proxy.http port 80",
          "org.gnome.system.proxy mode 'manual'\norg.gnome.system.proxy.http host 'a'\n"
          "org.gnome.system.proxy.http port 80x",
          "org.gnome.system.proxy mode 'manual'\norg.gnome.system.proxy.http host '\n"
          "org.gnome.system.proxy.http port 80"}) {
        EXPECT_EQ(proxiesOfDesktop(printed), ProxySettings()) << printed;
    }
}

}  // namespace
}  // namespace utilia
