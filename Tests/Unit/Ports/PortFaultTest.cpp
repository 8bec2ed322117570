#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include <glib.h>

#include "Common/Platform/Linux/PortImplementation.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Ports/PortTestSupport.h"

namespace utilia::platform {
namespace {

using namespace std::chrono_literals;
using test::ArmedFault;
using test::bytesOf;
using test::FaultRepetition;
using test::FaultRun;
using test::PortUnderTest;
using test::runUntil;
using Clock = std::chrono::steady_clock;

// Never reached: counts the calls of an operation and fails none.
constexpr unsigned kBeyond = 1'000'000;

PortNameServer& names() { return PortNameServer::systemDefaultPortNameServer(); }

struct PortFaults : testing::Test {
    // GLib says each time that its poll failed; that is what these tests make it do.
    PortFaults() : handler(g_log_set_handler("GLib", G_LOG_LEVEL_WARNING, ignoreLine, nullptr)) {}
    ~PortFaults() override { g_log_remove_handler("GLib", handler); }
    static void ignoreLine(const char*, GLogLevelFlags, const char*, void*) {}

    const unsigned handler;
    test::TemporaryHome home;
    test::TestLog log;
    const std::string small = "small";
    const std::string large = std::string(100'000, 'L');
};

// The life of a port, from its registration to its end, with a message of either size.
struct Cycle {
    const std::string& small;
    const std::string& large;
    bool isRegistered = false;
    bool isFound = false;
    int sent = 0;
    int refused = 0;
    std::vector<std::string> arrived;

    void run() {
        *this = Cycle{small, large};
        const auto port = Port::port();
        test::RecordingDelegate delegate;
        isRegistered = names().registerPort(port, "a");
        port->setDelegate(&delegate);
        port->scheduleInRunLoop();
        if (const auto sender = names().portForName("a")) {
            isFound = true;
            for (const std::string* text : {&small, &large, &small}) {
                try {
                    PortMessage(sender, {bytesOf(*text)}).sendBeforeDate(Clock::now() + 10ms);
                    ++sent;
                } catch (const PortException&) {
                    ++refused;
                }
            }
        }
        for (int turn = 0; turn < 20; ++turn) RunLoop::currentRunLoop().runFor(0ns);
        port->invalidate();
        for (const auto& message : delegate.messages) arrived.push_back(message.components.at(0));
    }

