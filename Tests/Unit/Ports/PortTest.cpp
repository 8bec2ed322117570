#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Ports/PortTestSupport.h"

namespace utilia::platform {
namespace {

using namespace std::chrono_literals;
using test::bytesOf;
using test::Received;
using test::RecordingDelegate;
using test::runUntil;
using test::sendText;

PortNameServer& names() { return PortNameServer::systemDefaultPortNameServer(); }

using Receiver = test::PortUnderTest;

struct Ports : testing::Test {
    test::TemporaryHome home;
};

TEST_F(Ports, DeliverIdentifierAndComponentsAsSent) {
    Receiver receiver("a");
    ASSERT_TRUE(receiver.isRegistered);
    const auto sender = names().portForName("a");
    ASSERT_TRUE(sender);
    const auto first = bytesOf("first");
    const std::string binary("\0\xff", 2);
    const auto third = bytesOf(binary);
    PortMessage message(sender, {first, {}, third});
    message.setMsgid(0xfedcba98);
    message.sendBeforeDate(std::chrono::steady_clock::now() + 1s);
    ASSERT_TRUE(runUntil([&] { return receiver.delegate.messages.size() == 1; }));
    EXPECT_EQ(receiver.delegate.messages[0], (Received{0xfedcba98, {"first", "", binary}}));
}

TEST_F(Ports, DeliverAMessageWithoutComponents) {
    Receiver receiver("a");
    const auto sender = names().portForName("a");
    PortMessage message(sender, {});
    message.setMsgid(7);
    message.sendBeforeDate(std::chrono::steady_clock::now() + 1s);
    ASSERT_TRUE(runUntil([&] { return receiver.delegate.messages.size() == 1; }));
    EXPECT_EQ(receiver.delegate.messages[0], (Received{7, {}}));
}

TEST_F(Ports, AnswerTheSamePortForANameWhileItIsValid) {
    Receiver receiver("a");
    const auto sender = names().portForName("a");
    EXPECT_EQ(names().portForName("a"), sender);
    sender->invalidate();
    const auto next = names().portForName("a");
    ASSERT_TRUE(next);
    EXPECT_NE(next, sender);
    EXPECT_TRUE(next->isValid());
}

TEST_F(Ports, AnswerNothingForANameThatNobodyHolds) {
    EXPECT_FALSE(names().portForName("nobody"));
    EXPECT_FALSE(names().portForName(""));
    EXPECT_FALSE(names().portForName("a/b"));
}

TEST_F(Ports, RefuseUnusableNames) {
    const test::TestLog log;
    const auto port = Port::port();
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string("a/b"),
          std::string("a\0b", 3), std::string(201, 'n'), std::string("a.lock")}) {
        EXPECT_FALSE(names().registerPort(port, name)) << name;
    }
    EXPECT_FALSE(names().registerPort(nullptr, "a"));
}

TEST_F(Ports, TakeANameOf200Bytes) {
    const std::string name(200, 'n');
    Receiver receiver(name);
    ASSERT_TRUE(receiver.isRegistered);
    const auto sender = names().portForName(name);
    ASSERT_TRUE(sender);
    sendText(sender, 1, "x");
    EXPECT_TRUE(runUntil([&] { return receiver.delegate.messages.size() == 1; }));
}

TEST_F(Ports, RefuseANameThatIsHeld) {
    Receiver first("a");
    const auto second = Port::port();
    EXPECT_FALSE(names().registerPort(second, "a"));
    EXPECT_TRUE(second->isValid());
    first.port->invalidate();
    EXPECT_TRUE(names().registerPort(second, "a"));
}

TEST_F(Ports, FreeTheNameOfADestroyedPort) {
    auto first = Port::port();
    ASSERT_TRUE(names().registerPort(first, "a"));
    first.reset();
    EXPECT_FALSE(names().portForName("a"));
    const auto second = Port::port();
    EXPECT_TRUE(names().registerPort(second, "a"));
}

TEST_F(Ports, KeepConnectionsWhenTheirNameIsRemoved) {
    Receiver receiver("a");
    const auto sender = names().portForName("a");
    sendText(sender, 1, "before");
    names().removePortForName("a");
    names().removePortForName("never held");
    EXPECT_TRUE(receiver.port->isValid());
    sendText(sender, 2, "after");
    ASSERT_TRUE(runUntil([&] { return receiver.delegate.messages.size() == 2; }));
    EXPECT_EQ(receiver.delegate.messages[1].msgid, 2u);
    sender->invalidate();
    EXPECT_FALSE(names().portForName("a"));
}

