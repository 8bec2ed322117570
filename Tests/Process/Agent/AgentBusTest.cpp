#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "Common/Platform/RunLoop.h"
#include "Common/Platform/UniqueFd.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Process/Agent/AgentFixture.h"
#include "Tests/Support/StopWithoutLocks.h"

// An agent whose session bus is late, lost, or not there at all.

namespace utilia::agent {
namespace {

using test::RecordingPort;
using testing::HasSubstr;

class AgentBusTest : public AgentApplicationTest {
protected:
    // Without a word about the bus: it is where sessions have theirs, once it is.
    static Environment unnamedBus() {
        return {{"QT_QPA_PLATFORM", "offscreen"},
                {"LANGUAGE", "en"},
                {"DBUS_SESSION_BUS_ADDRESS", "\x01"}};
    }
    // Whether it comes to say that, and that often, since the log was begun.
    bool hasLogged(const std::string& line, int times = 1) const {
        return test::eventually([&] {
            const std::string all = log();
            int found = 0;
            for (std::size_t at = all.find(line); at != std::string::npos;
                 at = all.find(line, at + 1))
                ++found;
            return found >= times;
        });
    }
    std::string ownTools(const std::string& tools) const { return tools + "; " + kOwnEntries; }
    // A file of the bus's name that nobody listens at.
    void leaveSocketBehind() const {
        const platform::UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = home_.runtime() / "bus";
        ASSERT_LT(path.size(), sizeof address.sun_path);
        path.copy(address.sun_path, path.size());
        ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
    }
    // The kernel tells what a process watches, by the number of the file.
    static bool isWatching(const test::ChildProcess& agent, const std::filesystem::path& folder) {
        struct stat status {};
        EXPECT_EQ(stat(folder.c_str(), &status), 0);
        std::ostringstream wanted;
        wanted << "ino:" << std::hex << status.st_ino << ' ';
        std::error_code gone;
        for (const auto& descriptor : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(agent.pid()) + "/fdinfo", gone)) {
            std::ifstream file(descriptor.path());
            for (std::string line; std::getline(file, line);) {
                if (line.starts_with("inotify ") && line.find(wanted.str()) != std::string::npos)
                    return true;
            }
        }
        return false;
    }
    void schedule(const char* tool, const std::string& name) const {
        updateSchedulerPlist(tool, name, [](Dictionary& record) {
            record.set("launchAtDate", true);
            record.set("date", Date{Date::now().secondsSinceReferenceDate - 60});
        });
    }
};

TEST_F(AgentBusTest, ComesBackWithTheBusThatItLost) {
    install(timer_);
    startBus();
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    const RecordingPort timer(portOf(timer_));
    sayStatus(timer_, 1);
    const std::string before = ownTools("Timer [checkmark]");
    ASSERT_EQ(menuThatBecomes(panel, before), before);

    for (int times = 0; times < 2; ++times) {
        bus_.reset();
        ASSERT_TRUE(hasLogged("the session bus is lost", times + 1));
        EXPECT_TRUE(agent.isRunning());
        startBus();
        auto next = startPanel();
        expectItem(next, agent);
        EXPECT_EQ(ask(next, "menu"), before);
        speak(timer_, 108, {std::to_string(times)});
        const std::string changed = ownTools("Timer – " + std::to_string(times) + " [checkmark]");
        EXPECT_EQ(menuThatBecomes(next, changed), changed) << "and is told what changes";
        speak(timer_, 108, {""});
        EXPECT_EQ(menuThatBecomes(next, before), before);
        EXPECT_THAT(published(), HasSubstr("'identifier': <'com.korvane.utilia.Timer'>"));
    }
    EXPECT_TRUE(agent.isRunning());
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.waitForExit(), 0);
}

TEST_F(AgentBusTest, HearsOfSchedulesAgainOnTheNewBus) {
    install(timer_);
    startBus();
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    bus_.reset();
    ASSERT_TRUE(hasLogged("the session bus is lost"));
    // Who asks again and again whether it is back does so more and more rarely.
    platform::RunLoop::currentRunLoop().runFor(std::chrono::seconds(4));
    startBus();
    auto next = startPanel();
    expectItem(next, agent);
    // Once this is listed the agent has looked at everything that it missed.
    install(clock_);
    const std::string both = ownTools("Timer; World__Clock");
    ASSERT_EQ(menuThatBecomes(next, both), both);
    AgentScheduler::scheduleToolAtDate(Date{Date::now().secondsSinceReferenceDate - 60}, kTimer,
                                       "Timer");
    EXPECT_EQ(reports_.waitForLine(), "started");
}

TEST_F(AgentBusTest, SeesWhatWasScheduledWhileTheBusEnded) {
    install(timer_);
    startBus();
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    test::stopWithoutLocks(agent.pid(), home_.path());
    bus_.reset();
    schedule(kTimer, "Timer");
    agent.signal(SIGCONT);
    EXPECT_EQ(reports_.waitForLine(), "started");
}

