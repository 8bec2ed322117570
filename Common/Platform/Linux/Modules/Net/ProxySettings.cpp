#include "Common/Platform/Linux/Modules/Net/ProxySettings.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <map>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// The desktop's settings are asked for with its own program and not with its library, which would
// bring threads and a connection to the session's bus into every process that loads a page, and end
// the process with the bus. The answer is GVariant text; of it, texts, numbers, booleans and arrays
// of texts are read.

namespace utilia::platform::net {
namespace {

constexpr std::size_t kLongestAnswer = 64 * 1024;
constexpr std::chrono::milliseconds kPatience{2000};

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string variable(const char* name, const char* otherwise) {
    std::string value = variable(name);
    return value.empty() ? variable(otherwise) : value;
}

// 'text' or "text", with backslashes before quotes and themselves; advances behind it.
std::string takeText(std::string_view& value) {
    const char quote = value.front();
    std::string text;
    std::size_t i = 1;
    for (; i < value.size() && value[i] != quote; ++i) {
        if (value[i] == '\\' && i + 1 < value.size()) ++i;
        text += value[i];
    }
    value.remove_prefix(std::min(i + 1, value.size()));
    return text;
}

std::vector<std::string> textsOf(std::string_view value) {
    std::vector<std::string> texts;
    for (;;) {
        const std::size_t quote = value.find_first_of("'\"");
        if (quote == std::string_view::npos) return texts;
        value.remove_prefix(quote);
        texts.push_back(takeText(value));
    }
}

// "org.gnome.system.proxy.http host" → "'proxy.example.com'"
std::map<std::string, std::string> keysOf(std::string_view printed) {
    std::map<std::string, std::string> keys;
    while (!printed.empty()) {
        const std::string_view line = printed.substr(0, printed.find('\n'));
        printed.remove_prefix(std::min(line.size() + 1, printed.size()));
        const std::size_t schema = line.find(' ');
        if (schema == std::string_view::npos) continue;
        const std::size_t key = line.find(' ', schema + 1);
        if (key == std::string_view::npos) continue;
        keys.emplace(line.substr(0, key), line.substr(key + 1));
    }
    return keys;
}

class DesktopKeys final {
public:
    explicit DesktopKeys(std::string_view printed) : keys_(keysOf(printed)) {}

    std::string text(const std::string& key) const {
        const auto texts = textsOf(raw(key));
        return texts.empty() ? "" : texts[0];
    }
    std::string raw(const std::string& key) const {
        const auto found = keys_.find("org.gnome.system.proxy" + key);
        return found == keys_.end() ? "" : found->second;
    }
    // "" without a host and a port.
    std::string proxy(const std::string& kind, const std::string& scheme) const {
        std::string host = text("." + kind + " host");
        const std::string port = raw("." + kind + " port");
        const bool isPort = !port.empty() && port.size() <= 5 && port != "0" &&
                            port.find_first_not_of("0123456789") == std::string::npos;
        if (host.empty() || !isPort || host.find_first_of(" /@\t") != std::string::npos) return "";
        if (host.find(':') != std::string::npos && host.front() != '[') host = "[" + host + "]";
        return scheme + "://" + host + ":" + port;
    }

private:
    std::map<std::string, std::string> keys_;
};

// "*.example.com" and ".example.com" are the same, and what libcurl means by "example.com".
std::string exceptionsOf(std::string_view value) {
    std::string all;
    for (std::string each : textsOf(value)) {
        if (each.starts_with("*.")) each.erase(0, 1);
        if (each.empty() || each.find_first_of(", ") != std::string::npos) continue;
        all += (all.empty() ? "" : ",") + each;
    }
    return all;
}

std::string readAll(int descriptor, int process) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    std::string answer;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        pollfd waiting{descriptor, POLLIN, 0};
        if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) <= 0) break;
        std::array<char, 4096> chunk;
        const ssize_t size = read(descriptor, chunk.data(), chunk.size());
        if (size == 0) return answer;
        if (size < 0 || answer.size() > kLongestAnswer) break;
        answer.append(chunk.data(), static_cast<std::size_t>(size));
    }
    kill(process, SIGKILL);
    return "";
}

// The program with nothing of this process but its environment. Answers 0 when it cannot be started.
pid_t startProgram(int output) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (posix_spawn_file_actions_init(&actions) != 0) return 0;
    if (posix_spawnattr_init(&attributes) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return 0;
    }
    sigset_t none;
    sigset_t every;
    sigemptyset(&none);
    sigfillset(&every);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &every);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    std::array<std::string, 3> words{"gsettings", "list-recursively", "org.gnome.system.proxy"};
    std::array<char*, 4> arguments{words[0].data(), words[1].data(), words[2].data(), nullptr};
    pid_t process = 0;
    const int error =
        posix_spawnp(&process, "gsettings", &actions, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? process : 0;
}

// A program that has closed its output need not end. Where the kernel reaps this process's children by
// itself, there is nothing to wait for.
void reap(pid_t process) {
    for (int tries = 0; tries < 50; ++tries) {
        if (waitpid(process, nullptr, WNOHANG) != 0) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

}  // namespace

ProxySettings proxiesOfEnvironment(bool* isGiven) {
    // HTTP_PROXY is left out on purpose: a web server puts a request's header "Proxy" there.
    const std::string all = variable("all_proxy", "ALL_PROXY");
    ProxySettings settings{variable("http_proxy"), variable("https_proxy", "HTTPS_PROXY"),
                           variable("no_proxy", "NO_PROXY")};
    if (settings.http.empty()) settings.http = all;
    if (settings.https.empty()) settings.https = all;
    *isGiven = !settings.http.empty() || !settings.https.empty();
    return settings;
}

ProxySettings proxiesOfDesktop(std::string_view printed) {
    const DesktopKeys keys(printed);
    if (keys.text(" mode") != "manual") return {};
    ProxySettings settings{keys.proxy("http", "http"), keys.proxy("https", "http"),
                           exceptionsOf(keys.raw(" ignore-hosts"))};
    const std::string socks = keys.proxy("socks", "socks5h");
    if (settings.http.empty()) settings.http = socks;
    if (settings.https.empty()) settings.https = socks;
    return settings;
}

bool isInDesktop() { return !variable("XDG_CURRENT_DESKTOP").empty(); }

ProxySettings askDesktop() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
    const pid_t process = startProgram(ends[1]);
    close(ends[1]);
    const std::string answer = process != 0 ? readAll(ends[0], process) : "";
    close(ends[0]);
    if (process != 0) reap(process);
    return proxiesOfDesktop(answer);
}

}  // namespace utilia::platform::net
