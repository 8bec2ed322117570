#include <array>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "Common/Platform/UniqueFd.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia {
namespace {

using platform::UserDefaults;
using test::ScriptedChild;
using test::TestBundle;
using testing::IsEmpty;

constexpr const char* kKey = "ToolsSuggestionsPausedBy";

class SuggestionsPause : public testing::Test {
protected:
    // Empty without the key.
    static std::optional<Array> stored() {
        std::optional<Array> list;
        accessAppGroupPlist([&list](UserDefaults& suite) { list = suite.arrayForKey(kKey); });
        return list;
    }
    static void store(Value list) {
        accessAppGroupPlist(
            [&list](UserDefaults& suite) { suite.setObject(std::move(list), kKey); });
    }
    TestBundle bundle(const std::string& name) const {
        return TestBundle(home_, {.name = name, .bundleIdentifier = "com.example." + name});
    }

    // How often the store's file is replaced, or written in place, while the work is done.
    int writes(const std::function<void()>& work) const {
        const auto folder = home_.groupContainer() / "Library/Preferences";
        std::filesystem::create_directories(folder);
        const platform::UniqueFd events(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        inotify_add_watch(events.get(), folder.c_str(), IN_MOVED_TO | IN_MODIFY | IN_DELETE);
        work();
        int count = 0;
        alignas(inotify_event) std::array<char, 65536> buffer;
        const ssize_t size = read(events.get(), buffer.data(), buffer.size());
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(&buffer[std::size_t(at)]);
            count +=
                event->len > 0 && event->name == std::string("7QK2M9ZD4R.com.korvane.utilia.plist");
            at += static_cast<ssize_t>(sizeof *event + event->len);
        }
        return count;
    }

