#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/Ports/PortTestSupport.h"

namespace utilia::platform {
namespace {

using namespace std::chrono_literals;
using test::bytesOf;
using test::ChildProcess;
using test::PortUnderTest;
using test::runUntil;
using test::runUntilLine;
using test::sendText;
using Clock = std::chrono::steady_clock;

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

// Registers, and ends while another process goes on with the very same table of files, which nothing closes then.
UTILIA_CHILD_ROLE(endWithFilesOpen) {
    PortUnderTest port("a");
    const long other =
        syscall(SYS_clone, CLONE_FILES | SIGCHLD, nullptr, nullptr, nullptr, nullptr);
    if (other < 0) return 1;
    if (other == 0) {
        alarm(600);  // should its test not end it
        for (;;) pause();
    }
    self.say(std::to_string(other));
    self.waitForLine();
    _exit(0);
}

// ---- what must hold ---------------------------------------------------------------------------

struct PortProcesses : testing::Test {
    test::TemporaryHome home;
};

// A process that ends is not found any more, though its port takes connections until its files are closed.
TEST_F(PortProcesses, AreNotReachedWhileTheyEnd) {
    ChildProcess receiver = ChildProcess::role("endWithFilesOpen");
    const auto other = static_cast<pid_t>(std::stol(receiver.waitForLine().value_or("0")));
    ASSERT_GT(other, 0);
    EXPECT_TRUE(names().portForName("a"));
    receiver.say("end");
    // It is not waited for, so that it stays as it ended.
    siginfo_t ended{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(receiver.pid()), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_FALSE(names().portForName("a"));
    kill(other, SIGKILL);
}

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
        EXPECT_LT(after - before, wait + 30s);
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
        message.sendBeforeDate(Clock::now() + 60s);
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
    EXPECT_LT(Clock::now() - lookedUp, 30s);
    EXPECT_EQ(names().portForName("a"), port);
    const auto before = Clock::now();
    try {
        PortMessage(port, {}).sendBeforeDate(before + 100ms);
        FAIL() << "there is no room in the backlog";
    } catch (const PortException& thrown) {
        EXPECT_EQ(thrown.name(), NSPortTimeoutException);
    }
    EXPECT_GE(Clock::now() - before, 100ms);
    EXPECT_LT(Clock::now() - before, 30s);
    EXPECT_TRUE(port->isValid());
    EXPECT_FALSE(port->hasRoom());
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

TEST_F(PortProcesses, HaveRoomAsSoonAsTheBacklogHas) {
    for (const bool livesOn : {true, false}) {
        ChildProcess receiver = ChildProcess::role("receiver", {"a"});
        ASSERT_EQ(receiver.waitForLine(), "registered");
        ChildProcess filler = ChildProcess::role("fillBacklog");
        ASSERT_EQ(filler.waitForLine(), "full");
        const auto port = names().portForName("a");
        ASSERT_TRUE(port);
        EXPECT_FALSE(port->hasRoom());
        filler.kill();
        if (livesOn) {
            receiver.say("serve until end");
            EXPECT_TRUE(runUntil([&] { return port->hasRoom(); }));
            sendText(port, 0, "end");
            EXPECT_EQ(receiver.waitForLine(), "0 in order") << "no message came of asking";
        } else {
            receiver.kill();
            EXPECT_FALSE(port->hasRoom());
            EXPECT_FALSE(port->isValid());
        }
    }
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

}  // namespace
}  // namespace utilia::platform