TEST_F(Ports, ListEveryNameOnRecord) {
    Receiver live("b.live");
    { Receiver gone("a.gone"); }
    const auto all = names().registrations();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].name, "a.gone");
    EXPECT_FALSE(all[0].isLive);
    EXPECT_FALSE(all[0].processIdentifier);
    EXPECT_EQ(all[1].name, "b.live");
    EXPECT_TRUE(all[1].isLive);
    EXPECT_EQ(all[1].processIdentifier, getpid());
}

TEST_F(Ports, LetMessagesWaitWithoutADelegateOrALoop) {
    const auto port = Port::port();
    ASSERT_TRUE(names().registerPort(port, "a"));
    const auto sender = names().portForName("a");
    sendText(sender, 1, "one");
    RunLoop::currentRunLoop().runFor(1ms);
    RecordingDelegate delegate;
    port->setDelegate(&delegate);
    RunLoop::currentRunLoop().runFor(1ms);
    EXPECT_TRUE(delegate.messages.empty());
    port->scheduleInRunLoop();
    ASSERT_TRUE(runUntil([&] { return delegate.messages.size() == 1; }));
    port->setDelegate(nullptr);
    sendText(sender, 2, "two");
    RunLoop::currentRunLoop().runFor(1ms);
    EXPECT_EQ(delegate.messages.size(), 1u);
    port->setDelegate(&delegate);
    ASSERT_TRUE(runUntil([&] { return delegate.messages.size() == 2; }));
    port->removeFromRunLoop();
    sendText(sender, 3, "three");
    RunLoop::currentRunLoop().runFor(1ms);
    EXPECT_EQ(delegate.messages.size(), 2u);
    port->invalidate();
}

TEST_F(Ports, TellTheEndOfTheReceiverOnceFromTheLoop) {
    auto receiver = std::make_unique<Receiver>("a");
    const auto sender = names().portForName("a");
    int heard = 0;
    const Handle observer = NotificationCenter::defaultCenter().addObserver(
        NSPortDidBecomeInvalidNotification, sender.get(), [&](const void* port) {
            EXPECT_EQ(port, sender.get());
            ++heard;
            sender->invalidate();
        });
    receiver.reset();
    EXPECT_EQ(heard, 0);
    EXPECT_TRUE(runUntil([&] { return heard > 0; }));
    EXPECT_FALSE(sender->isValid());
    sender->invalidate();
    RunLoop::currentRunLoop().runFor(1ms);
    EXPECT_EQ(heard, 1);
}

TEST_F(Ports, ThrowAndTellOnceWhenASendFindsTheReceiverGone) {
    auto receiver = std::make_unique<Receiver>("a");
    const auto sender = names().portForName("a");
    int heard = 0;
    const Handle observer = NotificationCenter::defaultCenter().addObserver(
        NSPortDidBecomeInvalidNotification, sender.get(), [&](const void*) { ++heard; });
    receiver.reset();
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            sendText(sender, 1, "x");
            FAIL() << "the send must throw";
        } catch (const PortException& thrown) {
            EXPECT_EQ(thrown.name(), "NSInvalidSendPortException");
            EXPECT_EQ(thrown.reason(), "[NSPort sendBeforeDate:] destination port invalid");
        }
        EXPECT_FALSE(sender->isValid());
        EXPECT_EQ(heard, 0);
    }
    EXPECT_TRUE(runUntil([&] { return heard > 0; }));
    RunLoop::currentRunLoop().runFor(1ms);
    EXPECT_EQ(heard, 1);
}

TEST_F(Ports, FindTheNextHolderBeforeTheLoopTellsTheEndOfTheLast) {
    auto first = std::make_unique<Receiver>("a");
    const auto old = names().portForName("a");
    first.reset();
    EXPECT_FALSE(names().portForName("a"));
    EXPECT_FALSE(old->isValid());
    Receiver second("a");
    const auto sender = names().portForName("a");
    ASSERT_TRUE(sender);
    sendText(sender, 1, "x");
    EXPECT_TRUE(runUntil([&] { return second.delegate.messages.size() == 1; }));
}

