#include <filesystem>
#include <fstream>
#include <string>

#include "Tests/Support/ChildScript.h"
#include "Tests/Support/MisbehavingServer.h"
#include "Tests/Support/NginxServer.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/PrivateNetwork.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/WebLoading/WebFixture.h"

namespace utilia {
namespace {

using namespace test;

namespace fs = std::filesystem;

class WebProcess : public WebTest {
protected:
    const TemporaryHome home_;
};

TEST_F(WebProcess, AToolThatLoadsNothingFromTheWebNeverMapsLibcurl) {
    const NginxServer server("location / { return 200 x; }");
    ScriptedChild tool(ChildProcess::role("webTool"));
    tool.ask("loader-without-load");
    EXPECT_TRUE(tool.ask("load", {"ftp://127.0.0.1/"}).starts_with("-1002 "));
    EXPECT_TRUE(tool.ask("load", {"http://"}).starts_with("-1000 "));
    EXPECT_TRUE(tool.ask("load", {"file:///etc/hostname"}).starts_with("-1014 "));
    EXPECT_EQ(tool.ask("maps"), "");
    EXPECT_EQ(tool.ask("load", {server.url("/")}), "x");
    EXPECT_EQ(tool.ask("maps"), "Net libcurl");
}

TEST_F(WebProcess, AForkedChildLeavesTheLoadsOfItsParentAlone) {
    const NginxServer server("location / { return 200 x; }");
    MisbehavingServer slow([](auto& connection) {
        connection.readRequest();
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n");
        connection.drip("ab", std::chrono::milliseconds(300));
    });
    // In a forked child, what only threads of its parent know looks like a leak.
    ScriptedChild tool(
        ChildProcess::role("webTool", {}, {.environment = {{"ASAN_OPTIONS", "detect_leaks=0"}}}));
    EXPECT_EQ(tool.ask("fork", {slow.url()}), "0 ab");
    EXPECT_EQ(tool.ask("load", {server.url("/")}), "x");
}

TEST_F(WebProcess, AProcessMayEndInTheMiddleOfLoads) {
    const NginxServer server("location / { return 200 some-content; }");
    for (int round = 0; round < 30; ++round) {
        for (const std::string& url : {server.secureURL("/"), server.url("/")}) {
            auto tool = ChildProcess::role(
                "endingWebTool", {url, std::to_string(round % 6)},
                {.environment = {{"SSL_CERT_FILE", server.certificate().string()}}});
            ASSERT_EQ(tool.waitForExit(), 0) << url << " " << round;
        }
    }
}

TEST_F(WebProcess, ConnectionsAreNotKeptForLong) {
    std::atomic<bool> isClosed = false;
    MisbehavingServer server([&](auto& connection) {
        connection.readRequest();
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
        connection.waitForEnd();
        isClosed = true;
        platform::MainQueue::async([] {});
    });
    EXPECT_EQ(load(server.url()).successes, 1);
    EXPECT_FALSE(isClosed);
    EXPECT_TRUE(waitUntil([&] { return isClosed.load(); }));
}

TEST_F(WebProcess, ProgramsThatAreStartedDoNotInheritConnections) {
    ScriptedChild tool(ChildProcess::role("webTool"));
    EXPECT_EQ(tool.ask("inherited"), "no connections");
    const std::string url = tool.ask("serve");
    EXPECT_EQ(tool.ask("load", {url}), "hello");
    EXPECT_EQ(tool.ask("inherited"), "inherited: ");
}

// A copy of this program beside a framework bundle of one's own.
class WebModule : public WebProcess {
protected:
    WebModule() {
        fs::create_directories(program().parent_path());
        fs::create_directories(modules());
        fs::copy_file(ownProgramPath(), program());
    }
    fs::path program() const { return folder_.path() / "bin" / "program"; }
    fs::path modules() const { return folder_.path() / "lib/UtiliaCommon.framework/Modules"; }

    // Answers the error of an attempt, which has one log line.
    std::string expectNoLoads() {
        ScriptedChild tool(ChildProcess::role("webTool", {}, {.program = program().string()}));
        const std::string answer = tool.ask("load", {"http://127.0.0.1:1/"});
        EXPECT_EQ(tool.log(), std::vector<std::string>{
                                  "Error loading web resource at http://127.0.0.1:1/ : Error "
                                  "Domain=NSURLErrorDomain Code=-1 \"" +
                                  answer.substr(answer.find(' ') + 1) + "\""});
        EXPECT_TRUE(answer.starts_with("-1 module Net: ")) << answer;
        EXPECT_EQ(tool.ask("load", {"http://127.0.0.1:1/"}), answer);
        return answer;
    }

