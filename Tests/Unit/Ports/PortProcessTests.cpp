#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Common/Platform/Linux/PortImplementation.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Ports/PortTestSupport.h"

namespace utilia::platform {
namespace {

using namespace std::chrono_literals;
using test::bytesOf;
using test::ChildProcess;
using test::PortUnderTest;
using test::runUntil;
using test::runUntilLine;
using test::runUntilSaid;
using test::sendText;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;
constexpr std::uint32_t kLastMessage = 9999;

PortNameServer& names() { return PortNameServer::systemDefaultPortNameServer(); }

// ---- what the other processes do --------------------------------------------------------------

// Sends its numbered messages, a large one at last, and exits at once.
UTILIA_CHILD_ROLE(fireAndExit) {
    const auto port = names().portForName("a");
    if (!port) return 2;
    for (int i = 0; i < 20; ++i) sendText(port, static_cast<std::uint32_t>(i), "small");
    const std::string large(std::size_t{3} << 20, 'L');
    sendText(port, 20, large);
    _exit(0);
}

// Holds the name and does what it is told, line by line.
UTILIA_CHILD_ROLE(receiver) {
    PortUnderTest port(self.arguments[0]);
    self.say(port.isRegistered ? "registered" : "refused");
    for (;;) {
        const std::string line = self.waitForLine();
        if (line.empty()) return 0;
        if (line == "serve until end") {
            // Checks the order itself; the numbers begin with 1 and go on by 1.
            const auto isEnd = [&] {
                return !port.messages().empty() && port.messages().back().msgid == 0;
            };
            runUntil(isEnd);
            std::uint32_t expected = 0;
            bool isOrdered = true;
            for (const auto& message : port.messages()) {
                if (message.msgid != 0) isOrdered = isOrdered && message.msgid == ++expected;
            }
            self.say(std::to_string(expected) + (isOrdered ? " in order" : " out of order"));
        } else if (line == "serve") {
            RunLoop::currentRunLoop().run();
        }
    }
}

UTILIA_CHILD_ROLE(tryToRegister) {
    const auto port = Port::port();
    self.waitForLine();
    const bool isRegistered = names().registerPort(port, "contested");
    self.say(isRegistered ? "won" : "lost");
    self.waitForLine();
    return 0;
}

// Registers and leaves a forked child behind that never calls exec.
UTILIA_CHILD_ROLE(registerAndFork) {
    PortUnderTest port("a");
    const auto own = names().portForName("a");
    sendText(own, 1, "so that there is a connection too");
    runUntil([&] { return port.messages().size() == 1; });
    const pid_t child = fork();
    if (child == 0) {
        for (;;) pause();
    }
    self.say(std::to_string(child));
    self.waitForLine();
    return 0;
}

// Sends until it is told to end, finding its receiver again whenever it is gone.
UTILIA_CHILD_ROLE(sendForEver) {
    constexpr auto kWait = 500ms;
    auto longest = Clock::duration::zero();
    std::shared_ptr<Port> port;
    const auto sendOne = [&](std::uint32_t msgid, std::string_view text) {
        if (!port || !port->isValid()) port = names().portForName("a");
        if (!port) {
            RunLoop::currentRunLoop().runFor(1ms);
            return false;
        }
        const auto before = Clock::now();
        bool isSent = true;
        try {
            PortMessage message(port, {bytesOf(text)});
            message.setMsgid(msgid);
            message.sendBeforeDate(before + kWait);
        } catch (const PortException&) {
            isSent = false;
        }
        longest = std::max(longest, Clock::now() - before);
        return isSent;
    };
    self.say("sending");
    const std::string large(100'000, 'x');
    bool isToEnd = false;
    const int flags = fcntl(test::kChildChannel, F_GETFL);
    fcntl(test::kChildChannel, F_SETFL, flags | O_NONBLOCK);
    for (unsigned i = 0; !isToEnd; ++i) {
        sendOne(1, i % 10 == 0 ? std::string_view(large) : std::string_view("small"));
        char ignored = 0;
        isToEnd = read(test::kChildChannel, &ignored, 1) > 0;
    }
    fcntl(test::kChildChannel, F_SETFL, flags);
    // The connection that it has may be a dead one's; the one after is not.
    bool isSent = false;
    for (int attempt = 0; attempt < 3 && !isSent; ++attempt)
        isSent = sendOne(kLastMessage, "the last");
    self.say(isSent ? "sent the last" : "could not send the last");
    self.say(longest < kWait + 10s ? "all ended in time" : "one send took too long");
    self.waitForLine();
    return 0;
}

UTILIA_CHILD_ROLE(fillBacklog) {
    std::vector<UniqueFd> connections;
    const UniqueFd folder(open(test::portsFolder().c_str(), O_PATH | O_CLOEXEC));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/a", folder.get());
    for (;;) {
        UniqueFd connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address),
                    sizeof address) != 0)
            break;
        connections.push_back(std::move(connection));
    }
    self.say(errno == EAGAIN ? "full" : "failed");
    self.waitForLine();
    return 0;
}

