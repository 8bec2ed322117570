#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"

#include <tuple>

#include "Tests/Unit/Scheduler/SchedulerFixture.h"

namespace utilia {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kBundleId = "com.korvane.utilia.Clock";
constexpr const char* kName = "Clock";

using Enumerated =
    std::tuple<std::optional<std::string>, std::optional<std::string>, std::optional<Date>>;

class AgentSchedulerTest : public test::SchedulerFixture {
protected:
    static Dictionary clock(std::initializer_list<Dictionary::Entry> entries) {
        Dictionary record{{"bundleid", kBundleId}, {"name", kName}};
        for (const auto& [key, value] : entries) record.set(key, value);
        return record;
    }
    static std::vector<Enumerated> enumerated() {
        std::vector<Enumerated> all;
        AgentScheduler::enumerateTools(
            [&all](const auto& bundleId, const auto& name, const auto& date) {
                all.emplace_back(bundleId, name, date);
            });
        return all;
    }
};

TEST_F(AgentSchedulerTest, EnumeratesTheToolsToBeLaunchedAtADateInStoredOrder) {
    const Dictionary other{
        {"bundleid", "other"}, {"name", "Other"}, {"launchAtDate", true}, {"date", Date{2}}};
    store(Array{clock({{"launchAtDate", true}, {"date", Date{1.5}}, {"interval", 60.0}}), other});
    EXPECT_THAT(enumerated(), ElementsAre(Enumerated(kBundleId, kName, Date{1.5}),
                                          Enumerated("other", "Other", Date{2})));
}

TEST_F(AgentSchedulerTest, EnumeratingSkipsWhatIsNotToBeLaunchedEvenWithADate) {
    store(Array{clock({{"launchAtDate", false}, {"date", Date{1}}}), clock({{"date", Date{1}}}),
                clock({{"launchAtLogin", true}}), "no record", 7});
    EXPECT_THAT(enumerated(), IsEmpty());
}

TEST_F(AgentSchedulerTest, EnumeratingReadsTheFlagAsABooleanValue) {
    store(Array{clock({{"launchAtDate", 1}}), clock({{"launchAtDate", "YES"}}),
                clock({{"launchAtDate", 0}}), clock({{"launchAtDate", "no"}}),
                clock({{"launchAtDate", Array()}})});
    EXPECT_EQ(enumerated().size(), 2u);
}

TEST_F(AgentSchedulerTest, EnumeratingTellsWhatARecordLacks) {
    store(Array{Dictionary{{"launchAtDate", true}},
                Dictionary{{"launchAtDate", true}, {"bundleid", 1}, {"name", 2}, {"date", 3}}});
    const Enumerated nothing(std::nullopt, std::nullopt, std::nullopt);
    EXPECT_THAT(enumerated(), ElementsAre(nothing, nothing));
}

TEST_F(AgentSchedulerTest, WithoutRecordsNothingIsEnumerated) {
    EXPECT_THAT(enumerated(), IsEmpty());
    accessAppGroupPlist(
        [](platform::UserDefaults& suite) { suite.setObject("no array", "Scheduler"); });
    EXPECT_THAT(enumerated(), IsEmpty());
    AgentScheduler::enumerateTools(nullptr);
}

TEST_F(AgentSchedulerTest, TheBlockRunsAfterTheLockIsReleasedSoThatItMayCallBack) {
    store(Array{clock({{"launchAtDate", true}, {"date", Date{1}}}),
                Dictionary{{"bundleid", "other"}, {"name", "Other"}, {"launchAtDate", true}}});
    std::vector<std::string> seen;
    AgentScheduler::enumerateTools([&](const auto&, const auto& name, const auto&) {
        EXPECT_FALSE(isStoreLocked());
        seen.push_back(*name);
    });
    AgentScheduler::enumerateTools([&](const auto& bundleId, const auto& name, const auto&) {
        AgentScheduler::cancelScheduleByName(*name, *bundleId);
        AgentScheduler::cancelScheduleByName("Other", "other");
        EXPECT_FALSE(AgentScheduler::shouldLaunchAtLoginByName(*name, *bundleId));
        seen.push_back(*name);
    });
    EXPECT_THAT(seen, ElementsAre("Clock", "Other", "Clock", "Other"))
        << "what the block changes does not change what is enumerated";
    EXPECT_THAT(enumerated(), IsEmpty());
}

TEST_F(AgentSchedulerTest, CancellingKeepsTheRestBecauseAStartAtLoginIsNotCancelled) {
    store(Array{clock({{"launchAtDate", true},
                       {"date", Date{1}},
                       {"interval", 60.0},
                       {"launchAtLogin", true},
                       {"note", "kept"}})});
    AgentScheduler::cancelScheduleByName(kName, kBundleId);
    EXPECT_EQ(records(),
              (Array{clock({{"interval", 60.0}, {"launchAtLogin", true}, {"note", "kept"}})}));
}

TEST_F(AgentSchedulerTest, CancellingPostsNothingBecauseItIsTheAgentThatCancels) {
    auto agent = startTool();
    agent.ask("agent-at-date", {"1", kBundleId, kName});
    EXPECT_THAT(takePosts(), ElementsAre(kPosted));
    agent.ask("agent-cancel", {kName, kBundleId});
    EXPECT_THAT(takePosts(), IsEmpty());
    EXPECT_EQ(records(), (Array{clock({{"interval", 0}})}));
}

TEST_F(AgentSchedulerTest, CancellingWithoutARecordCreatesOneThatOnlyNamesTheTool) {
    AgentScheduler::cancelScheduleByName(kName, kBundleId);
    EXPECT_EQ(records(), (Array{clock({})}));
}

TEST_F(AgentSchedulerTest, SchedulingStoresTheIntegerZeroBecauseTheAgentRepeatsNothing) {
    AgentScheduler::scheduleToolAtDate(Date{1.5}, kBundleId, kName);
    EXPECT_EQ(records(),
              (Array{clock({{"launchAtDate", true}, {"date", Date{1.5}}, {"interval", 0}})}));
    EXPECT_EQ(records()[0].dictionary()->find("interval")->type(), Value::Type::Integer);
}

TEST_F(AgentSchedulerTest, SchedulingReplacesTheToolsOwnDateAndIntervalAndKeepsTheRest) {
    store(Array{clock({{"launchAtLogin", true}, {"date", Date{9}}, {"interval", 60.0}})});
    AgentScheduler::scheduleToolAtDate(Date{1}, kBundleId, kName);
    EXPECT_EQ(records(), (Array{clock({{"launchAtLogin", true},
                                       {"launchAtDate", true},
                                       {"date", Date{1}},
                                       {"interval", 0}})}));
}

TEST_F(AgentSchedulerTest, SchedulingPostsOnceAfterTheLockIsReleased) {
    auto agent = startTool();
    agent.ask("agent-at-date", {"1", kBundleId, kName});
    EXPECT_THAT(takePosts(), ElementsAre(kPosted));
}

TEST_F(AgentSchedulerTest, SchedulingTakesTheIdentifierFirstAndCancellingTheName) {
    AgentScheduler::scheduleToolAtDate(Date{1}, "identifier", "name");
    EXPECT_THAT(enumerated(), ElementsAre(Enumerated("identifier", "name", Date{1})));
    AgentScheduler::cancelScheduleByName("name", "identifier");
    EXPECT_THAT(enumerated(), IsEmpty());
    store(Array{Dictionary{{"bundleid", "identifier"}, {"name", "name"}, {"launchAtLogin", true}}});
    EXPECT_TRUE(AgentScheduler::shouldLaunchAtLoginByName("name", "identifier"));
    EXPECT_FALSE(AgentScheduler::shouldLaunchAtLoginByName("identifier", "name"));
}

TEST_F(AgentSchedulerTest, LaunchAtLoginIsTheFlagOfTheMatchingRecord) {
    EXPECT_FALSE(AgentScheduler::shouldLaunchAtLoginByName(kName, kBundleId));
    store(Array{clock({})});
    EXPECT_FALSE(AgentScheduler::shouldLaunchAtLoginByName(kName, kBundleId));
    store(Array{clock({{"launchAtLogin", true}})});
    EXPECT_TRUE(AgentScheduler::shouldLaunchAtLoginByName(kName, kBundleId));
    EXPECT_FALSE(AgentScheduler::shouldLaunchAtLoginByName("Clock.app", kBundleId));
    store(Array{clock({{"launchAtLogin", false}})});
    EXPECT_FALSE(AgentScheduler::shouldLaunchAtLoginByName(kName, kBundleId));
}

TEST_F(AgentSchedulerTest, UpgradingWithoutOldDataDoesNothing) {
    store(Array{clock({})});
    auto agent = startTool();
    agent.ask("upgrade");
    EXPECT_EQ(records(), (Array{clock({})}));
}

TEST_F(AgentSchedulerTest, UpgradingReplacesBecauseTheOldListIsTheWholeList) {
    store(Array{clock({})});
    auto agent = startTool();
    agent.ask("set-legacy", {"first", "second"});
    agent.ask("upgrade");
    EXPECT_EQ(records(),
              (Array{Dictionary{{"bundleid", "old"}, {"name", "first"}, {"launchAtDate", true}},
                     Dictionary{{"bundleid", "old"}, {"name", "second"}, {"launchAtDate", true}}}));
    EXPECT_EQ(agent.ask("has-legacy"), "no");
    EXPECT_THAT(takePosts(), IsEmpty());
}

TEST_F(AgentSchedulerTest, UpgradingWithAnEmptyListReplacesToo) {
    store(Array{clock({})});
    auto agent = startTool();
    agent.ask("set-legacy");
    agent.ask("upgrade");
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        EXPECT_EQ(suite.arrayForKey("Scheduler"), Array()) << "the key is there";
    });
    EXPECT_EQ(agent.ask("has-legacy"), "no");
}

