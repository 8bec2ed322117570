#include <algorithm>
#include <fstream>
#include <optional>
#include <vector>

#include "Tests/Support/ChildScript.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/TemporaryHome.h"

// Buses that are missing, hang, end, come back, or belong to somebody else.

namespace utilia::platform {
namespace {

using test::ChildProcess;
using test::PrivateBus;
using test::ScriptedChild;
using testing::AllOf;
using testing::AnyOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace fs = std::filesystem;

constexpr const char* kName = "com.example.suite.changed";
constexpr int kPatience = 200;  // milliseconds
// Of who has a bus that is well, or must not wait although there is none that is: what a busy machine takes is far
// from it.
constexpr int kLongPatience = 40'000;
// What a loaded machine may add to that: the bus library itself gives up after 25 s.
constexpr int kLoaded = 15'000;

class NotificationBusFailure : public testing::Test {
protected:
    ScriptedChild notifier(const std::optional<std::string>& address = std::nullopt) {
        test::ChildProcessOptions options;
        if (address) options.environment["DBUS_SESSION_BUS_ADDRESS"] = *address;
        return ScriptedChild(ChildProcess::role("notifier", {}, options));
    }
    ScriptedChild patientNotifier(const std::optional<std::string>& address = std::nullopt) {
        auto child = notifier(address);
        makePatient(child);
        return child;
    }
    static void makePatient(ScriptedChild& child) {
        child.ask("set-patience", {std::to_string(kLongPatience)});
    }
    static int milliseconds(const std::string& answer) { return std::stoi(answer); }
    // Posts again and again until the observer "first" has been called that often.
    static bool isHeardSometime(ScriptedChild& poster, ScriptedChild& observer, int calls) {
        observer.tell("wait", {"first", std::to_string(calls)});
        for (int tries = 0; tries < 3000; ++tries) {
            poster.ask("post", {kName});
            if (const auto line = observer.process().waitForLine(std::chrono::milliseconds(20)))
                return std::stoi(*line) >= calls;
        }
        return false;
    }
    // Posts that waited would take the patience that they have from now on; and on the busiest machine one of ten is quick.
    static void expectNotToWait(ScriptedChild& poster, const std::string& command = "post") {
        makePatient(poster);
        int fastest = kLongPatience;
        for (int i = 0; i < 10; ++i) {
            const int taken = milliseconds(poster.ask(command, {kName}));
            EXPECT_LT(taken, kLongPatience / 2);
            fastest = std::min(fastest, taken);
        }
        EXPECT_LT(fastest, kPatience);
    }
    fs::path socket() const { return home_.runtime() / "bus"; }

