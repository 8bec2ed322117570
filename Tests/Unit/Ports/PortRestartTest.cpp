// Fifty senders, and a receiver that is killed and started again a hundred times, each time by two
// processes that start at once.

#include <atomic>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

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
using test::runUntilSaid;
using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

constexpr const char* kName = "restarted";
constexpr std::size_t kSenders = 50;
constexpr int kRestarts = 100;
// Every so manieth receiver is stopped before it is killed, so that sends wait for their deadline.
constexpr int kStopEvery = 10;
constexpr auto kPace = 20ms;
constexpr auto kWait = 500ms;
// What a send may take past its deadline besides waiting for a processor: less than a second wait would. One in kLateShare
// that had to wait may take longer, for a disk that is busy with others' work, but none may take kLateAtMost.
constexpr auto kLate = kWait / 2;
constexpr std::uint64_t kLateShare = 20;
constexpr auto kLateAtMost = 15s;
// Of the last message, which has to arrive.
constexpr auto kLong = 60s;
constexpr std::uint32_t kLastMessage = 9999;

PortNameServer& names() { return PortNameServer::systemDefaultPortNameServer(); }

// What the senders have seen, in a file that all processes map.
struct Tally {
    std::atomic<std::uint64_t> sent;
    std::atomic<std::uint64_t> dead;
    std::atomic<std::uint64_t> timedOut;
    std::atomic<std::uint64_t> tooEarly;
    std::atomic<std::uint64_t> late;
    std::atomic<std::int64_t> latest;  // nanoseconds past a deadline
};

Tally& mapTally(const std::string& path) {
    const UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file || ftruncate(file.get(), sizeof(Tally)) != 0) throw std::runtime_error(path);
    void* const memory =
        mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (memory == MAP_FAILED) throw std::runtime_error(path);
    return *static_cast<Tally*>(memory);
}

// How long this thread could have run, and had to wait for a processor instead: what a send takes
// besides is its own doing, however busy the machine.
nanoseconds timeWithoutProcessor() {
    std::ifstream file("/proc/thread-self/schedstat");
    std::int64_t running = 0;
    std::int64_t waiting = 0;
    if (!(file >> running >> waiting)) throw std::runtime_error("schedstat");
    return nanoseconds(waiting);
}

void raise(std::atomic<std::int64_t>& most, std::int64_t value) {
    std::int64_t before = most;
    while (before < value && !most.compare_exchange_weak(before, value)) {
    }
}

bool isToldToEnd() {
    pollfd channel{test::kChildChannel, POLLIN, 0};
    return poll(&channel, 1, 0) > 0;
}

// Sends until it is told to end, finding its receiver again whenever it is gone.
UTILIA_CHILD_ROLE(sendOverRestarts) {
    Tally& tally = mapTally(self.arguments.at(0));
    std::shared_ptr<Port> port;
    const auto sendOne = [&](std::uint32_t msgid, std::string_view text, nanoseconds wait) {
        if (!port || !port->isValid()) port = names().portForName(kName);
        if (!port) return false;
        PortMessage message(port, {bytesOf(text)});
        message.setMsgid(msgid);
        const nanoseconds waitedBefore = timeWithoutProcessor();
        const auto deadline = Clock::now() + wait;
        bool isSent = false;
        try {
            message.sendBeforeDate(deadline);
            isSent = true;
            ++tally.sent;
        } catch (const PortException& exception) {
            const bool isTimeout = exception.name() == NSPortTimeoutException;
            ++(isTimeout ? tally.timedOut : tally.dead);
            tally.tooEarly += isTimeout && Clock::now() < deadline;
        }
        const nanoseconds over = Clock::now() - deadline;
        const nanoseconds late = over - (timeWithoutProcessor() - waitedBefore);
        raise(tally.latest, late.count());
        tally.late += late > kLate;
        return isSent;
    };
    self.say("sending");
    // Small, as large as fits into a packet (few of which fill a queue), and past that.
    const std::string texts[] = {"small", std::string(60'000, 'x'), std::string(100'000, 'x')};
    for (unsigned i = 0; !isToldToEnd(); ++i) {
        sendOne(1, texts[i % std::size(texts)], kWait);
        RunLoop::currentRunLoop().runFor(kPace);
    }
    // The connection that it has may be a dead one's; the one after is not.
    bool isSent = false;
    for (int attempt = 0; attempt < 3 && !isSent; ++attempt)
        isSent = sendOne(kLastMessage, "the last", kLong);
    self.waitForLine();
    self.say(isSent ? "sent the last" : "could not send the last");
    self.waitForLine();
    return 0;
}