TEST_F(AgentSchedulerTest, UpgradingLeavesWhatIsNoListAlone) {
    store(Array{clock({})});
    auto agent = startTool();
    agent.ask("set-legacy-text");
    agent.ask("upgrade");
    EXPECT_EQ(records(), (Array{clock({})}));
    EXPECT_EQ(agent.ask("has-legacy"), "yes");
}

TEST_F(AgentSchedulerTest, UpgradingHappensOnce) {
    auto agent = startTool();
    agent.ask("set-legacy", {"first"});
    agent.ask("upgrade");
    store(Array{clock({})});
    agent.ask("upgrade");
    EXPECT_EQ(records(), (Array{clock({})}));
}

TEST_F(AgentSchedulerTest, UpgradingKeepsTheOldDataWhenTheNewCannotBeWritten) {
    store(Array{clock({})});
    auto agent = startTool();
    agent.ask("set-legacy", {"first"});
    // In the place of the file that every write of the suite begins with.
    const auto obstacle =
        home_.groupContainer() / "Library/Preferences" / "7QK2M9ZD4R.com.korvane.utilia.plist.new";
    std::filesystem::create_directories(obstacle / "not empty");
    agent.ask("upgrade");
    EXPECT_EQ(agent.ask("has-legacy"), "yes");
    EXPECT_EQ(records(), (Array{clock({})}));
    std::filesystem::remove_all(obstacle);
    agent.ask("upgrade");
    EXPECT_EQ(agent.ask("has-legacy"), "no");
    EXPECT_EQ(records().size(), 1u);
}

}  // namespace
}  // namespace utilia
