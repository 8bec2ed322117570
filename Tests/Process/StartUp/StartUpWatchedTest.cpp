#include <csignal>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Tests/Process/StartUp/StartUpFixture.h"
#include "Tests/Support/ChildRole.h"

// A start under what watches programs: a filter of system calls, and valgrind. Neither takes a program
// that a sanitizer watches already, so that this file is not part of such builds.

namespace utilia::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// ---- without anybody to talk to

// Runs a program that is killed when it asks for a connection or a thread.
UTILIA_CHILD_ROLE(aloneRole) {
    const auto refuse = [](std::uint32_t number) {
        return sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1);
    };
    const sock_filter kill = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS);
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        refuse(SYS_connect),
        kill,
        refuse(SYS_clone3),
        kill,
        refuse(SYS_clone),
        kill,
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{std::size(program), program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        self.say("no filter can be installed");
        return 1;
    }
    std::vector<char*> arguments;
    for (std::string& argument : self.arguments) arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    return 1;
}

class StartUpAlone : public StartUpFixture {
protected:
    Course alone(const TestBundle& bundle, const std::vector<std::string>& arguments,
                 std::map<std::string, std::string> environment = {}) {
        std::vector<std::string> all{bundle.program()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        ChildProcess process = ChildProcess::role("aloneRole", all,
                                                  {.environment = std::move(environment),
                                                   .standardError = home_.path() / "log",
                                                   .mounts = &mounts_,
                                                   .ownSession = true});
        return courseOf(process);
    }
};

TEST_F(StartUpAlone, AsksForNoConnectionAndNoThread) {
    markAsMigrated();
    const TestBundle timer = tool("Timer", kListed);
    const TestBundle agent = tool("Agent", kAgent);
    const std::string bus = "unix:path=" + (home_.path() / "bus").string();
    for (const TestBundle* one : {&timer, &agent}) {
        const Course course = alone(*one, {"no-loop"},
                                    {{"DBUS_SESSION_BUS_ADDRESS", bus},
                                     {"DISPLAY", ":7"},
                                     {"WAYLAND_DISPLAY", "wayland-7"}});
        EXPECT_THAT(course.lines, ElementsAre("main"));
        EXPECT_EQ(course.status, 7);
    }
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StartUpAlone, IsMeasuredByAFilterThatWorks) {
    // A line for the log looks for the journal.
    const TestBundle timer = tool("Timer", kListed);
    const Course course = alone(timer, {"no-loop"});
    EXPECT_THAT(course.lines, IsEmpty());
    EXPECT_EQ(course.status, 128 + SIGSYS);
}

// ---- under what looks at memory

TEST_F(StartUpAlone, IsCleanUnderValgrind) {
    allowOnly({"Timer"});
    const TestBundle timer = tool("Timer", kListed);
    for (const char* word : {"no-loop", "--turn-off"}) {
        SCOPED_TRACE(word);
        ChildProcess process = ChildProcess::program(
            "/usr/bin/valgrind",
            {"--quiet", "--error-exitcode=99", "--child-silent-after-fork=yes",
             "--log-file=" + (home_.path() / "valgrind").string(), timer.program(), word},
            {.standardError = home_.path() / "log", .mounts = &mounts_, .ownSession = true});
        const Course course = courseOf(process);
        ASSERT_FALSE(course.lines.empty());
        EXPECT_EQ(course.lines[0], "main");
        EXPECT_EQ(course.status, std::string(word) == "no-loop" ? 7 : 0);
    }
}

}  // namespace
}  // namespace utilia::test