TEST_F(Ports, PostTheirOwnInvalidation) {
    Receiver receiver("a");
    int heard = 0;
    const Handle observer = NotificationCenter::defaultCenter().addObserver(
        NSPortDidBecomeInvalidNotification, receiver.port.get(), [&](const void*) { ++heard; });
    receiver.port->invalidate();
    EXPECT_EQ(heard, 1);
    receiver.port->invalidate();
    EXPECT_EQ(heard, 1);
    EXPECT_FALSE(receiver.port->isValid());
    EXPECT_FALSE(names().registerPort(receiver.port, "a"));
}

TEST_F(Ports, RefuseToSendWithoutASendingPort) {
    Receiver receiver("a");
    for (const std::shared_ptr<Port>& port : {std::shared_ptr<Port>(), receiver.port}) {
        try {
            sendText(port, 1, "x");
            FAIL() << "the send must throw";
        } catch (const PortException& thrown) {
            EXPECT_EQ(thrown.name(), "NSInvalidSendPortException");
        }
    }
}

TEST_F(Ports, RefuseMessagesPastTheLimits) {
    Receiver receiver("a");
    const auto sender = names().portForName("a");
    const std::vector<std::uint8_t> large(kPortMessageMaximumSize / 2 + 1);
    const std::vector<std::vector<PortMessage::Component>> refused = {
        std::vector<PortMessage::Component>(kPortMessageMaximumComponents + 1), {large, large}};
    for (const auto& components : refused) {
        try {
            PortMessage(sender, components).sendBeforeDate(std::chrono::steady_clock::now() + 1s);
            FAIL() << "the send must throw";
        } catch (const PortException& thrown) {
            EXPECT_EQ(thrown.name(), "NSInvalidArgumentException");
        }
    }
    sendText(sender, 1, "the port is still good");
    EXPECT_TRUE(runUntil([&] { return receiver.delegate.messages.size() == 1; }));
}

TEST_F(Ports, DeliverEverySizeWhole) {
    Receiver receiver("a");
    const auto sender = names().portForName("a");
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{4095}, std::size_t{4096}, std::size_t{4097},
          std::size_t{65535}, std::size_t{65536}, std::size_t{65537}, std::size_t{1} << 20,
          std::size_t{8} << 20, (std::size_t{1} << 20) + 1}) {
        std::string text(size, '\0');
        for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 31 + i / 4096);
        const auto bytes = bytesOf(text);
        const auto half = static_cast<std::ptrdiff_t>(size / 2);
        PortMessage message(
            sender,
            {{bytes.begin(), bytes.begin() + half}, {}, {bytes.begin() + half, bytes.end()}});
        message.sendBeforeDate(std::chrono::steady_clock::now() + 60s);
        receiver.delegate.messages.clear();
        ASSERT_TRUE(runUntil([&] { return receiver.delegate.messages.size() == 1; }));
        const auto& components = receiver.delegate.messages[0].components;
        ASSERT_EQ(components.size(), 3u);
        EXPECT_TRUE(components[0] + components[2] == text) << size;
    }
}

TEST_F(Ports, TakeTheMostComponentsAMessageMayHave) {
    Receiver receiver("a");
    const auto sender = names().portForName("a");
    for (const std::size_t size : {0u, 1u, 64u, 65u, 1024u}) {
        const std::string text(size, 'k');
        PortMessage(sender, std::vector<PortMessage::Component>(kPortMessageMaximumComponents,
                                                                bytesOf(text)))
            .sendBeforeDate(std::chrono::steady_clock::now() + 1s);
        receiver.delegate.messages.clear();
        ASSERT_TRUE(runUntil([&] { return receiver.delegate.messages.size() == 1; }));
        EXPECT_EQ(receiver.delegate.messages[0].components, std::vector<std::string>(64, text));
    }
}

TEST_F(Ports, TimeOutWhenTheReceiverDoesNotRead) {
    const auto port = Port::port();
    ASSERT_TRUE(names().registerPort(port, "a"));
    const auto sender = names().portForName("a");
    for (const auto wait : {0ms, 100ms, 500ms}) {
        const auto before = std::chrono::steady_clock::now();
        try {
            for (;;) {
                PortMessage(sender, {}).sendBeforeDate(before + wait);
            }
        } catch (const PortException& thrown) {
            EXPECT_EQ(thrown.name(), "NSPortTimeoutException");
            EXPECT_EQ(thrown.reason(), "[NSPort sendBeforeDate:] timed out");
        }
        const auto took = std::chrono::steady_clock::now() - before;
        EXPECT_GE(took, wait);
        EXPECT_LT(took, wait + 30s);
    }
    EXPECT_TRUE(sender->isValid());
}

