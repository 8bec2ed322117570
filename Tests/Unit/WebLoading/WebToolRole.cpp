#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/Web/WebDataLoader.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/LoadedLibraries.h"
#include "Tests/Support/MisbehavingServer.h"

// A process that loads from the web.

using namespace utilia;
using namespace utilia::test;

namespace {

std::string load(const std::string& url, std::chrono::milliseconds timeout) {
    std::optional<std::string> answer;
    WebDataLoader loader(timeout);
    loader.loadUrl(
        url, [&](const Data& data) { answer = std::string(data.begin(), data.end()); },
        [&](const Error& error, const std::string&) {
            answer = std::to_string(error.code) + " " + error.description;
        });
    ChildScript::waitUntil([&] { return answer.has_value(); });
    return answer.value_or("nothing");
}

MisbehavingServer::Handler greets() {
    return [](auto& connection) {
        while (!connection.readRequest().empty())
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
    };
}

UTILIA_CHILD_ROLE(webTool) {
    std::unique_ptr<MisbehavingServer> server;
    ChildScript script(self);
    script.on("load",
              [](const auto& arguments) { return load(arguments[0], std::chrono::seconds(40)); });
    script.on("load-in-milliseconds", [](const auto& arguments) {
        return load(arguments[1], std::chrono::milliseconds(std::stoi(arguments[0])));
    });
    script.on("serve", [&](const auto&) {
        server = std::make_unique<MisbehavingServer>(greets());
        return server->url();
    });
    // One load whose host's name is being looked up, and is given up.
    script.on("cancel-lookup", [](const auto& arguments) {
        int calls = 0;
        WebDataLoader loader(std::chrono::seconds(60));
        loader.loadUrl(
            arguments[0], [&](const Data&) { ++calls; },
            [&](const Error&, const std::string&) { ++calls; });
        platform::RunLoop::mainRunLoop().runFor(std::chrono::milliseconds(200));
        loader.cancel();
        return std::to_string(calls);
    });
    script.on("loader-without-load", [](const auto&) {
        WebDataLoader loader(std::chrono::seconds(40));
        loader.cancel();
        return "";
    });
    script.on("maps", [](const auto&) {
        return std::string(isLoaded("/Net.so") ? "Net" : "") +
               (isLoaded("libcurl") ? " libcurl" : "") + (isLoaded("libgio") ? " GIO" : "");
    });
    // Network connections that a program started from here would inherit.
    script.on("inherited", [](const auto&) {
        std::string found;
        bool isThere = false;
        for (int descriptor = kChildChannel + 1; descriptor < 256; ++descriptor) {
            const int flags = fcntl(descriptor, F_GETFD);
            sockaddr_storage address{};
            socklen_t size = sizeof address;
            const bool isOfNetwork =
                getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
                (address.ss_family == AF_INET || address.ss_family == AF_INET6);
            isThere |= isOfNetwork;
            if (isOfNetwork && !(flags & FD_CLOEXEC)) found += std::to_string(descriptor) + " ";
        }
        return isThere ? "inherited: " + found : "no connections";
    });
    // Forks while a load is under way; what the child's end with, and what the load came to.
    script.on("fork", [](const auto& arguments) {
        std::optional<std::string> answer;
        WebDataLoader loader(std::chrono::seconds(40));
        loader.loadUrl(
            arguments[0], [&](const Data& data) { answer = std::string(data.begin(), data.end()); },
            [&](const Error& error, const std::string&) { answer = error.description; });
        const pid_t child = fork();
        if (child == 0) {
            loader.cancel();
            const std::string refused = load(arguments[0], std::chrono::seconds(40));
            std::exit(refused == "-1 module Net: not in a forked child" ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        ChildScript::waitUntil([&] { return answer.has_value(); });
        return std::to_string(status) + " " + answer.value_or("nothing");
    });
    return script.run();
}

// Ends in the middle of loads, in the usual way.
UTILIA_CHILD_ROLE(endingWebTool) {
    int calls = 0;
    WebDataLoader loader(std::chrono::seconds(40));
    for (int i = 0; i < 50; ++i) {
        loader.loadUrl(
            self.arguments[0], [&](const Data&) { ++calls; },
            [&](const Error&, const std::string&) { calls += 1000; });
    }
    platform::RunLoop::mainRunLoop().runUntil([&] { return calls >= std::stoi(self.arguments[1]); },
                                              std::chrono::seconds(20));
    std::exit(calls >= 1000 ? 1 : 0);
}

}  // namespace
