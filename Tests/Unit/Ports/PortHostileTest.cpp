// Long file: the table of what peers may do wrong belongs together.

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "Common/Platform/Linux/PortImplementation.h"
#include "Common/Platform/Linux/PortPacket.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Ports/PortTestSupport.h"

// Peers that break the rules, each in a process of its own that speaks to the socket directly.
// After each of them the receiver has what it had before, and others are served as if nothing had
// been.

namespace utilia::platform {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::connectRaw;
using test::openDescriptorCount;
using test::PortUnderTest;
using test::residentBytes;
using test::runUntil;
using test::runUntilSaid;
using test::sendText;

using Bytes = std::vector<std::uint8_t>;

// ---- what hostile peers do ------------------------------------------------------------------

Bytes packetHead(PortPacketKind kind, const std::vector<std::uint32_t>& lengths) {
    Bytes bytes = {'U', 'T', 'P', 'M', 1, 0, static_cast<std::uint8_t>(kind), 0, 9, 0, 0, 0};
    const auto put = [&](std::uint32_t value) {
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    };
    put(static_cast<std::uint32_t>(lengths.size()));
    for (const std::uint32_t length : lengths) put(length);
    return bytes;
}

Bytes hello() {
    PortPacketHead head;
    encodePortHello(head);
    return {head.bytes.begin(), head.bytes.begin() + static_cast<std::ptrdiff_t>(head.size)};
}

// Sends one packet with any number of descriptors.
void sendRaw(int socket, const Bytes& bytes, const std::vector<int>& descriptors = {}) {
    iovec part{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
    msghdr packet{};
    packet.msg_iov = &part;
    packet.msg_iovlen = 1;
    std::vector<std::uint8_t> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
    if (!descriptors.empty()) {
        packet.msg_control = control.data();
        packet.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&packet);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
        std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size() * sizeof(int));
    }
    if (sendmsg(socket, &packet, MSG_NOSIGNAL) < 0) std::perror("sendmsg");
}