TEST_F(Ports, TellWhetherThereIsRoomWithoutSendingAnything) {
    Receiver receiver("a");
    receiver.port->removeFromRunLoop();
    const auto sender = names().portForName("a");
    EXPECT_TRUE(sender->hasRoom());
    std::size_t sent = 0;
    EXPECT_THROW(
        for (;; ++sent) PortMessage(sender, {}).sendBeforeDate(std::chrono::steady_clock::now()),
        PortException);
    EXPECT_FALSE(sender->hasRoom());
    EXPECT_TRUE(sender->isValid());
    receiver.port->scheduleInRunLoop();
    EXPECT_TRUE(runUntil([&] { return receiver.delegate.messages.size() == sent; }));
    EXPECT_TRUE(sender->hasRoom());
    RunLoop::currentRunLoop().runFor(1ms);
    EXPECT_EQ(receiver.delegate.messages.size(), sent) << "nothing but what was sent";
}

TEST_F(Ports, HaveNoRoomWhereNobodyReceives) {
    EXPECT_FALSE(Port::port()->hasRoom()) << "receives itself";
    const auto sender = [] {
        Receiver receiver("a");
        return names().portForName("a");
    }();
    EXPECT_TRUE(sender->isValid()) << "the loop has told nothing yet";
    EXPECT_FALSE(sender->hasRoom());
    EXPECT_FALSE(sender->isValid());
    EXPECT_FALSE(sender->hasRoom());
}

TEST_F(Ports, ServeMessagesInARunInsideAHandler) {
    const auto port = Port::port();
    ASSERT_TRUE(names().registerPort(port, "a"));
    struct Nesting : PortDelegate {
        void handlePortMessage(const PortMessage& message) override {
            const std::string text = test::textOf(*message.component(0));
            order.push_back("begin " + text);
            if (text == "outer") runUntil([&] { return order.size() == 3; });
            // The bytes of the outer message must have stayed.
            order.push_back("end " + test::textOf(*message.component(0)));
        }
        std::vector<std::string> order;
    } delegate;
    port->setDelegate(&delegate);
    port->scheduleInRunLoop();
    const auto sender = names().portForName("a");
    sendText(sender, 1, "outer");
    sendText(sender, 1, "inner");
    ASSERT_TRUE(runUntil([&] { return delegate.order.size() == 4; }));
    EXPECT_EQ(delegate.order,
              (std::vector<std::string>{"begin outer", "begin inner", "end inner", "end outer"}));
    port->invalidate();
}

TEST_F(Ports, MayEndInTheirOwnHandler) {
    struct Ending : PortDelegate {
        void handlePortMessage(const PortMessage& message) override {
            port.reset();
            text = test::textOf(*message.component(0));
        }
        std::shared_ptr<Port> port = Port::port();
        std::string text;
    } delegate;
    ASSERT_TRUE(names().registerPort(delegate.port, "a"));
    delegate.port->setDelegate(&delegate);
    delegate.port->scheduleInRunLoop();
    const auto sender = names().portForName("a");
    sendText(sender, 1, "the last");
    sendText(sender, 1, "never handled");
    ASSERT_TRUE(runUntil([&] { return !delegate.text.empty(); }));
    EXPECT_EQ(delegate.text, "the last");
    EXPECT_TRUE(runUntil([&] { return !sender->isValid(); }));
}

TEST_F(Ports, GoOnWhenAHandlerThrows) {
    const test::TestLog log;
    struct Throwing : PortDelegate {
        void handlePortMessage(const PortMessage&) override {
            if (++count == 1) throw std::runtime_error("cannot handle this");
        }
        int count = 0;
    } delegate;
    const auto port = Port::port();
    ASSERT_TRUE(names().registerPort(port, "a"));
    port->setDelegate(&delegate);
    port->scheduleInRunLoop();
    const auto sender = names().portForName("a");
    sendText(sender, 1, "x");
    sendText(sender, 2, "y");
    ASSERT_TRUE(runUntil([&] { return delegate.count == 2; }));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"A port's message handler threw: cannot handle this"}));
    port->invalidate();
}