TEST_F(AgentBusTest, LooksAtSchedulesWhenTheBusComesAlsoWhereTheyCouldNotBeWatched) {
    install(timer_);
    test::PrivateMounts mounts;
    mounts.makeReadOnly(home_.data());
    auto agent = startAgent(unnamedBus(), {}, &mounts);
    ASSERT_TRUE(hasLogged("no status icon, and nothing is published"));
    schedule(kTimer, "Timer");
    startBus();
    EXPECT_EQ(reports_.waitForLine(), "started");
}

TEST_F(AgentBusTest, SaysThatItsNameOnTheBusIsTaken) {
    startBus();
    test::ChildProcessOptions options;
    options.environment = {{"DBUS_SESSION_BUS_ADDRESS", bus_->address()}};
    options.diesWithTest = true;
    auto other = test::ChildProcess::program(
        kPython,
        {"-c", "import os\nfrom gi.repository import Gio, GLib\n"
               "Gio.bus_own_name(Gio.BusType.SESSION, 'com.korvane.utilia', 0, None,"
               " lambda *_: os.write(3, b'owned\\n'), None)\nGLib.MainLoop().run()"},
        options);
    ASSERT_EQ(other.waitForLine(), "owned");
    auto agent = startAgent(offscreen());
    EXPECT_TRUE(hasLogged("the list of tools is not published: the name com.korvane.utilia: it is "
                          "somebody else's"));
}

TEST_F(AgentBusTest, WaitsForABusThatIsLate) {
    install(timer_);
    auto agent = startAgent(unnamedBus());
    ASSERT_TRUE(hasLogged("no status icon, and nothing is published"));
    startBus();
    auto panel = startPanel();
    expectItem(panel, agent);
    EXPECT_EQ(ask(panel, "menu"), ownTools("Timer"));
}

TEST_F(AgentBusTest, TakesTheBusThatReplacesADeadSocket) {
    leaveSocketBehind();
    auto agent = startAgent(unnamedBus());
    ASSERT_TRUE(hasLogged("no status icon, and nothing is published"));
    std::filesystem::remove(home_.runtime() / "bus");
    startBus();
    auto panel = startPanel();
    expectItem(panel, agent);
}

TEST_F(AgentBusTest, WatchesTheFolderOfTheSocketOnlyWhileThereIsNoBus) {
    const auto folder = home_.path() / "place";
    std::filesystem::create_directory(folder);
    auto environment = unnamedBus();
    environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (folder / "bus").string();
    auto agent = startAgent(environment);
    ASSERT_TRUE(hasLogged("no status icon, and nothing is published"));
    EXPECT_TRUE(isWatching(agent, folder));
    bus_ = std::make_unique<test::PrivateBus>(folder / "bus");
    ASSERT_TRUE(hasLogged("the session bus is there"));
    EXPECT_TRUE(test::eventually([&] { return !isWatching(agent, folder); }));
    bus_.reset();
    ASSERT_TRUE(hasLogged("the session bus is lost"));
    EXPECT_TRUE(test::eventually([&] { return isWatching(agent, folder); }));
}

TEST_F(AgentBusTest, TakesABusWhoseFolderWasRemoved) {
    const auto folder = home_.path() / "place";
    std::filesystem::create_directory(folder);
    auto environment = unnamedBus();
    environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (folder / "bus").string();
    auto agent = startAgent(environment);
    ASSERT_TRUE(hasLogged("no status icon, and nothing is published"));
    std::filesystem::remove(folder);
    std::filesystem::create_directory(folder);
    bus_ = std::make_unique<test::PrivateBus>(folder / "bus");
    auto panel = startPanel();
    expectItem(panel, agent);
}

TEST_F(AgentBusTest, ActsOnSchedulesWithoutABusThatCouldTellOfThem) {
    install(timer_);
    install(clock_);
    for (const char* address : {"disabled:", "unix:path=/nowhere/bus", ""}) {
        auto environment = offscreen();
        environment["DBUS_SESSION_BUS_ADDRESS"] = address;
        auto agent = startAgent(environment);
        sayStatus(timer_, 0);  // waits until the agent is there
        ASSERT_TRUE(hasLogged("no status icon, and nothing is published")) << address;
        schedule(kTimer, "Timer");
        EXPECT_EQ(reports_.waitForLine(), "started") << address;
        EXPECT_TRUE(agent.isRunning());
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.waitForExit(), 0);
        // It has ended before the tool has had its time to speak, so that this is still due.
        AgentScheduler::cancelScheduleByName("Timer", kTimer);
        std::filesystem::remove(home_.path() / "agent.log");
    }
}

}  // namespace
}  // namespace utilia::agent