    test::TemporaryHome home_;
};

TEST_F(NotificationBusFailure, WithoutABusAPostDoesNothingAndLoadsNothing) {
    auto poster = notifier();
    expectNotToWait(poster);
    EXPECT_EQ(poster.ask("is-loaded", {"Desktop.so"}), "no");
    EXPECT_EQ(poster.ask("is-loaded", {"libgio"}), "no");
    EXPECT_THAT(poster.log(), IsEmpty());
}

TEST_F(NotificationBusFailure, NoBusIsStarted) {
    auto poster = notifier("autolaunch:");
    expectNotToWait(poster);
    poster.ask("observe", {kName, "first"});
    EXPECT_EQ(poster.ask("is-loaded", {"Desktop.so"}), "no");
    EXPECT_THAT(poster.log(), IsEmpty());
    EXPECT_FALSE(fs::exists(home_.path() / ".dbus"));
}

TEST_F(NotificationBusFailure, ABusThatIsNamedButNotThereIsLoggedOnce) {
    auto poster = patientNotifier("unix:path=" + (home_.path() / "nowhere").string());
    for (int i = 0; i < 3; ++i) poster.ask("post", {kName});
    EXPECT_THAT(poster.log(), ElementsAre(AllOf(StartsWith("Distributed notifications: post "
                                                           "com.example.suite.changed: "),
                                                HasSubstr("No such file"))));
}

TEST_F(NotificationBusFailure, ABusThatHangsCostsOnePostItsPatienceAndOneLogLine) {
    PrivateBus bus(socket());
    bus.stop();
    auto poster = notifier();
    const int first = milliseconds(poster.ask("post", {kName}));
    EXPECT_GE(first, kPatience);
    EXPECT_LT(first, kPatience + kLoaded);
    expectNotToWait(poster);
    EXPECT_THAT(poster.log(), ElementsAre("Distributed notifications: post "
                                          "com.example.suite.changed: the bus does not answer"));
    poster.terminate();  // nor does it hold up the end
}

TEST_F(NotificationBusFailure, PostsOfOneNameThatWaitForTheBusBecomeOne) {
    PrivateBus bus(socket());
    auto observer = patientNotifier();
    observer.ask("observe", {kName, "first"});
    observer.ask("observe", {"com.example.suite.last", "last"});
    bus.stop();
    auto poster = notifier();
    for (int i = 0; i < 10; ++i) poster.ask("post", {kName});
    poster.ask("post", {"com.example.suite.last"});
    bus.resume();
    EXPECT_EQ(observer.ask("wait", {"last", "1"}), "1");
    // The first was on its way already.
    EXPECT_THAT(observer.ask("calls", {"first"}), AnyOf("1", "2"));
}

TEST_F(NotificationBusFailure, ABoundedNumberOfNamesWaitsForTheBus) {
    PrivateBus bus(socket());
    auto observer = patientNotifier();
    observer.ask("observe", {"com.example.suite.name1", "first"});
    observer.ask("observe", {"com.example.suite.name999", "last"});
    observer.ask("observe", {kName, "after"});
    bus.stop();
    auto poster = notifier();
    for (int i = 0; i < 1000; ++i)
        poster.ask("post", {"com.example.suite.name" + std::to_string(i)});
    bus.resume();
    EXPECT_EQ(observer.ask("wait", {"first", "1"}), "1");
    poster.ask("post", {kName});
    EXPECT_EQ(observer.ask("wait", {"after", "1"}), "1");
    EXPECT_EQ(observer.ask("calls", {"last"}), "0");
}

TEST_F(NotificationBusFailure, WhatWasPostedToABusThatHangsGoesOutWhenItGoesOn) {
    PrivateBus bus(socket());
    auto observer = patientNotifier();
    observer.ask("observe", {kName, "first"});
    bus.stop();
    auto poster = notifier();
    poster.ask("post", {kName});
    bus.resume();
    EXPECT_EQ(observer.ask("wait", {"first", "1"}), "1");
    makePatient(poster);
    poster.ask("observe", {kName, "own"});
    poster.ask("post", {kName});
    EXPECT_EQ(observer.ask("wait", {"first", "2"}), "2");
    EXPECT_EQ(poster.ask("wait", {"own", "1"}), "1");
}

TEST_F(NotificationBusFailure, WithAConnectionAPostNeedNotWaitForABusThatHangs) {
    PrivateBus bus(socket());
    auto observer = patientNotifier();
    auto poster = patientNotifier();
    observer.ask("observe", {kName, "first"});
    poster.ask("post", {kName});
    ASSERT_EQ(observer.ask("wait", {"first", "1"}), "1");
    bus.stop();
    expectNotToWait(poster);
    poster.process().kill();
    bus.resume();
    EXPECT_EQ(observer.ask("wait", {"first", "11"}), "11") << "the kernel keeps them for the bus";
}

TEST_F(NotificationBusFailure, AnObserverWaitsNoLongerForABusThatHangs) {
    PrivateBus bus(socket());
    bus.stop();
    auto observer = notifier();
    const int first = milliseconds(observer.ask("observe", {kName, "first"}));
    EXPECT_GE(first, kPatience);
    EXPECT_LT(first, kPatience + kLoaded);
    EXPECT_THAT(observer.log(), ElementsAre("Distributed notifications: observe "
                                            "com.example.suite.changed: the bus does not answer"));
    bus.resume();
    auto poster = patientNotifier();
    EXPECT_TRUE(isHeardSometime(poster, observer, 1)) << "its wish goes out now";
}

TEST_F(NotificationBusFailure, AnObserverHearsABusThatAppearsLater) {
    auto observer = notifier();
    observer.ask("observe", {kName, "first"});
    PrivateBus bus(socket());
    auto poster = patientNotifier();
    EXPECT_TRUE(isHeardSometime(poster, observer, 1)) << "it looks for a bus by itself";
}

TEST_F(NotificationBusFailure, BothSidesComeBackToABusThatIsStartedAgain) {
    std::optional<PrivateBus> bus(std::in_place, socket());
    auto observer = patientNotifier();
    auto poster = patientNotifier();
    observer.ask("observe", {kName, "first"});
    poster.ask("post", {kName});
    ASSERT_EQ(observer.ask("wait", {"first", "1"}), "1");
    bus.reset();
    poster.ask("post", {kName});
    bus.emplace(socket());
    EXPECT_TRUE(isHeardSometime(poster, observer, 2));
    EXPECT_TRUE(observer.process().isRunning()) << "the end of a bus is not the end of a process";
}

TEST_F(NotificationBusFailure, APosterAloneComesBackWithItsNextPost) {
    std::optional<PrivateBus> bus(std::in_place, socket());
    auto poster = patientNotifier();
    poster.ask("post", {kName});
    bus.reset();
    bus.emplace(socket());
    auto observer = patientNotifier();
    observer.ask("observe", {kName, "first"});
    poster.ask("post", {kName});
    EXPECT_EQ(observer.ask("wait", {"first", "1"}), "1");
    EXPECT_THAT(poster.log(), IsEmpty());
}

TEST_F(NotificationBusFailure, WhoListensButIsNoBusIsGivenUp) {
    std::ofstream(socket()) << "a file";
    auto poster = patientNotifier();
    poster.ask("post", {kName});
    EXPECT_THAT(poster.log(), ElementsAre(HasSubstr("onnect")));
}

TEST_F(NotificationBusFailure, TheBusOfAnotherUserIsNotUsed) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() != 0)
        FAIL() << "this test starts a bus as another user, which takes root (CAP_SETUID)";
    const test::TemporaryFolder folder("/tmp");
    fs::permissions(home_.path(),
                    fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    fs::permissions(folder.path(), fs::perms::all);
    PrivateBus bus(folder.path() / "bus", {.user = kNobody});
    auto monitor = bus.monitor("type='signal',interface='com.example.suite'");
    auto poster = patientNotifier(bus.address());
    poster.ask("post", {kName});
    EXPECT_THAT(poster.log(), ElementsAre(AllOf(HasSubstr("the bus at unix:path="),
                                                EndsWith("is not this user's"))));
    ChildProcess::program("/usr/bin/dbus-send", {"--bus=" + bus.address(), "--type=signal", "/",
                                                 "com.example.suite.last"})
        .waitForExit();
    EXPECT_THAT(monitor.waitForLine().value_or(""), HasSubstr("member=last"));
}

TEST_F(NotificationBusFailure, AForkedChildPostsNothingAndDoesNotWait) {
    PrivateBus bus(socket());
    auto poster = patientNotifier();
    poster.ask("observe", {kName, "first"});
    expectNotToWait(poster, "post-in-forked-child");
    poster.ask("observe", {"com.example.suite.last", "last"});
    poster.ask("post", {"com.example.suite.last"});
    EXPECT_EQ(poster.ask("wait", {"last", "1"}), "1");
    EXPECT_EQ(poster.ask("calls", {"first"}), "0");
}

TEST_F(NotificationBusFailure, RunningOutOfDescriptorsIsNotTheEndOfTheProcess) {
    PrivateBus bus(socket());
    auto poster = patientNotifier();
    ASSERT_EQ(poster.ask("is-loaded", {"Desktop.so"}), "no");
    poster.ask("observe", {"com.example", "loads the module"});
    poster.ask("clear-log");
    poster.ask("take-all-descriptors");
    poster.ask("post", {kName});
    EXPECT_THAT(poster.log(), ElementsAre(HasSubstr("Too many open files")));
    EXPECT_TRUE(poster.process().isRunning());
}

// A copy of this program beside a framework bundle of one's own.
class NotificationsModule : public testing::Test {
protected:
    NotificationsModule() {
        fs::create_directories(program().parent_path());
        fs::create_directories(modules());
        fs::copy_file(test::ownProgramPath(), program());
    }
    fs::path program() const { return folder_.path() / "bin" / "program"; }
    fs::path modules() const {
        return folder_.path() / "lib" / "UtiliaCommon.framework" / "Modules";
    }
    // The log after several attempts, of which none may take time.
    std::vector<std::string> logOfAttempts() {
        ScriptedChild child(ChildProcess::role("notifier", {std::to_string(kLongPatience)},
                                               {.program = program().string()}));
        child.ask("observe", {kName, "first"});
        child.ask("end", {"first"});
        for (int i = 0; i < 10; ++i)
            EXPECT_LT(std::stoi(child.ask("post", {kName})), kLongPatience / 2);
        return child.log();
    }