// As another user: connects to a socket by its path.
UTILIA_CHILD_ROLE(connectAsOther) {
    const UniqueFd connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    self.arguments[0].copy(address.sun_path, sizeof address.sun_path - 1);
    const int result =
        connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    self.say(result == 0 ? "connected" : "refused by the mode");
    char byte = 0;
    self.say(result == 0 && recv(connection.get(), &byte, 1, 0) <= 0 ? "hung up" : "-");
    self.waitForLine();
    return 0;
}

// As another user: listens on a path.
UTILIA_CHILD_ROLE(listenAsOther) {
    const UniqueFd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    self.arguments[0].copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return 2;
    chmod(self.arguments[0].c_str(), 0777);
    listen(listener.get(), 5);
    self.say("listening");
    const UniqueFd connection(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    char bytes[64];
    const ssize_t length = recv(connection.get(), bytes, sizeof bytes, 0);
    self.say(length > 0 ? "received something" : "received nothing");
    return 0;
}

test::ChildProcessOptions asNobody() {
    test::ChildProcessOptions options;
    options.user = kNobody;
    return options;
}

// ---- what must hold ---------------------------------------------------------------------------

struct PortProcesses : testing::Test {
    test::TemporaryHome home;
};

TEST_F(PortProcesses, ReceiveWhatASenderQueuedBeforeItExited) {
    PortUnderTest port("a");
    ChildProcess sender = ChildProcess::role("fireAndExit");
    // The sender is gone before the receiver has even accepted its connection.
    ASSERT_EQ(sender.waitForExit(), 0);
    ASSERT_TRUE(runUntil([&] { return port.messages().size() == 21; }));
    for (std::uint32_t i = 0; i < 21; ++i) EXPECT_EQ(port.messages()[i].msgid, i);
    EXPECT_TRUE(port.messages()[20].components[0] == std::string(std::size_t{3} << 20, 'L'));
}

TEST_F(PortProcesses, WaitForASlowReceiverUntilTheDeadlineAndBlockNobodyElse) {
    ChildProcess slow = ChildProcess::role("receiver", {"slow"});
    ASSERT_EQ(slow.waitForLine(), "registered");
    PortUnderTest quick("quick");
    const auto toSlow = names().portForName("slow");
    const auto toQuick = names().portForName("quick");
    const std::string large(200'000, 'x');
    for (const auto wait : {100ms, 500ms}) {
        auto before = Clock::now();
        auto after = before;
        try {
            for (;;) {
                before = Clock::now();
                PortMessage(toSlow, {bytesOf(large)}).sendBeforeDate(before + wait);
            }
        } catch (const PortException& thrown) {
            after = Clock::now();
            EXPECT_EQ(thrown.name(), NSPortTimeoutException);
        }
        EXPECT_GE(after - before, wait);
        EXPECT_LT(after - before, wait + 2s);
        const auto sent = quick.messages().size();
        sendText(toQuick, 1, "meanwhile");
        EXPECT_TRUE(runUntil([&] { return quick.messages().size() == sent + 1; }));
    }
    EXPECT_TRUE(toSlow->isValid());
}

TEST_F(PortProcesses, KeepOrderAndCountOverAStop) {
    ChildProcess receiver = ChildProcess::role("receiver", {"a"});
    ASSERT_EQ(receiver.waitForLine(), "registered");
    const auto port = names().portForName("a");
    receiver.say("serve until end");
    sendText(port, 1, "the first");
    receiver.signal(SIGSTOP);
    std::uint32_t sent = 1;
    const auto before = Clock::now();
    EXPECT_THROW(
        for (;;) {
            PortMessage message(port, {bytesOf("x")});
            message.setMsgid(sent + 1);
            message.sendBeforeDate(before + 200ms);
            ++sent;
        },
        PortException);
    EXPECT_GE(Clock::now() - before, 200ms);
    EXPECT_GT(sent, 10u) << "a stopped receiver still has a queue";
    EXPECT_LT(sent, 10'000u) << "that ends";
    receiver.signal(SIGCONT);
    for (int i = 0; i < 1000; ++i) {
        PortMessage message(port, {bytesOf("x")});
        message.setMsgid(++sent);
        message.sendBeforeDate(Clock::now() + 10s);
    }
    sendText(port, 0, "end");
    EXPECT_EQ(receiver.waitForLine(), std::to_string(sent) + " in order");
}

TEST_F(PortProcesses, ConnectWhileTheySendWhenTheBacklogWasFull) {
    ChildProcess receiver = ChildProcess::role("receiver", {"a"});
    ASSERT_EQ(receiver.waitForLine(), "registered");
    ChildProcess filler = ChildProcess::role("fillBacklog");
    ASSERT_EQ(filler.waitForLine(), "full");
    const auto lookedUp = Clock::now();
    const auto port = names().portForName("a");
    ASSERT_TRUE(port) << "a full backlog is somebody's";
    EXPECT_LT(Clock::now() - lookedUp, 2s);
    EXPECT_EQ(names().portForName("a"), port);
    const auto before = Clock::now();
    try {
        PortMessage(port, {}).sendBeforeDate(before + 100ms);
        FAIL() << "there is no room in the backlog";
    } catch (const PortException& thrown) {
        EXPECT_EQ(thrown.name(), NSPortTimeoutException);
    }
    EXPECT_GE(Clock::now() - before, 100ms);
    EXPECT_LT(Clock::now() - before, 5s);
    EXPECT_TRUE(port->isValid());
    filler.kill();
    receiver.say("serve until end");
    sendText(port, 1, "connected meanwhile");
    sendText(port, 0, "end");
    EXPECT_EQ(receiver.waitForLine(), "1 in order");
    // From here on its end is noticed like any other's.
    receiver.kill();
    EXPECT_TRUE(runUntil([&] { return !port->isValid(); }));
}

TEST_F(PortProcesses, TellTheEndOfAKilledReceiver) {
    ChildProcess receiver = ChildProcess::role("receiver", {"a"});
    ASSERT_EQ(receiver.waitForLine(), "registered");
    const auto port = names().portForName("a");
    int heard = 0;
    const Handle observer = NotificationCenter::defaultCenter().addObserver(
        NSPortDidBecomeInvalidNotification, port.get(), [&](const void*) { ++heard; });
    receiver.kill();
    EXPECT_TRUE(runUntil([&] { return heard > 0; }));
    RunLoop::currentRunLoop().runFor(1ms);
    EXPECT_EQ(heard, 1);
    EXPECT_FALSE(names().portForName("a"));
}

TEST_F(PortProcesses, ReplaceAKilledOwnerAtOnce) {
    ChildProcess owner = ChildProcess::role("receiver", {"a"});
    ASSERT_EQ(owner.waitForLine(), "registered");
    EXPECT_FALSE(names().registerPort(Port::port(), "a"));
    const auto before = names().registrations();
    ASSERT_EQ(before.size(), 1u);
    EXPECT_EQ(before[0].processIdentifier, owner.pid());
    owner.kill();
    ASSERT_EQ(names().registrations().size(), 1u);
    EXPECT_FALSE(names().registrations()[0].isLive);
    PortUnderTest next("a");
    EXPECT_TRUE(next.isRegistered);
    EXPECT_EQ(names().registrations()[0].processIdentifier, getpid());
}

TEST_F(PortProcesses, GiveANameToExactlyOneOfThoseThatAskAtOnce) {
    for (int round = 0; round < 10; ++round) {
        std::vector<ChildProcess> rivals;
        for (int i = 0; i < 4; ++i) rivals.push_back(ChildProcess::role("tryToRegister"));
        for (auto& rival : rivals) rival.say("now");
        // Lists taken at the same moment must not make anybody lose.
        for (int i = 0; i < 50; ++i) names().registrations();
        int winners = 0;
        for (auto& rival : rivals) winners += rival.waitForLine() == "won";
        EXPECT_EQ(winners, 1);
    }
}

TEST_F(PortProcesses, FreeTheNameOfAnOwnerWhoseForkedChildLives) {
    ChildProcess owner = ChildProcess::role("registerAndFork");
    const auto said = owner.waitForLine();
    ASSERT_TRUE(said);
    const pid_t grandchild = std::stoi(*said);
    const auto port = names().portForName("a");
    ASSERT_TRUE(port);
    owner.kill();
    EXPECT_EQ(kill(grandchild, 0), 0);
    EXPECT_TRUE(runUntil([&] { return !port->isValid(); })) << "the connection was its, too";
    PortUnderTest next("a");
    EXPECT_TRUE(next.isRegistered);
    kill(grandchild, SIGKILL);
}

TEST_F(PortProcesses, FindTheirReceiverAgainHoweverOftenItIsKilled) {
    constexpr int kSenders = 10;
    constexpr int kRestarts = 50;
    std::vector<ChildProcess> senders;
    for (int i = 0; i < kSenders; ++i) senders.push_back(ChildProcess::role("sendForEver"));
    for (auto& sender : senders) ASSERT_EQ(sender.waitForLine(), "sending");
    for (int i = 0; i < kRestarts; ++i) {
        ChildProcess receiver = ChildProcess::role("receiver", {"a"});
        ASSERT_EQ(receiver.waitForLine(), "registered")
            << "the name of a killed owner is free at once";
        receiver.say("serve");
    }
    struct CountingDelegate : PortDelegate {
        void handlePortMessage(const PortMessage& message) override {
            lastOnes += message.msgid() == kLastMessage;
        }
        int lastOnes = 0;
    } counting;
    PortUnderTest last("a");
    ASSERT_TRUE(last.isRegistered);
    last.port->setDelegate(&counting);
    for (auto& sender : senders) sender.say("!");
    for (auto& sender : senders) {
        EXPECT_TRUE(runUntilSaid(sender, "sent the last"));
        EXPECT_TRUE(runUntilSaid(sender, "all ended in time"));
    }
    EXPECT_TRUE(runUntil([&] { return counting.lastOnes == kSenders; }));
}

TEST_F(PortProcesses, LeaveWhatASymbolicLinkPointsTo) {
    const test::TestLog log;
    { PortUnderTest makeFolder("other"); }
    const fs::path canary = home.path() / "canary";
    std::ofstream(canary) << "untouched";
    const auto content = [&] {
        std::ifstream file(canary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    const fs::path folder = test::portsFolder();

    fs::create_symlink(canary, folder / "a");
    EXPECT_FALSE(names().portForName("a"));
    {
        PortUnderTest port("a");
        EXPECT_TRUE(port.isRegistered) << "the link itself is replaced";
        EXPECT_EQ(content(), "untouched");
    }
    EXPECT_EQ(content(), "untouched");

    fs::create_symlink(canary, folder / "b.lock");
    EXPECT_FALSE(names().registerPort(Port::port(), "b"));
    fs::create_hard_link(canary, folder / "c.lock");
    EXPECT_FALSE(names().registerPort(Port::port(), "c"));
    EXPECT_EQ(content(), "untouched");
    names().registrations();
    EXPECT_EQ(content(), "untouched");
}

TEST_F(PortProcesses, AnswerForEverythingThatMayLieInTheirPlace) {
    const test::TestLog log;
    { PortUnderTest makeFolder("other"); }
    const fs::path folder = test::portsFolder();
    fs::create_directory(folder / "a");
    EXPECT_FALSE(names().portForName("a"));
    EXPECT_FALSE(names().registerPort(Port::port(), "a"));
    fs::create_directory(folder / "b.lock");
    EXPECT_FALSE(names().registerPort(Port::port(), "b"));
    ASSERT_EQ(mkfifo((folder / "c").c_str(), 0600), 0);
    EXPECT_FALSE(names().portForName("c"));
    ASSERT_EQ(mkfifo((folder / "d.lock").c_str(), 0600), 0);
    EXPECT_FALSE(names().registerPort(Port::port(), "d"));
    EXPECT_FALSE(names().registrations().empty());
    PortUnderTest port("c");
    EXPECT_TRUE(port.isRegistered) << "a pipe in the socket's place is replaced";
}

struct OtherUsers : PortProcesses {
    // Only root can become another user; continuous integration is.
    OtherUsers() {
        chmod(home.path().c_str(), 0755);
        chmod(home.runtime().c_str(), 0755);
    }
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs a second user, which only root can become";
    }
    // What a user who opens his own folders would do.
    void openEverything(const std::string& name) {
        chmod((home.runtime() / "com.korvane.utilia").c_str(), 0777);
        chmod(test::portsFolder().c_str(), 0777);
        chmod((test::portsFolder() + "/" + name).c_str(), 0777);
    }
};

TEST_F(OtherUsers, AreKeptOutByTheFolder) {
    PortUnderTest port("a");
    ChildProcess other =
        ChildProcess::role("connectAsOther", {test::portsFolder() + "/a"}, asNobody());
    EXPECT_TRUE(runUntilSaid(other, "refused by the mode"));
}

TEST_F(OtherUsers, AreKnownByTheirCredentialsWhenTheFolderIsOpen) {
    const test::TestLog log;
    PortUnderTest port("a");
    openEverything("a");
    ChildProcess other =
        ChildProcess::role("connectAsOther", {test::portsFolder() + "/a"}, asNobody());
    EXPECT_TRUE(runUntilSaid(other, "connected"));
    EXPECT_TRUE(runUntilSaid(other, "hung up"));
    EXPECT_EQ(port.port->implementation().receiver->refusals(PortRefusal::OtherUser), 1u);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Port a refused a peer of another user (process " +
                                        std::to_string(other.pid()) + ")"}));
}

TEST_F(OtherUsers, ReceiveNothingFromUsWhenTheyListenUnderAName) {
    const test::TestLog log;
    { PortUnderTest makeFolder("other"); }
    const fs::path open = home.path() / "open";
    fs::create_directory(open);
    chmod(open.c_str(), 0777);
    ChildProcess squatter =
        ChildProcess::role("listenAsOther", {(open / "s").string()}, asNobody());
    ASSERT_EQ(squatter.waitForLine(), "listening");
    // The file's owner tells it first …
    fs::rename(open / "s", fs::path(test::portsFolder()) / "a");
    EXPECT_FALSE(names().portForName("a"));
    EXPECT_EQ(log.count("is not a socket of this user"), 1u);
    // … and when that lies, the listener's credentials.
    ASSERT_EQ(chown((test::portsFolder() + "/a").c_str(), 0, 0), 0);
    EXPECT_FALSE(names().portForName("a"));
    EXPECT_EQ(log.count("another user listens there"), 1u);
    EXPECT_EQ(squatter.waitForLine(), "received nothing");
}

TEST_F(OtherUsers, MakeAnOpenFolderUnusable) {
    const test::TestLog log;
    { PortUnderTest makeFolder("a"); }
    chmod(test::portsFolder().c_str(), 0777);
    EXPECT_FALSE(names().registerPort(Port::port(), "a"));
    chmod(test::portsFolder().c_str(), 0700);
    ASSERT_EQ(chown(test::portsFolder().c_str(), kNobody, kNobody), 0);
    EXPECT_FALSE(names().registerPort(Port::port(), "a"));
    EXPECT_EQ(log.lines().size(), 2u);
}

}  // namespace
}  // namespace utilia::platform