UniqueFd memoryFile(std::size_t written, std::size_t size, int seals) {
    UniqueFd file(memfd_create("hostile", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    const Bytes content(written, 0x77);
    if (write(file.get(), content.data(), written) != static_cast<ssize_t>(written))
        std::perror("write");
    if (ftruncate(file.get(), static_cast<off_t>(size)) != 0) std::perror("ftruncate");
    if (seals != 0 && fcntl(file.get(), F_ADD_SEALS, seals) != 0) std::perror("seal");
    return file;
}

constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW;
constexpr std::uint32_t kPayload = 100'000;
constexpr std::size_t kFileSize = 131'072;  // of a message of kPayload bytes
constexpr const char* kSilence = "no hello at all";

// Announces a memory file of kPayload bytes and sends this one.
void sendAsMemory(int socket, int descriptor) {
    sendRaw(socket, hello());
    sendRaw(socket, packetHead(PortPacketKind::Memory, {kPayload}), {descriptor});
}

struct HostileDeed {
    std::function<void(int socket)> deed;
    PortRefusal refusal;
};

std::map<std::string, HostileDeed> packetDeeds() {
    const auto afterHello = [](Bytes packet) {
        return [packet](int socket) {
            sendRaw(socket, hello());
            sendRaw(socket, packet);
        };
    };
    const auto grown = [](Bytes bytes, std::size_t size) {
        bytes.resize(size);
        return bytes;
    };
    Bytes version = hello();
    version[4] = 2;
    Bytes manyComponents = packetHead(PortPacketKind::Inline, {});
    manyComponents[15] = 0xff;
    return {
        {"garbage", {[](int s) { sendRaw(s, Bytes(333, 0xa5)); }, PortRefusal::WrongMagic}},
        {"other version", {[version](int s) { sendRaw(s, version); }, PortRefusal::WrongVersion}},
        {"half a header",
         {[half = grown(hello(), 9)](int s) { sendRaw(s, half); }, PortRefusal::ShortHeader}},
        {"unknown kind",
         {afterHello(packetHead(static_cast<PortPacketKind>(9), {})), PortRefusal::UnknownKind}},
        {"four billion components", {afterHello(manyComponents), PortRefusal::TooManyComponents}},
        {"65 components",
         {afterHello(packetHead(PortPacketKind::Inline, std::vector<std::uint32_t>(65))),
          PortRefusal::TooManyComponents}},
        {"half a table",
         {afterHello(Bytes(grown(packetHead(PortPacketKind::Inline, {1, 2, 3}), 22))),
          PortRefusal::ShortTable}},
        {"lengths past the packet",
         {afterHello(packetHead(PortPacketKind::Inline, {100})), PortRefusal::WrongLength}},
        {"bytes past the lengths",
         {afterHello(grown(packetHead(PortPacketKind::Inline, {100}), 200)),
          PortRefusal::WrongLength}},
        {"lengths that overflow",
         {afterHello(
              packetHead(PortPacketKind::Inline, std::vector<std::uint32_t>(64, 0xffffffff))),
          PortRefusal::TooLarge}},
        {"the largest packet", {afterHello(Bytes(212'960)), PortRefusal::TooLong}},
        {"two hellos", {afterHello(hello()), PortRefusal::UnexpectedHello}},
        {"a message before the hello",
         {[](int s) { sendRaw(s, packetHead(PortPacketKind::Inline, {})); }, PortRefusal::NoHello}},
        {kSilence, {[](int) {}, PortRefusal::NoHello}},
    };
}

std::map<std::string, HostileDeed> descriptorDeeds() {
    const auto file = [](std::size_t written, std::size_t size, int seals) {
        return [=](int s) { sendAsMemory(s, memoryFile(written, size, seals).get()); };
    };
    const auto several = [](std::size_t count) {
        return [count](int s) {
            const UniqueFd memory = memoryFile(kPayload, kFileSize, kSeals);
            sendRaw(s, hello());
            sendRaw(s, packetHead(PortPacketKind::Memory, {kPayload}),
                    std::vector<int>(count, memory.get()));
        };
    };
    return {
        {"no descriptor",
         {[](int s) {
              sendRaw(s, hello());
              sendRaw(s, packetHead(PortPacketKind::Memory, {kPayload}));
          },
          PortRefusal::MissingDescriptor}},
        {"two descriptors", {several(2), PortRefusal::TooManyDescriptors}},
        {"253 descriptors", {several(253), PortRefusal::TooManyDescriptors}},
        {"a descriptor with an inline message",
         {[](int s) {
              sendRaw(s, hello());
              sendRaw(s, packetHead(PortPacketKind::Inline, {}), {0});
          },
          PortRefusal::UnexpectedDescriptor}},
        {"a descriptor with the hello",
         {[](int s) { sendRaw(s, hello(), {0}); }, PortRefusal::UnexpectedDescriptor}},
        {"an unsealed file", {file(kPayload, kFileSize, 0), PortRefusal::NotSealedMemory}},
        {"a file that can shrink",
         {file(kPayload, kFileSize, F_SEAL_GROW | F_SEAL_WRITE), PortRefusal::NotSealedMemory}},
        {"a file that shrank",
         {[](int s) {
              const UniqueFd shrunk = memoryFile(kPayload, kFileSize, F_SEAL_GROW);
              if (ftruncate(shrunk.get(), 10) != 0) std::perror("ftruncate");
              sendAsMemory(s, shrunk.get());
          },
          PortRefusal::NotSealedMemory}},
        {"a terabyte of nothing",
         {file(0, std::size_t{1} << 40, kSeals), PortRefusal::WrongMemorySize}},
        {"a file of holes", {file(0, kFileSize, kSeals), PortRefusal::WrongMemorySize}},
        {"a file of its payload's size",
         {file(kPayload, kPayload, kSeals), PortRefusal::WrongMemorySize}},
        {"a file that is too small",
         {file(kFileSize - 1, kFileSize - 1, kSeals), PortRefusal::WrongMemorySize}},
        {"a file that is too large",
         {file(kPayload, kFileSize + 1, kSeals), PortRefusal::WrongMemorySize}},
        {"a pipe",
         {[](int s) {
              int ends[2];
              if (pipe(ends) == 0) sendAsMemory(s, ends[0]);
          },
          PortRefusal::NotSealedMemory}},
        {"a folder",
         {[](int s) { sendAsMemory(s, open("/", O_RDONLY)); }, PortRefusal::NotSealedMemory}},
        {"a device",
         {[](int s) { sendAsMemory(s, open("/dev/zero", O_RDONLY)); },
          PortRefusal::NotSealedMemory}},
        {"a socket",
         {[](int s) { sendAsMemory(s, socket(AF_UNIX, SOCK_STREAM, 0)); },
          PortRefusal::NotSealedMemory}},
        {"its own connection", {[](int s) { sendAsMemory(s, s); }, PortRefusal::NotSealedMemory}},
        {"a file on a disk",
         {[](int s) { sendAsMemory(s, open("/proc/self/exe", O_RDONLY)); },
          PortRefusal::NotSealedMemory}},
    };
}

std::map<std::string, HostileDeed> allDeeds() {
    auto all = packetDeeds();
    all.merge(descriptorDeeds());
    return all;
}

// Whether the receiver has hung up on the connection.
bool waitForHangUp(int socket) {
    pollfd waiting{socket, POLLRDHUP, 0};
    return poll(&waiting, 1, 60'000) == 1;
}

UTILIA_CHILD_ROLE(doDeed) {
    const UniqueFd socket = connectRaw("a");
    if (!socket) return 2;
    allDeeds().at(self.arguments[0]).deed(socket.get());
    self.say(waitForHangUp(socket.get()) ? "dropped" : "kept");
    self.waitForLine();
    return 0;
}

UTILIA_CHILD_ROLE(sendEmptyPacket) {
    const UniqueFd socket = connectRaw("a");
    sendRaw(socket.get(), hello());
    sendRaw(socket.get(), {});
    self.say(waitForHangUp(socket.get()) ? "dropped" : "kept");
    return 0;
}

// As many connections as the receiver lets it have, again and again, keeping the last hundred.
UTILIA_CHILD_ROLE(connectOften) {
    std::vector<UniqueFd> kept(static_cast<std::size_t>(std::stoi(self.arguments[1])));
    const int count = std::stoi(self.arguments[0]);
    for (int i = 0; i < count; ++i) {
        UniqueFd socket = connectRaw("a");
        if (!socket) return 2;
        if (!kept.empty()) kept[static_cast<std::size_t>(i) % kept.size()] = std::move(socket);
    }
    self.say("connected");
    self.waitForLine();
    return 0;
}

UTILIA_CHILD_ROLE(floodWithMessages) {
    const UniqueFd socket = connectRaw("a");
    sendRaw(socket.get(), hello());
    const Bytes packet = packetHead(PortPacketKind::Inline, {});
    self.say("flooding");
    for (;;) {
        if (send(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0) return 1;
    }
}

// A connection for each message, as many as the backlog takes.
UTILIA_CHILD_ROLE(connectForEachMessage) {
    for (int i = 0; i < 120; ++i) {
        const UniqueFd socket = connectRaw("a");
        sendRaw(socket.get(), hello());
        sendRaw(socket.get(), packetHead(PortPacketKind::Inline, {}));
    }
    return 0;
}

UTILIA_CHILD_ROLE(sendOneMessage) {
    const auto port = PortNameServer::systemDefaultPortNameServer().portForName("a");
    if (!port) return 2;
    sendText(port, 1, self.arguments[0]);
    return 0;
}

// ---- what the receiver makes of it ----------------------------------------------------------

struct HostilePeers : testing::Test {
    HostilePeers() { setHelloTimeout(kNever); }

    // Short only where it is what is tested: on a busy machine a tool, too, may take its time.
    static constexpr std::chrono::minutes kNever{10};
    void setHelloTimeout(std::chrono::milliseconds timeout) {
        end().setLimits({.helloTimeout = timeout});
    }

    PortReceiver& end() { return *receiver->port->implementation().receiver; }

    // A message of another process's arrives. (From this one it could not: a full backlog would
    // make the send wait for a loop that is not running.)
    testing::AssertionResult othersAreServed() {
        const std::string text = "from tool " + std::to_string(++toolCount);
        ChildProcess tool = ChildProcess::role("sendOneMessage", {text});
        const bool arrived = runUntil([&] {
            for (const auto& message : receiver->messages()) {
                if (message.components == std::vector<std::string>{text}) return true;
            }
            return false;
        });
        receiver->messages().clear();
        return arrived ? testing::AssertionSuccess()
                       : testing::AssertionFailure() << "nothing arrived";
    }

    void waitForNoConnections() {
        EXPECT_TRUE(runUntil([&] { return end().connectionCount() == 0; }));
    }

    test::TemporaryHome home;
    test::TestLog log;
    int toolCount = 0;
    std::unique_ptr<PortUnderTest> receiver = std::make_unique<PortUnderTest>("a");
};

struct HostileDeeds : HostilePeers, testing::WithParamInterface<std::string> {};

TEST_P(HostileDeeds, CostALogLineAndTheirConnection) {
    ASSERT_TRUE(othersAreServed());
    waitForNoConnections();
    const std::size_t descriptors = openDescriptorCount();
    const std::size_t resident = residentBytes();
    const PortRefusal refusal = allDeeds().at(GetParam()).refusal;
    if (GetParam() == kSilence) setHelloTimeout(50ms);
    {
        ChildProcess peer = ChildProcess::role("doDeed", {GetParam()});
        EXPECT_TRUE(runUntilSaid(peer, "dropped"));
        EXPECT_EQ(end().connectionCount(), 0u) << "the peer still lives, its connection does not";
        EXPECT_EQ(log.lines(), (std::vector<std::string>{
                                   "Port a refused " + std::string(portRefusalText(refusal)) +
                                   " (process " + std::to_string(peer.pid()) + ")"}));
        EXPECT_EQ(end().refusals(refusal), 1u);
    }
    setHelloTimeout(kNever);
    EXPECT_TRUE(othersAreServed());
    waitForNoConnections();
    EXPECT_EQ(openDescriptorCount(), descriptors);
    EXPECT_LE(residentBytes(), resident + test::residentTolerance());
}

INSTANTIATE_TEST_SUITE_P(Each, HostileDeeds, testing::ValuesIn([] {
                             std::vector<std::string> names;
                             for (const auto& [name, deed] : allDeeds()) names.push_back(name);
                             return names;
                         }()),
                         [](const auto& tested) {
                             std::string name = tested.param;
                             for (char& character : name) {
                                 if (!std::isalnum(static_cast<unsigned char>(character)))
                                     character = '_';
                             }
                             return name;
                         });

TEST_F(HostilePeers, CannotChangeWhatAHandlerLooksAt) {
    const UniqueFd socket = connectRaw("a");
    const UniqueFd file = memoryFile(kPayload, kFileSize, kSeals);
    sendAsMemory(socket.get(), file.get());
    ASSERT_TRUE(runUntil([&] { return receiver->messages().size() == 1; }));
    receiver->delegate.beforeRecording = [&] {
        const Bytes other(kPayload, 0x11);
        ASSERT_EQ(pwrite(file.get(), other.data(), other.size(), 0), ssize_t{kPayload});
    };
    sendRaw(socket.get(), packetHead(PortPacketKind::Memory, {kPayload}), {file.get()});
    ASSERT_TRUE(runUntil([&] { return receiver->messages().size() == 2; }));
    EXPECT_EQ(receiver->messages()[1].components, (std::vector{std::string(kPayload, '\x77')}));
}

TEST_F(HostilePeers, ThatSendAnEmptyPacketHaveEndedTheirConnection) {
    ChildProcess peer = ChildProcess::role("sendEmptyPacket");
    EXPECT_TRUE(runUntilSaid(peer, "dropped"));
    EXPECT_TRUE(othersAreServed());
    waitForNoConnections();
}

TEST_F(HostilePeers, AreReportedOnceInTenSeconds) {
    for (int i = 0; i < 5; ++i) {
        const UniqueFd socket = connectRaw("a");
        sendRaw(socket.get(), Bytes(20, 1));
        ASSERT_TRUE(runUntil(
            [&] { return end().refusals(PortRefusal::WrongMagic) == std::uint64_t(i + 1); }));
    }
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(HostilePeers, GetNoMoreConnectionsThanAProcessMayHave) {
    const std::size_t descriptors = openDescriptorCount();
    {
        ChildProcess peer = ChildProcess::role("connectOften", {"100", "100"});
        ASSERT_TRUE(runUntilSaid(peer, "connected"));
        EXPECT_TRUE(
            runUntil([&] { return end().refusals(PortRefusal::TooManyConnections) == 36; }));
        EXPECT_EQ(end().connectionCount(), 64u);
        EXPECT_TRUE(othersAreServed());
        EXPECT_EQ(log.lines().size(), 1u);
    }
    waitForNoConnections();
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

TEST_F(HostilePeers, AreNoneIfTheyConnectForEachMessageAndClose) {
    ChildProcess tool = ChildProcess::role("connectForEachMessage");
    ASSERT_EQ(tool.waitForExit(), 0);
    EXPECT_TRUE(runUntil([&] { return receiver->messages().size() == 120; }));
    EXPECT_TRUE(log.lines().empty());
    waitForNoConnections();
}

TEST_F(HostilePeers, MayConnectTenThousandTimes) {
    ASSERT_TRUE(othersAreServed());
    waitForNoConnections();
    const std::size_t descriptors = openDescriptorCount();
    const std::size_t resident = residentBytes();
    for (const char* kept : {"100", "0"}) {
        ChildProcess peer = ChildProcess::role("connectOften", {"10000", kept});
        EXPECT_TRUE(othersAreServed());
        ASSERT_TRUE(runUntilSaid(peer, "connected"));
        EXPECT_TRUE(othersAreServed());
    }
    waitForNoConnections();
    EXPECT_EQ(openDescriptorCount(), descriptors);
    EXPECT_LE(residentBytes(), resident + test::residentTolerance());
}

TEST_F(HostilePeers, ThatSayNothingHoldUpNobody) {
    std::vector<ChildProcess> silent;
    for (int i = 0; i < 10; ++i) {
        silent.push_back(ChildProcess::role("connectOften", {"5", "5"}));
        ASSERT_TRUE(runUntilSaid(silent.back(), "connected"));
    }
    EXPECT_TRUE(runUntil([&] { return end().connectionCount() == 50; }));
    EXPECT_TRUE(othersAreServed());
    silent.clear();
    waitForNoConnections();
}

TEST_F(HostilePeers, ThatSayNothingAreAllDroppedAfterTheirTime) {
    setHelloTimeout(50ms);
    ChildProcess peer = ChildProcess::role("connectOften", {"20", "20"});
    ASSERT_TRUE(runUntilSaid(peer, "connected"));
    EXPECT_TRUE(runUntil([&] { return end().refusals(PortRefusal::NoHello) == 20; }));
    EXPECT_EQ(end().connectionCount(), 0u);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(HostilePeers, ThatFloodWithValidMessagesAreSlowedAndNotCut) {
    receiver->delegate.keepsMessages = false;
    std::vector<ChildProcess> flooders;
    for (int i = 0; i < 2; ++i) {
        flooders.push_back(ChildProcess::role("floodWithMessages"));
        ASSERT_TRUE(runUntilSaid(flooders.back(), "flooding"));
    }
    for (int i = 0; i < 20; ++i) {
        ChildProcess tool = ChildProcess::role("sendOneMessage", {"hello"});
        const std::size_t before = receiver->delegate.withComponents;
        ASSERT_TRUE(runUntil([&] { return receiver->delegate.withComponents == before + 1; }));
    }
    for (auto& flooder : flooders) EXPECT_TRUE(flooder.isRunning());
    EXPECT_TRUE(runUntil([&] { return receiver->delegate.count > 1000; }));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(HostilePeers, CannotStopAReceiverThatRunsOutOfDescriptors) {
    ASSERT_TRUE(othersAreServed());
    waitForNoConnections();
    ChildProcess tool = ChildProcess::role("sendOneMessage", {"queued meanwhile"});
    ASSERT_EQ(tool.waitForExit(), 0);
    timespec before{};
    timespec after{};
    {
        const test::NoDescriptorsLeft none;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
        RunLoop::currentRunLoop().runFor(500ms);
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
    }
    const double cpu = static_cast<double>(after.tv_sec - before.tv_sec) +
                       static_cast<double>(after.tv_nsec - before.tv_nsec) / 1e9;
    EXPECT_LT(cpu, 0.1) << "a receiver without descriptors must not spin";
    EXPECT_EQ(end().connectionCount(), 0u);
    EXPECT_TRUE(runUntil([&] {
        return !receiver->messages().empty() && receiver->messages().back().components ==
                                                    std::vector<std::string>{"queued meanwhile"};
    }));
}

}  // namespace
}  // namespace utilia::platform