TEST_F(Ports, ReplaceWhatACrashedOwnerLeft) {
    const auto folder = home.runtime() / "com.korvane.utilia" / "ports";
    {
        Receiver first("a");
        std::filesystem::create_hard_link(folder / "a", folder / "kept");
    }
    std::filesystem::rename(folder / "kept", folder / "a");
    EXPECT_FALSE(names().portForName("a"));
    Receiver second("a");
    ASSERT_TRUE(second.isRegistered);
    EXPECT_TRUE(names().portForName("a"));
}

TEST_F(Ports, AnswerWithADocumentedErrorWhenTheRuntimeFolderCannotBeUsed) {
    const test::TestLog log;
    std::filesystem::permissions(home.runtime(), std::filesystem::perms::owner_all);
    std::filesystem::create_directory(home.runtime() / "com.korvane.utilia");
    std::filesystem::permissions(home.runtime() / "com.korvane.utilia",
                                 std::filesystem::perms::all);
    const auto port = Port::port();
    EXPECT_FALSE(names().registerPort(port, "a"));
    EXPECT_FALSE(names().portForName("a"));
    EXPECT_FALSE(names().portForName("a"));
    EXPECT_TRUE(names().registrations().empty());
    EXPECT_EQ(log.lines().size(), 1u) << "a condition that lasts is logged once";
    EXPECT_EQ(log.count("other users may enter it"), 1u);
}

TEST_F(Ports, AnswerWithADocumentedErrorWhenThereIsNoRuntimeFolder) {
    const test::TestLog log;
    std::filesystem::remove_all(home.runtime());
    EXPECT_FALSE(names().registerPort(Port::port(), "a"));
    EXPECT_FALSE(names().portForName("a"));
    EXPECT_TRUE(names().registrations().empty());
    EXPECT_EQ(log.count("No such file or directory"), 1u);
}

TEST_F(Ports, WorkInAFolderWithALongPath) {
    std::filesystem::path folder = home.runtime();
    while (folder.string().size() < 300) folder /= std::string(40, 'f');
    std::filesystem::create_directories(folder);
    setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
    Receiver receiver(std::string(100, 'n'));
    ASSERT_TRUE(receiver.isRegistered);
    sendText(names().portForName(std::string(100, 'n')), 1, "x");
    EXPECT_TRUE(runUntil([&] { return receiver.messages().size() == 1; }));
}

TEST_F(Ports, RefuseALargeMessageWhenThereIsNoDescriptorForIt) {
    const test::TestLog log;
    Receiver receiver("a");
    const std::size_t descriptors = test::openDescriptorCount();
    const auto sender = names().portForName("a");
    sendText(sender, 1, "small");
    ASSERT_TRUE(runUntil([&] { return receiver.messages().size() == 1; }));
    sendText(sender, 2, std::string(100'000, 'L'));
    {
        const test::NoDescriptorsLeft none;
        for (int turn = 0; turn < 5; ++turn) RunLoop::currentRunLoop().runFor(0ns);
    }
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "Port a refused a memory file that cannot be read here (process " +
                               std::to_string(getpid()) + ")"}));
    EXPECT_TRUE(runUntil([&] { return !sender->isValid(); })) << "its sender hears of it";
    EXPECT_EQ(test::openDescriptorCount(), descriptors);
    sendText(names().portForName("a"), 3, std::string(100'000, 'L'));
    EXPECT_TRUE(runUntil([&] { return receiver.messages().size() == 2; }));
}

TEST_F(Ports, GoOnWhenTheirFolderIsRemoved) {
    Receiver receiver("a");
    const auto sender = names().portForName("a");
    std::filesystem::remove_all(home.runtime() / "com.korvane.utilia");
    sendText(sender, 1, "x");
    EXPECT_TRUE(runUntil([&] { return receiver.delegate.messages.size() == 1; }));
    sender->invalidate();
    EXPECT_FALSE(names().portForName("a"));
    receiver.port->invalidate();
    Receiver second("a");
    EXPECT_TRUE(second.isRegistered);
}

}  // namespace
}  // namespace utilia::platform
