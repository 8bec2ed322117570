#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Common/Platform/Linux/PortImplementation.h"
#include "Common/Platform/Port.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Ports/PortTestSupport.h"

// What lies in the place of sockets and locks, and who else can reach them.

namespace utilia::platform {
namespace {

using test::ChildProcess;
using test::PortUnderTest;
using test::runUntilSaid;
namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;

PortNameServer& names() { return PortNameServer::systemDefaultPortNameServer(); }

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

struct PortPlaces : testing::Test {
    test::TemporaryHome home;
};

TEST_F(PortPlaces, LeaveWhatASymbolicLinkPointsTo) {
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

TEST_F(PortPlaces, AnswerForEverythingThatMayLieInTheirPlace) {
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

struct OtherUsers : PortPlaces {
    // Only root can become another user; continuous integration is.
    OtherUsers() {
        chmod(home.path().c_str(), 0755);
        chmod(home.runtime().c_str(), 0755);
    }
    void SetUp() override {
        if (geteuid() != 0) FAIL() << "needs a second user, which only root can become";
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