    test::TemporaryHome home_;
    test::TestLog log_;
    CommonAuxiliary auxiliary_;
};

TEST_F(SuggestionsPause, ToolsAreListedInTheOrderOfTheirAsking) {
    auxiliary_.pauseToolsSuggestions(true, "second");
    auxiliary_.pauseToolsSuggestions(true, "first");
    EXPECT_EQ(stored(), (Array{"second", "first"}));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(SuggestionsPause, AskingTwiceKeepsOneEntryAndItsPlaceAndWritesOnce) {
    auxiliary_.pauseToolsSuggestions(true, "a");
    auxiliary_.pauseToolsSuggestions(true, "b");
    EXPECT_EQ(writes([&] { auxiliary_.pauseToolsSuggestions(true, "a"); }), 0);
    EXPECT_EQ(stored(), (Array{"a", "b"}));
}

TEST_F(SuggestionsPause, TakingBackTheLastLeavesAnEmptyListBecauseOnlyAQueryRemovesTheKey) {
    auxiliary_.pauseToolsSuggestions(true, "a");
    auxiliary_.pauseToolsSuggestions(true, "b");
    EXPECT_EQ(writes([&] { auxiliary_.pauseToolsSuggestions(false, "a"); }), 1);
    EXPECT_EQ(stored(), Array{"b"});
    EXPECT_EQ(writes([&] { auxiliary_.pauseToolsSuggestions(false, "b"); }), 1);
    EXPECT_EQ(stored(), Array()) << "the key stays";
}

TEST_F(SuggestionsPause, TakingBackWhatWasNotAskedForWritesNothing) {
    EXPECT_EQ(writes([&] { auxiliary_.pauseToolsSuggestions(false, "a"); }), 0);
    EXPECT_EQ(stored(), std::nullopt);
    auxiliary_.pauseToolsSuggestions(true, "b");
    EXPECT_EQ(writes([&] { auxiliary_.pauseToolsSuggestions(false, "a"); }), 0);
    EXPECT_EQ(stored(), Array{"b"});
}

TEST_F(SuggestionsPause, IdentifiersAreComparedToTheLetter) {
    auxiliary_.pauseToolsSuggestions(true, "com.example.a");
    auxiliary_.pauseToolsSuggestions(true, "com.example.A");
    auxiliary_.pauseToolsSuggestions(false, "com.example.");
    EXPECT_EQ(stored(), (Array{"com.example.a", "com.example.A"}));
}

TEST_F(SuggestionsPause, OfTwoEqualEntriesTheFirstIsRemoved) {
    store(Array{"a", "b", "a"});
    auxiliary_.pauseToolsSuggestions(false, "a");
    EXPECT_EQ(stored(), (Array{"b", "a"}));
}

TEST_F(SuggestionsPause, WhatIsNoIdentifierIsKeptByAChangeAndDroppedByAQuery) {
    store(Array{7, "a"});
    auxiliary_.pauseToolsSuggestions(true, "b");
    EXPECT_EQ(stored(), (Array{7, "a", "b"}));
    EXPECT_FALSE(auxiliary_.areToolsSuggestionsPaused());
    EXPECT_EQ(stored(), std::nullopt);
    store("no list");
    EXPECT_FALSE(auxiliary_.areToolsSuggestionsPaused());
    auxiliary_.pauseToolsSuggestions(true, "b");
    EXPECT_EQ(stored(), Array{"b"});
}

TEST_F(SuggestionsPause, WithoutAnEntryAQueryAnswersNoAndWritesNothing) {
    accessAppGroupPlist([](UserDefaults& suite) { suite.setObject(1, "other"); });
    EXPECT_EQ(writes([&] { EXPECT_FALSE(auxiliary_.areToolsSuggestionsPaused()); }), 0);
    store(Array());
    EXPECT_EQ(writes([&] { EXPECT_FALSE(auxiliary_.areToolsSuggestionsPaused()); }), 0);
    EXPECT_EQ(stored(), Array()) << "an empty list is left as it is";
}

TEST_F(SuggestionsPause, AQueryDropsTheToolsThatDoNotRunAndWritesOnlyThen) {
    const TestBundle running = bundle("Running");
    ScriptedChild child(running.role("auxiliary"));
    store(Array{"com.example.Quit", "com.example.Running"});
    EXPECT_EQ(writes([&] { EXPECT_TRUE(auxiliary_.areToolsSuggestionsPaused()); }), 1);
    EXPECT_EQ(stored(), Array{"com.example.Running"});
    EXPECT_EQ(writes([&] { EXPECT_TRUE(auxiliary_.areToolsSuggestionsPaused()); }), 0)
        << "nothing has changed";
    child.terminate();
    EXPECT_EQ(writes([&] { EXPECT_FALSE(auxiliary_.areToolsSuggestionsPaused()); }), 1);
    EXPECT_EQ(stored(), std::nullopt) << "the key is removed, not emptied";
}

TEST_F(SuggestionsPause, TheToolsThatRunKeepTheirOrder) {
    const TestBundle first = bundle("First");
    const TestBundle second = bundle("Second");
    ScriptedChild firstTool(first.role("auxiliary"));
    ScriptedChild secondTool(second.role("auxiliary"));
    store(Array{"com.example.Second", "com.example.Quit", "com.example.First"});
    EXPECT_TRUE(auxiliary_.areToolsSuggestionsPaused());
    EXPECT_EQ(stored(), (Array{"com.example.Second", "com.example.First"}));
}

TEST_F(SuggestionsPause, AToolThatIsKilledIsForgottenByTheNextQuery) {
    const TestBundle tool = bundle("Tool");
    const TestBundle agent = bundle("Agent");
    ScriptedChild paused(tool.role("auxiliary"));
    ScriptedChild asking(agent.role("auxiliary"));
    paused.ask("pause", {"com.example.Tool"});
    EXPECT_EQ(asking.ask("are-paused"), "yes");
    paused.process().kill();
    EXPECT_EQ(stored(), Array{"com.example.Tool"}) << "until somebody asks";
    EXPECT_EQ(asking.ask("are-paused"), "no");
    EXPECT_EQ(stored(), std::nullopt);
}

TEST_F(SuggestionsPause, AToolThatRunsAsSeveralProcessesCountsOnce) {
    const TestBundle tool = bundle("Tool");
    auto first = tool.role("runningProcess");
    auto second = tool.role("runningProcess");
    ASSERT_EQ(first.waitForLine(), "running");
    ASSERT_EQ(second.waitForLine(), "running");
    auxiliary_.pauseToolsSuggestions(true, "com.example.Tool");
    EXPECT_TRUE(auxiliary_.areToolsSuggestionsPaused());
    EXPECT_EQ(stored(), Array{"com.example.Tool"});
    first.kill();
    EXPECT_TRUE(auxiliary_.areToolsSuggestionsPaused()) << "one of them still runs";
    second.kill();
    EXPECT_FALSE(auxiliary_.areToolsSuggestionsPaused());
}

TEST_F(SuggestionsPause, WhoAsksMayBeTheToolItself) {
    const TestBundle tool = bundle("Tool");
    ScriptedChild child(tool.role("auxiliary"));
    child.ask("pause", {"com.example.Tool"});
    EXPECT_EQ(child.ask("are-paused"), "yes");
}

TEST_F(SuggestionsPause, ToolsAndAgentAtTheSameTimeLoseNothing) {
    constexpr int kTools = 4;
    std::vector<TestBundle> bundles;
    bundles.reserve(kTools);
    std::vector<ScriptedChild> tools;
    tools.reserve(kTools);
    for (int i = 0; i < kTools; ++i) {
        bundles.push_back(bundle("Tool" + std::to_string(i)));
        tools.emplace_back(bundles.back().role("auxiliary"));
    }
    for (int i = 0; i < kTools; ++i)
        tools.at(static_cast<std::size_t>(i))
            .tell("pause-and-resume", {"com.example.Tool" + std::to_string(i), "25"});
    for (int i = 0; i < 25; ++i) auxiliary_.areToolsSuggestionsPaused();
    for (auto& tool : tools) tool.answer();
    EXPECT_TRUE(auxiliary_.areToolsSuggestionsPaused());
    EXPECT_EQ(stored().value_or(Array()).size(), static_cast<std::size_t>(kTools));
}

}  // namespace
}  // namespace utilia
