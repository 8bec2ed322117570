#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "Common/Platform/Linux/PortImplementation.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/Ports/PortTestSupport.h"

// Kills senders at random moments, and looks at what that does to the receiver they were sending
// to: every message that arrives is whole and in its sender's order, and in the end the receiver
// has as many descriptors and connections, and as much memory, as in the beginning.
//
//     port_kill_loop [--kills N]
//
// The senders are forked from processes that have no run loop yet, at some hundreds a second.

namespace utilia::platform {
namespace {

using namespace std::chrono_literals;
using test::bytesOf;

constexpr const char* kName = "kill loop";
constexpr int kForkers = 4;

// What message N of a connection carries, so that nothing of another message's can pass for it.
std::string contentOf(std::uint32_t number, std::size_t size) {
    return std::string(size, static_cast<char>('a' + number % 26));
}

[[noreturn]] void sendUntilKilled() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::minstd_rand random(static_cast<unsigned>(getpid()));
    for (unsigned connection = 0;; ++connection) {
        // A connection of its own now and then, so that kills fall on every step of one.
        const auto port = PortNameServer::systemDefaultPortNameServer().portForName(kName);
        if (!port) continue;
        const std::string origin = std::to_string(getpid()) + "." + std::to_string(connection);
        for (std::uint32_t number = 1; number <= 20 && port->isValid(); ++number) {
            const std::size_t size = random() % 8 == 0 ? 100'000 : random() % 5000;
            const std::string content = contentOf(number, size);
            PortMessage message(port, {bytesOf(origin), bytesOf(content)});
            message.setMsgid(number);
            try {
                message.sendBeforeDate(std::chrono::steady_clock::now() + 5s);
            } catch (const PortException&) {
                break;
            }
        }
        port->invalidate();
    }
}

UTILIA_CHILD_ROLE(forkAndKill) {
    const int kills = std::atoi(self.arguments[0].c_str());
    std::minstd_rand random(static_cast<unsigned>(getpid()));
    for (int i = 0; i < kills; ++i) {
        const pid_t sender = fork();
        if (sender < 0) return 1;
        if (sender == 0) sendUntilKilled();
        const timespec life{0, static_cast<long>(300'000 + random() % 1'700'000)};
        nanosleep(&life, nullptr);
        int status = 0;
        kill(sender, SIGKILL);
        // One that had ended before shows how.
        if (waitpid(sender, &status, 0) != sender || !WIFSIGNALED(status) ||
            WTERMSIG(status) != SIGKILL) {
            self.say("a sender ended with status " + std::to_string(status));
            return 1;
        }
    }
    self.say("done");
    self.waitForLine();
    return 0;
}

class Checking final : public PortDelegate {
public:
    void handlePortMessage(const PortMessage& message) override {
        ++messages;
        const auto component = [&](std::size_t index) {
            return test::textOf(message.component(index).value());
        };
        const std::string content = component(1);
        if (content != contentOf(message.msgid(), content.size())) ++damaged;
        // A first message begins anew: process ids come again.
        std::uint32_t& last = lastOf[component(0)];
        if (message.msgid() != 1 && message.msgid() != last + 1) ++disordered;
        last = message.msgid();
        large += content.size() > kPortPacketMaximumInline;
        if (last == 20) lastOf.erase(component(0));
    }
    std::size_t messages = 0;
    std::size_t large = 0;
    std::size_t damaged = 0;
    std::size_t disordered = 0;
    std::map<std::string, std::uint32_t> lastOf;  // of connections that are not through
};

int check(bool isRight, const char* what) {
    if (!isRight) std::fprintf(stderr, "FAILED: %s\n", what);
    return isRight ? 0 : 1;
}

int runKillLoop(int kills) {
    const test::TemporaryHome home;
    Checking checking;
    const auto port = Port::port();
    if (!PortNameServer::systemDefaultPortNameServer().registerPort(port, kName))
        return check(false, "registration");
    port->setDelegate(&checking);
    port->scheduleInRunLoop();
    PortReceiver& receiver = *port->implementation().receiver;
    const auto runForkers = [&](int count) {
        std::vector<test::ChildProcess> forkers;
        for (int i = 0; i < kForkers; ++i) {
            forkers.push_back(
                test::ChildProcess::role("forkAndKill", {std::to_string(count / kForkers)}));
        }
        int failures = 0;
        for (auto& forker : forkers) {
            std::optional<std::string> line;
            const auto isOver = [&] {
                line = forker.waitForLine(0ms);
                return line || !forker.isRunning();
            };
            const Handle tick = Timer::scheduledTimer(5ms, true, [] {});
            RunLoop::currentRunLoop().runUntil(isOver, 6h);
            failures += check(line == "done", line ? line->c_str() : "a forker ended early");
        }
        test::runUntil([&] { return receiver.connectionCount() == 0; });
        return failures;
    };
    // Whatever is made once is made before the measuring.
    int failures = runForkers(40);
    const std::size_t descriptors = test::openDescriptorCount();
    const std::size_t resident = test::residentBytes();
    failures += runForkers(kills);
    std::printf("%d kills, %zu messages, %zu of them large\n", kills, checking.messages,
                checking.large);
    // What this program remembers of connections that were killed is its own: the allocator gives it back.
    checking.lastOf.clear();
    malloc_trim(0);
    failures += check(receiver.connectionCount() == 0, "connections are left");
    failures += check(test::openDescriptorCount() == descriptors, "descriptors are left");
    failures +=
        check(test::residentBytes() <= resident + test::residentTolerance(), "memory has grown");
    failures +=
        check(checking.messages > static_cast<std::size_t>(kills), "hardly anything was sent");
    failures += check(checking.large > 0, "nothing large was sent");
    failures += check(checking.damaged == 0, "messages were damaged");
    failures += check(checking.disordered == 0, "messages were lost or out of order");
    port->invalidate();
    return failures == 0 ? 0 : 1;
}

}  // namespace
}  // namespace utilia::platform

int main(int argc, char** argv) {
    int status = 0;
    if (utilia::test::runChildRole(argc, argv, &status)) return status;
    int kills = 2000;
    if (argc == 3 && std::string(argv[1]) == "--kills") {
        kills = std::atoi(argv[2]);
    } else if (argc != 1) {
        std::fprintf(stderr, "usage: %s [--kills N]\n", argv[0]);
        return 2;
    }
    return utilia::platform::runKillLoop(kills);
}
