#include "Applications/Desktop/BusProbe.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Common/Platform/UniqueFd.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::desktop {
namespace {

using namespace std::chrono_literals;
using platform::UniqueFd;
using Clock = std::chrono::steady_clock;

constexpr auto kShort = 200ms;
constexpr auto kLong = 60s;

struct Name {
    sockaddr_un address{};
    socklen_t length = 0;
};

// A name that begins with "@" is an abstract one.
Name nameOf(const std::string& text) {
    Name name;
    name.address.sun_family = AF_UNIX;
    std::memcpy(name.address.sun_path, text.data(), text.size());
    if (text.front() == '@') name.address.sun_path[0] = '\0';
    name.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size());
    return name;
}

UniqueFd listenAt(const std::string& text, int queue = 8) {
    UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Name name = nameOf(text);
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&name.address), name.length),
              0);
    EXPECT_EQ(listen(listener.get(), queue), 0);
    return listener;
}

class BusProbe : public testing::Test {
protected:
    std::string socket() const { return home_.runtime() / "a bus"; }
    std::string address() const { return "unix:path=" + escaped(socket()); }
    static std::string escaped(const std::string& path) {
        std::string text;
        for (const char c : path) text += c == ' ' ? std::string("%20") : std::string(1, c);
        return text;
    }
    // Takes one connection and says these lines on it, each after one of the other side's.
    static std::thread answerWith(const UniqueFd& listener, std::vector<std::string> lines) {
        return std::thread([descriptor = listener.get(), lines = std::move(lines)] {
            const UniqueFd taken(accept(descriptor, nullptr, nullptr));
            std::array<char, 512> heard{};
            for (const std::string& line : lines) {
                if (read(taken.get(), heard.data(), heard.size()) <= 0) return;
                if (write(taken.get(), line.data(), line.size()) < 0) return;
            }
            // Until the other side ends.
            while (read(taken.get(), heard.data(), heard.size()) > 0) {
            }
        });
    }

    test::TemporaryHome home_;
};

TEST_F(BusProbe, KnowsABusThatAnswers) {
    const test::PrivateBus bus(home_.runtime() / "bus");
    EXPECT_FALSE(isBusSilent(bus.address(), kLong));
    EXPECT_FALSE(isBusSilent("unix:path=/nowhere/bus;" + bus.address(), kLong));
    EXPECT_FALSE(isBusSilent("unix:runtime=yes", kLong));
}

TEST_F(BusProbe, IsKnownToTheBus) {
    const test::PrivateBus bus(home_.runtime() / "bus");
    auto monitor = bus.monitor("type='method_call',member='Hello'");
    ASSERT_FALSE(isBusSilent(bus.address(), kLong));
    EXPECT_NE(test::nextLineWith(monitor, "member=Hello"), "");
}

TEST_F(BusProbe, KnowsABusThatIsStoppedUntilItGoesOn) {
    test::PrivateBus bus(home_.runtime() / "bus");
    bus.stop();
    const auto begin = Clock::now();
    EXPECT_TRUE(isBusSilent(bus.address(), kShort));
    EXPECT_GE(Clock::now() - begin, kShort);
    EXPECT_TRUE(isBusSilent("unix:path=/nowhere/bus;" + bus.address(), kShort));
    EXPECT_TRUE(isBusSilent("unix:guid=1234,runtime=yes", kShort));
    bus.resume();
    EXPECT_FALSE(isBusSilent(bus.address(), kLong));
}

TEST_F(BusProbe, KnowsASocketThatNobodyServes) {
    const UniqueFd listener = listenAt(socket());
    EXPECT_TRUE(isBusSilent(address(), kShort));
    const std::string abstract = "@" + socket();
    const UniqueFd other = listenAt(abstract);
    EXPECT_TRUE(isBusSilent("unix:abstract=" + escaped(socket()), kShort));
}

TEST_F(BusProbe, KnowsASocketWhoseQueueIsFull) {
    const UniqueFd listener = listenAt(socket(), 0);
    const Name name = nameOf(socket());
    std::vector<UniqueFd> waiting;
    do {
        waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    } while (connect(waiting.back().get(), reinterpret_cast<const sockaddr*>(&name.address),
                     name.length) == 0);
    ASSERT_EQ(errno, EAGAIN);
    EXPECT_TRUE(isBusSilent(address(), kShort));
}

TEST_F(BusProbe, GoesAsFarAsTheFirstCall) {
    const UniqueFd listener = listenAt(socket());
    auto greeted = answerWith(listener, {"OK 1234\r\n"});
    EXPECT_TRUE(isBusSilent(address(), kShort));
    greeted.join();
    auto answered = answerWith(listener, {"OK 1234\r\n", "l\2"});
    EXPECT_FALSE(isBusSilent(address(), kLong));
    answered.join();
}

TEST_F(BusProbe, TakesARefusalForAnAnswer) {
    const UniqueFd listener = listenAt(socket());
    auto bus = answerWith(listener, {"REJECTED\r\n"});
    EXPECT_FALSE(isBusSilent(address(), kLong));
    bus.join();
}

TEST_F(BusProbe, LeavesToTheBusLibraryWhatFailsAtOnceOrIsNoSocket) {
    const UniqueFd closed = listenAt(home_.runtime() / "closes");
    std::thread closing([&closed] { UniqueFd(accept(closed.get(), nullptr, nullptr)); });
    EXPECT_FALSE(isBusSilent("unix:path=" + (home_.runtime() / "closes").string(), kLong));
    closing.join();
    { const UniqueFd dead = listenAt(home_.runtime() / "dead"); }
    for (const std::string& address :
         {std::string(), std::string(";;"), std::string("disabled:"), std::string("unix:"),
          std::string("unix:path"), std::string("unix:path="), std::string("unix:path=%"),
          std::string("unix:path=%2"), std::string("unix:path=%zz"),
          std::string("unix:path=/nowhere"), std::string("tcp:host=localhost,port=1"),
          "unix:path=/" + std::string(200, 'a'),
          "unix:path=" + (home_.runtime() / "dead").string()}) {
        EXPECT_FALSE(isBusSilent(address, kLong)) << address;
    }
}

}  // namespace
}  // namespace utilia::desktop