// Registers when it is told to; the one of them that gets the name serves it.
UTILIA_CHILD_ROLE(serveIfFirst) {
    const auto port = Port::port();
    test::RecordingDelegate delegate;
    delegate.keepsMessages = false;
    port->setDelegate(&delegate);
    self.say("ready");
    self.waitForLine();
    const bool isRegistered = names().registerPort(port, kName);
    self.say(isRegistered ? "won" : "lost");
    if (!isRegistered) return 0;
    port->scheduleInRunLoop();
    RunLoop::currentRunLoop().run();
    return 0;
}

class PortRestarts : public testing::Test {
protected:
    PortRestarts() {
        for (std::size_t i = 0; i < kSenders; ++i)
            senders_.push_back(ChildProcess::role("sendOverRestarts", {tallyPath()}));
        for (auto& sender : senders_) EXPECT_EQ(sender.waitForLine(), "sending");
    }
    std::string tallyPath() const { return home_.path() / "tally"; }

    static std::vector<ChildProcess> startRivals() {
        std::vector<ChildProcess> rivals;
        for (int i = 0; i < 2; ++i) rivals.push_back(ChildProcess::role("serveIfFirst"));
        for (auto& rival : rivals) EXPECT_EQ(rival.waitForLine(), "ready");
        return rivals;
    }
    // Lets both ask for the name at once; answers how many got it, and the one that serves.
    static int race(std::vector<ChildProcess> rivals, ChildProcess& receiver) {
        for (auto& rival : rivals) rival.say("now");
        int winners = 0;
        for (auto& rival : rivals) {
            const auto said = rival.waitForLine();
            EXPECT_TRUE(said == "won" || said == "lost") << said.value_or("nothing");
            if (said != "won") continue;
            ++winners;
            receiver = std::move(rival);
        }
        return winners;
    }
    void expectMore(const std::atomic<std::uint64_t>& counter, std::size_t count,
                    const char* what) const {
        const std::uint64_t before = counter;
        EXPECT_TRUE(runUntil([&] { return counter >= before + count; })) << what;
    }

    const test::TemporaryHome home_;
    Tally& tally_ = mapTally(tallyPath());
    std::vector<ChildProcess> senders_;
};

TEST_F(PortRestarts, GoToOneOfTwoAndHoldNoSenderUpPastItsDeadline) {
    ChildProcess receiver;
    for (int i = 0; i < kRestarts; ++i) {
        auto rivals = startRivals();
        // What a killed owner has left is there to be replaced, at the first try.
        if (i > 0) receiver.kill();
        ASSERT_EQ(race(std::move(rivals), receiver), 1) << "restart " << i;
        expectMore(tally_.sent, kSenders, "messages reach the new receiver");
        if (i % kStopEvery != 0) continue;
        receiver.signal(SIGSTOP);
        expectMore(tally_.timedOut, kSenders, "messages to a stopped receiver time out");
    }
    receiver.kill();

    struct CountingDelegate : PortDelegate {
        void handlePortMessage(const PortMessage& message) override {
            lastOnes += message.msgid() == kLastMessage;
        }
        std::size_t lastOnes = 0;
    } counting;
    PortUnderTest last(kName);
    ASSERT_TRUE(last.isRegistered);
    last.port->setDelegate(&counting);
    for (auto& sender : senders_) sender.say("!");
    for (auto& sender : senders_) EXPECT_TRUE(runUntilSaid(sender, "sent the last"));
    EXPECT_TRUE(runUntil([&] { return counting.lastOnes == kSenders; }));

    EXPECT_LE(tally_.late * kLateShare, tally_.timedOut);
    EXPECT_LE(nanoseconds(tally_.latest), kLateAtMost);
    EXPECT_EQ(tally_.tooEarly, 0u);
    EXPECT_GT(tally_.dead, 0u) << "no kill fell on a send";
    std::printf(
        "%llu sent, %llu told of a dead receiver, %llu timed out, %llu late, the latest %.3f ms "
        "past "
        "its deadline\n",
        static_cast<unsigned long long>(tally_.sent), static_cast<unsigned long long>(tally_.dead),
        static_cast<unsigned long long>(tally_.timedOut),
        static_cast<unsigned long long>(tally_.late), static_cast<double>(tally_.latest) / 1e6);
}

}  // namespace
}  // namespace utilia::platform