    TemporaryFolder folder_;
};

TEST_F(WebModule, WithoutItALoadFails) {
    EXPECT_NE(expectNoLoads().find("Net.so"), std::string::npos);
}

TEST_F(WebModule, WhenItIsBrokenALoadFails) {
    std::ofstream(modules() / "Net.so") << "this is no library";
    expectNoLoads();
}

TEST_F(WebModule, OfAnotherVersionCannotBeUsed) {
    fs::copy_file(test::places::kForeignModule, modules() / "Net.so");
    EXPECT_EQ(expectNoLoads(), "-1 module Net: version 999 instead of 1");
}

// One interface with the address 10.77.0.1, and a neighbour that takes every packet and never
// answers. There is no IPv6.
class WebInANetwork : public WebProcess {
protected:
    WebInANetwork() { network_.run("ip link set lo up\n"); }
    void addInterface() {
        network_.run("echo 1 >/proc/sys/net/ipv6/conf/all/disable_ipv6\n"
                     "ip link add near type veth peer name far\n"
                     "ip address add 10.77.0.1/24 dev near\n"
                     "ip link set far up\n"
                     "ip link set near up\n"
                     "ip neighbour add 10.77.0.2 lladdr 02:00:00:00:00:02 dev near\n");
    }
    void writeEtc(const std::string& name, const std::string& text) {
        fs::remove(mounts_.etc() / name);
        std::ofstream(mounts_.etc() / name) << text;
    }
    ScriptedChild startTool(const std::string& nameServer) {
        writeEtc("resolv.conf", "nameserver " + nameServer + "\noptions timeout:30 attempts:1\n");
        writeEtc("nsswitch.conf", "hosts: files dns\n");
        writeEtc("hosts", "127.0.0.1 localhost\n");
        return ScriptedChild(
            ChildProcess::role("webTool", {}, {.mounts = &mounts_, .network = &network_}));
    }

    PrivateMounts mounts_;
    PrivateNetwork network_;
};

TEST_F(WebInANetwork, WithoutANetworkTheMachineIsOffline) {
    auto tool = startTool("127.0.0.1");
    EXPECT_TRUE(tool.ask("load", {"http://somewhere.test/"}).starts_with("-1009 "));
    EXPECT_TRUE(tool.ask("load", {"http://192.0.2.1/"}).starts_with("-1009 "));
    EXPECT_TRUE(tool.ask("load", {"http://127.0.0.1:1/"}).starts_with("-1004 "));
    EXPECT_EQ(tool.ask("load", {tool.ask("serve")}), "hello");
}

TEST_F(WebInANetwork, HostsAreFoundByNameOrNot) {
    addInterface();
    auto names = ChildProcess::role("nameServer", {"10.77.0.1"}, {.network = &network_});
    ASSERT_EQ(names.waitForLine(), "ready");
    names.say(joinFields({"set", "here.test", "127.0.0.1"}));
    ASSERT_EQ(names.waitForLine(), "done");
    auto tool = startTool("10.77.0.1");
    EXPECT_TRUE(tool.ask("load", {"http://nowhere.test/"}).starts_with("-1003 "));
    EXPECT_TRUE(tool.ask("load", {"http://192.0.2.1/"}).starts_with("-1004 ")) << "no route to it";
    const std::string url = tool.ask("serve");
    EXPECT_EQ(tool.ask("load", {"http://here.test" + url.substr(url.rfind(':'))}), "hello");
}

TEST_F(WebInANetwork, AHostThatDoesNotAnswerIsATimeOut) {
    addInterface();
    auto tool = startTool("10.77.0.1");
    EXPECT_TRUE(
        tool.ask("load-in-milliseconds", {"300", "http://10.77.0.2/"}).starts_with("-1001 "));
}

TEST_F(WebInANetwork, ANameServerThatDoesNotAnswerHoldsUpNobodyElse) {
    addInterface();
    auto tool = startTool("10.77.0.2");
    const std::string url = tool.ask("serve");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(
        tool.ask("load-in-milliseconds", {"300", "http://somewhere.test/"}).starts_with("-1001 "));
    EXPECT_EQ(tool.ask("cancel-lookup", {"http://elsewhere.test/"}), "0");
    EXPECT_EQ(tool.ask("load", {url}), "hello");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20))
        << "the resolver gives up after thirty";
}

}  // namespace
}  // namespace utilia
