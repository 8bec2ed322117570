#include "Common/Platform/DistributedNotificationCenter.h"

#include <optional>
#include <string>
#include <vector>

#include "Tests/Support/ChildScript.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::platform {
namespace {

using test::ChildProcess;
using test::nextLineWith;
using test::PrivateBus;
using test::ScriptedChild;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kName = "com.example.suite.changed";
constexpr const char* kPatience = "60000";  // milliseconds; the bus is there
constexpr const char* kRule = "type='signal',interface='com.example.suite'";

class DistributedNotificationCenterTest : public testing::Test {
protected:
    ScriptedChild notifier() { return ScriptedChild(ChildProcess::role("notifier", {kPatience})); }

    // Whatever was on its way to the observer has arrived: one more post has.
    static void flushTo(ScriptedChild& observer, ScriptedChild& poster) {
        observer.ask("observe", {"com.example.suite.last", "last"});
        poster.ask("post", {"com.example.suite.last"});
        ASSERT_EQ(observer.ask("wait", {"last", "1"}), "1");
        observer.ask("end", {"last"});
    }
    void sendSignal(const std::vector<std::string>& arguments) {
        std::vector<std::string> all{"--bus=" + bus_.address(), "--type=signal"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        ASSERT_EQ(ChildProcess::program("/usr/bin/dbus-send", all).waitForExit(), 0);
    }

    test::TemporaryHome home_;
    PrivateBus bus_{home_.runtime() / "bus"};
};

TEST_F(DistributedNotificationCenterTest, APostIsASignalNamedByTheHalvesOfItsName) {
    auto monitor = bus_.monitor(kRule);
    auto poster = notifier();
    poster.ask("post", {kName});
    const std::string line = nextLineWith(monitor, "member=changed");
    EXPECT_THAT(line, HasSubstr("signal"));
    EXPECT_THAT(line, HasSubstr("interface=com.example.suite;"));
    EXPECT_THAT(line, HasSubstr("path=/com/example/suite;"));
    EXPECT_THAT(line, HasSubstr("destination=(null destination)"));
    poster.ask("post", {"com.example.suite.next"});
    EXPECT_THAT(monitor.waitForLine().value_or(""), HasSubstr("member=next"))
        << "the signal carried something";
    EXPECT_THAT(poster.log(), IsEmpty());
}

TEST_F(DistributedNotificationCenterTest, AnObserverInAnotherProcessHears) {
    auto observer = notifier();
    auto poster = notifier();
    observer.ask("observe", {kName, "first"});
    poster.ask("post", {kName});
    EXPECT_EQ(observer.ask("wait", {"first", "1"}), "1");
    poster.ask("post", {kName});
    EXPECT_EQ(observer.ask("wait", {"first", "2"}), "2");
    EXPECT_EQ(observer.ask("calls", {"first"}), "2");
    EXPECT_THAT(observer.log(), IsEmpty());
}

TEST_F(DistributedNotificationCenterTest, ThePosterHearsItselfButNotInsideThePost) {
    auto poster = notifier();
    poster.ask("observe", {kName, "own"});
    EXPECT_EQ(poster.ask("post-and-look", {kName, "own"}), "later");
    EXPECT_EQ(poster.ask("wait", {"own", "1"}), "1");
}

TEST_F(DistributedNotificationCenterTest, ObserversRunOnTheMainThreadWhereverTheyWereAdded) {
    auto observer = notifier();
    auto poster = notifier();
    observer.ask("observe-on-another-thread", {kName, "first"});
    poster.ask("post", {kName});
    EXPECT_EQ(observer.ask("wait", {"first", "1"}), "1");
    EXPECT_EQ(observer.ask("calls", {"first"}), "1");
}

TEST_F(DistributedNotificationCenterTest, EachObserverIsCalledAndOnlyForItsName) {
    auto observer = notifier();
    auto poster = notifier();
    observer.ask("observe", {kName, "first"});
    observer.ask("observe", {kName, "second"});
    observer.ask("observe", {"com.example.suite.other", "other member"});
    observer.ask("observe", {"com.example.other.changed", "other interface"});
    poster.ask("post", {kName});
    EXPECT_EQ(observer.ask("wait", {"first", "1"}), "1");
    EXPECT_EQ(observer.ask("wait", {"second", "1"}), "1");
    flushTo(observer, poster);
    EXPECT_EQ(observer.ask("calls", {"other member"}), "0");
    EXPECT_EQ(observer.ask("calls", {"other interface"}), "0");
}

TEST_F(DistributedNotificationCenterTest, AnEndedObserverIsNotCalledAndTheOthersAre) {
    auto observer = notifier();
    auto poster = notifier();
    observer.ask("observe", {kName, "ended"});
    observer.ask("observe", {kName, "other"});
    observer.ask("end", {"ended"});
    poster.ask("post", {kName});
    EXPECT_EQ(observer.ask("wait", {"other", "1"}), "1");
    EXPECT_EQ(observer.ask("calls", {"ended"}), "0");
    observer.ask("end", {"other"});
    poster.ask("post", {kName});
    flushTo(observer, poster);
    EXPECT_EQ(observer.ask("calls", {"other"}), "1");
    observer.ask("observe", {kName, "again"});
    poster.ask("post", {kName});
    EXPECT_EQ(observer.ask("wait", {"again", "1"}), "1");
}

TEST_F(DistributedNotificationCenterTest, AnObserverThatThrowsDoesNotKeepOthersFromHearing) {
    auto observer = notifier();
    auto poster = notifier();
    observer.ask("observe-and-throw", {kName});
    observer.ask("observe", {kName, "other"});
    poster.ask("post", {kName});
    EXPECT_EQ(observer.ask("wait", {"other", "1"}), "1");
    EXPECT_THAT(observer.log(),
                ElementsAre("An observer of com.example.suite.changed threw: observer"));
}

TEST_F(DistributedNotificationCenterTest, APosterThatEndsAtOnceIsHeard) {
    auto observer = notifier();
    for (int i = 1; i <= 50; ++i) {
        const std::string name = std::string(kName) + std::to_string(i);
        observer.ask("observe", {name, name});
        auto poster = ChildProcess::role("postAndExit", {name, kPatience});
        ASSERT_EQ(poster.waitForExit(), 0);
        ASSERT_EQ(observer.ask("wait", {name, "1"}), "1");
    }
}

TEST_F(DistributedNotificationCenterTest, SignalsThatAreNoNotificationsAreNotHeard) {
    auto observer = notifier();
    auto poster = notifier();
    observer.ask("observe", {kName, "first"});
    sendSignal({"/com/example/suite", kName, "string:with an argument"});
    sendSignal({"/com/example/suite", kName, "int32:1", "array:string:a,b"});
    sendSignal({"/", kName});
    const std::string large = "string:" + std::string(100'000, 'x');
    sendSignal({"/com/example/suite", kName, large, large, large, large, large, large, large});
    flushTo(observer, poster);
    EXPECT_EQ(observer.ask("calls", {"first"}), "0");
    sendSignal({"/com/example/suite", kName});
    EXPECT_EQ(observer.ask("wait", {"first", "1"}), "1");
    EXPECT_THAT(observer.log(), IsEmpty());
}

TEST_F(DistributedNotificationCenterTest, WhatIsNoNameIsRefusedWithOneLogLineEach) {
    auto poster = notifier();
    auto monitor = bus_.monitor("type='signal'");
    for (const char* name :
         {"", "nodots", "one.dot", "com.example.bad-member", "com..empty", "com.example.",
          ".com.example", "com.1digit.changed", "com.example.spa ce"}) {
        poster.ask("clear-log");
        poster.ask("post", {name});
        poster.ask("observe", {name, "nothing"});
        EXPECT_THAT(poster.log(),
                    ElementsAre("Distributed notifications: post " + std::string(name) +
                                    ": no name of a notification",
                                "Distributed notifications: observe " + std::string(name) +
                                    ": no name of a notification"));
    }
    poster.ask("post", {kName});
    std::vector<std::string> foreign;
    std::optional<std::string> line;
    while ((line = monitor.waitForLine()) && line->find("member=changed") == std::string::npos) {
        // A monitor is told of connections, and what its own start is known by.
        const bool isExpected =
            line->find("interface=org.freedesktop.DBus;") != std::string::npos ||
            line->find("interface=com.example.monitor;") != std::string::npos;
        if (line->find("interface=") != std::string::npos && !isExpected) foreign.push_back(*line);
    }
    EXPECT_TRUE(line) << "the monitor hears what has a name";
    EXPECT_THAT(foreign, IsEmpty());
}

TEST_F(DistributedNotificationCenterTest, ManyThreadsMayPost) {
    auto observer = notifier();
    auto poster = notifier();
    poster.ask("observe", {kName, "own"});
    observer.ask("observe", {kName, "first"});
    poster.ask("post-from-threads", {kName, "8", "4"});
    EXPECT_EQ(observer.ask("wait", {"first", "32"}), "32");
    EXPECT_EQ(poster.ask("wait", {"own", "32"}), "32");
}

}  // namespace
}  // namespace utilia::platform