    Cycle& operator=(const Cycle& other) {
        isRegistered = other.isRegistered;
        isFound = other.isFound;
        sent = other.sent;
        refused = other.refused;
        arrived = other.arrived;
        return *this;
    }
    Cycle(const std::string& smallText, const std::string& largeText)
        : small(smallText), large(largeText) {}
    Cycle(const Cycle&) = default;
};

TEST_F(PortFaults, NeitherBreakNorLeakWhicheverCallFails) {
    Cycle cycle(small, large);
    for (const auto table : {test::socketFaults(), test::storageFaults()}) {
        const std::size_t runs = forEachFault(
            table, [] {}, [&] { cycle.run(); },
            [&](const FaultRun&) {
                // What arrives is whole, in order, and was not reported as refused.
                EXPECT_LE(cycle.arrived.size(), static_cast<std::size_t>(cycle.sent));
                for (const std::string& text : cycle.arrived)
                    EXPECT_TRUE(text == small || text == large);
                cycle.run();
                EXPECT_EQ(cycle.arrived, (std::vector{small, large, small}))
                    << "the next one works";
            });
        EXPECT_GT(runs, 0u);
    }
}

TEST_F(PortFaults, NeitherBreakNorLeakWhicheverTwoCallsFail) {
    Cycle cycle(small, large);
    const std::size_t runs = forFaultPairs(
        test::socketFaults(), 1000, [] {}, [&] { cycle.run(); },
        [&](const test::FaultPair&) {
            EXPECT_LE(cycle.arrived.size(), static_cast<std::size_t>(cycle.sent));
            for (const std::string& text : cycle.arrived)
                EXPECT_TRUE(text == small || text == large);
            cycle.run();
            EXPECT_EQ(cycle.arrived, (std::vector{small, large, small})) << "the next one works";
        });
    EXPECT_GT(runs, 100u);
}

// GLib ends the process when it gets no memory, so what only our own code asks for is refused here.
TEST_F(PortFaults, AnswerWithoutMemoryAsIfTheNameWereNotThere) {
    PortUnderTest port("a");
    for (const std::string* text : {&small, &large}) {
        std::shared_ptr<Port> sender;
        std::vector<PortMessage::Component> components;
        std::optional<PortMessage> message;
        const std::size_t runs = forEachFault(
            test::memoryFaults(),
            [&] {
                message.reset();
                if (sender) sender->invalidate();
                sender = nullptr;
                // The receiver sees the end of what came in before.
                for (int turn = 0; turn < 20; ++turn) RunLoop::currentRunLoop().runFor(0ns);
                components = {bytesOf(*text)};
            },
            [&] {
                sender = names().portForName("a");
                if (!sender) return;
                message.emplace(sender, std::move(components));
                try {
                    message->sendBeforeDate(Clock::now() + 1h);
                } catch (const PortException& thrown) {
                    EXPECT_EQ(thrown.name(), NSPortTimeoutException);
                }
            },
            [&](const FaultRun&) {
                test::sendText(names().portForName("a"), 1, *text);
                EXPECT_TRUE(runUntil([&] {
                    return !port.messages().empty() && !port.messages().back().components.empty() &&
                           port.messages().back().components[0] == *text;
                }));
                port.messages().clear();
            });
        EXPECT_EQ(runs > 0, !test::memoryFaults().empty());
    }
}

TEST_F(PortFaults, ANameThatCannotBeTakenForLackOfMemoryIsFreeAgain) {
    PortUnderTest other("other");
    const auto port = Port::port();
    bool isRegistered = false;
    const std::size_t runs = forEachFault(
        test::memoryFaults(), [&] { names().removePortForName("a"); },
        [&] { isRegistered = names().registerPort(port, "a"); },
        [&](const FaultRun&) {
            names().removePortForName("a");
            const auto next = Port::port();
            EXPECT_TRUE(names().registerPort(next, "a"));
            names().removePortForName("a");
        });
    EXPECT_EQ(runs > 0, !test::memoryFaults().empty());
    EXPECT_TRUE(isRegistered) << "the last run is the one without a fault";
}

TEST_F(PortFaults, ASmallMessageCostsItsSenderOneCallAndNoMemory) {
    PortUnderTest port("a");
    const auto sender = names().portForName("a");
    const PortMessage message(sender, {bytesOf(small), bytesOf(small)});
    const ArmedFault calls({.call = kUtiliaFaultAnySystemCall}, kBeyond);
    const ArmedFault memory({.call = kUtiliaFaultMemory}, kBeyond);
    message.sendBeforeDate(Clock::now() + 1s);
    EXPECT_EQ(calls.calls(), 1u);
    EXPECT_EQ(memory.calls(), 0u);
}

TEST_F(PortFaults, AMessageCostsItsReceiverNoMemory) {
    PortUnderTest port("a");
    port.delegate.keepsMessages = false;
    const auto sender = names().portForName("a");
    const auto sendAndReceive = [&] {
        const std::size_t before = port.delegate.count;
        for (int i = 0; i < 10; ++i) test::sendText(sender, 1, small);
        for (int turn = 0; turn < 40; ++turn) RunLoop::currentRunLoop().runFor(0ns);
        return port.delegate.count - before;
    };
    EXPECT_EQ(sendAndReceive(), 10u);
    // The loop's own turn takes memory for its end; a turn without messages says how much.
    const auto memoryOf = [](const std::function<void()>& operation) {
        const ArmedFault memory({.call = kUtiliaFaultMemory}, kBeyond);
        operation();
        return memory.calls();
    };
    const unsigned idle = memoryOf([] {
        for (int turn = 0; turn < 40; ++turn) RunLoop::currentRunLoop().runFor(0ns);
    });
    std::size_t received = 0;
    std::vector<PortMessage> messages(10, PortMessage(sender, {bytesOf(small)}));
    for (const auto& message : messages) message.sendBeforeDate(Clock::now() + 1s);
    const std::size_t before = port.delegate.count;
    const unsigned busy = memoryOf([] {
        for (int turn = 0; turn < 40; ++turn) RunLoop::currentRunLoop().runFor(0ns);
    });
    received = port.delegate.count - before;
    EXPECT_EQ(received, 10u);
    EXPECT_EQ(busy, idle);
}

TEST_F(PortFaults, DescriptorsInFlightMakeASenderWaitUntilItsDeadline) {
    PortUnderTest port("a");
    const auto sender = names().portForName("a");
    const PortMessage message(sender, {bytesOf(large)});
    {
        const ArmedFault once({.call = kUtiliaFaultSend, .error = ETOOMANYREFS});
        message.sendBeforeDate(Clock::now() + 10s);
        EXPECT_EQ(once.hits(), 1u);
    }
    EXPECT_TRUE(runUntil([&] { return port.messages().size() == 1; }));
    const ArmedFault forEver({.call = kUtiliaFaultSend, .error = ETOOMANYREFS}, 1,
                             FaultRepetition::ForEver);
    const auto before = Clock::now();
    try {
        message.sendBeforeDate(before + 50ms);
        FAIL() << "it cannot be sent";
    } catch (const PortException& thrown) {
        EXPECT_EQ(thrown.name(), NSPortTimeoutException);
    }
    EXPECT_GE(Clock::now() - before, 50ms);
    EXPECT_TRUE(sender->isValid());
}

TEST_F(PortFaults, AMemoryFileThatCannotBeUsedAgainServesOneMessage) {
    PortUnderTest port("a");
    const auto sender = names().portForName("a");
    const ArmedFault none({.call = kUtiliaFaultOpen, .error = EMFILE}, 1, FaultRepetition::ForEver);
    for (std::size_t sent = 1; sent <= 3; ++sent) {
        PortMessage(sender, {bytesOf(large)}).sendBeforeDate(Clock::now() + 10s);
        ASSERT_TRUE(runUntil([&] { return port.messages().size() == sent; }));
        EXPECT_TRUE(port.messages().back().components[0] == large);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PortFaults, AMessageThatCannotBeWrittenIsToldAndTheNextOneArrives) {
    PortUnderTest port("a");
    const auto sender = names().portForName("a");
    {
        const ArmedFault refused({.call = kUtiliaFaultFcntl, .error = EPERM}, 1);
        EXPECT_THROW(PortMessage(sender, {bytesOf(large)}).sendBeforeDate(Clock::now() + 1h),
                     PortException);
    }
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Port a: a message of 100000 bytes cannot be sent: "
                                        "F_ADD_SEALS utilia message: Operation not permitted"}));
    PortMessage(sender, {bytesOf(large)}).sendBeforeDate(Clock::now() + 10s);
    ASSERT_TRUE(runUntil([&] { return port.messages().size() == 1; }));
    EXPECT_TRUE(port.messages()[0].components[0] == large);
}

TEST_F(PortFaults, AMessageForWhichThereIsNoMemoryFileIsToldAtOnce) {
    PortUnderTest port("a");
    const auto sender = names().portForName("a");
    const ArmedFault none({.call = kUtiliaFaultMemfd, .error = EMFILE}, 1,
                          FaultRepetition::ForEver);
    EXPECT_THROW(PortMessage(sender, {bytesOf(large)}).sendBeforeDate(Clock::now() + 1h),
                 PortException);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "Port a: a message of 100000 bytes cannot be sent: memfd_create "
                               "utilia message: Too many open files"}));
    test::sendText(sender, 1, small);
    EXPECT_TRUE(runUntil([&] { return port.messages().size() == 1; }));
}

}  // namespace
}  // namespace utilia::platform