    test::TemporaryHome home_;
    PrivateBus bus_{home_.runtime() / "bus"};
    test::TemporaryFolder folder_;
};

TEST_F(NotificationsModule, OfAFloodABoundedNumberOfCallsWaitsForABusyMainLoop) {
    // Each post is heard a thousand times at once.
    fs::copy_file(test::places::kFloodingModule, modules() / "Desktop.so");
    ScriptedChild child(ChildProcess::role("notifier", {}, {.program = program().string()}));
    child.ask("observe", {kName, "first"});
    EXPECT_EQ(child.ask("post-and-look", {kName, "first"}), "later");
    EXPECT_EQ(child.ask("wait", {"first", "64"}), "64");
    EXPECT_EQ(child.ask("post-and-look", {kName, "first"}), "later");
    EXPECT_EQ(child.ask("wait", {"first", "128"}), "128");
    EXPECT_EQ(child.ask("calls", {"first"}), "128");
}

TEST_F(NotificationsModule, WithoutItNothingIsPostedAndThatIsLoggedOnce) {
    EXPECT_THAT(logOfAttempts(),
                ElementsAre(AllOf(StartsWith("Distributed notifications: module Desktop: "),
                                  HasSubstr("Desktop.so"))));
}

TEST_F(NotificationsModule, OfAnotherVersionCannotBeUsed) {
    fs::copy_file(test::places::kForeignModule, modules() / "Desktop.so");
    EXPECT_THAT(logOfAttempts(), ElementsAre("Distributed notifications: module Desktop: version "
                                             "999 instead of 1"));
}

}  // namespace
}  // namespace utilia::platform
