#include "Common/UtiliaCommon/Scheduler/ToolScheduler.h"

#include "Common/Platform/PropertyListSerialization.h"
#include "Tests/Unit/Scheduler/SchedulerFixture.h"

namespace utilia {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ToolSchedulerTest : public test::SchedulerFixture {
protected:
    // The tool's own record with these entries.
    static Dictionary own(std::initializer_list<Dictionary::Entry> entries) {
        Dictionary record{{"bundleid", "com.korvane.utilia.clip"}, {"name", "Clipboard History"}};
        for (const auto& [key, value] : entries) record.set(key, value);
        return record;
    }
    // The store's records at the moment of the last post.
    Array recordsWhenPosted() const {
        std::ifstream file(home_.path() / "store-when-posted", std::ios::binary);
        const Data bytes(std::istreambuf_iterator<char>(file), {});
        const auto store = platform::propertyListFromData(bytes);
        return store && store->dictionary()
                   ? store->dictionary()->array("Scheduler").value_or(Array())
                   : Array();
    }

    test::ScriptedChild self_ = startTool();
};

TEST_F(ToolSchedulerTest, WritesItsOwnRecordUnderItsFileNameWithoutExtension) {
    self_.ask("tool-at-login", {"yes"});
    EXPECT_EQ(records(), (Array{own({{"launchAtLogin", true}})}));
}

TEST_F(ToolSchedulerTest, SchedulingAtLoginPostsNothingBecauseTheAgentLooksWhenItNeedsToKnow) {
    self_.ask("tool-at-login", {"yes"});
    self_.ask("tool-at-login", {"no"});
    EXPECT_EQ(records(), (Array{own({{"launchAtLogin", false}})})) << "the flag stays, as no";
    EXPECT_THAT(takePosts(), IsEmpty());
}

TEST_F(ToolSchedulerTest, SchedulingAtADateStoresARealAlsoWhenItIsWholeBecauseItIsATime) {
    self_.ask("tool-at-date", {"700000000.25", "86400"});
    EXPECT_EQ(
        records(),
        (Array{
            own({{"launchAtDate", true}, {"date", Date{700'000'000.25}}, {"interval", 86400.0}})}));
    self_.ask("tool-at-date", {"700000000.25", "0"});
    EXPECT_EQ(
        records(),
        (Array{own({{"launchAtDate", true}, {"date", Date{700'000'000.25}}, {"interval", 0.0}})}))
        << "an integer 0 would be the agent's";
}

TEST_F(ToolSchedulerTest, SchedulingAtADatePostsOnceAfterTheRecordIsWrittenAndTheLockReleased) {
    self_.ask("tool-at-date", {"700000000", "60"});
    EXPECT_THAT(takePosts(), ElementsAre(kPosted));
    EXPECT_EQ(recordsWhenPosted(), records());
    EXPECT_EQ(recordsWhenPosted().size(), 1u);
}

TEST_F(ToolSchedulerTest, CancellingKeepsDateAndIntervalBecauseTheFlagDecidesAndPostsOnce) {
    self_.ask("tool-at-date", {"700000000", "60"});
    takePosts();
    self_.ask("tool-cancel");
    EXPECT_EQ(
        records(),
        (Array{own({{"launchAtDate", false}, {"date", Date{700'000'000}}, {"interval", 60.0}})}));
    EXPECT_THAT(takePosts(), ElementsAre(kPosted));
    EXPECT_EQ(recordsWhenPosted(), records());
}

TEST_F(ToolSchedulerTest, CancellingWithoutARecordCreatesOneThatSaysNo) {
    self_.ask("tool-cancel");
    EXPECT_EQ(records(), (Array{own({{"launchAtDate", false}})}));
    EXPECT_THAT(takePosts(), ElementsAre(kPosted));
}

TEST_F(ToolSchedulerTest, EachChangeKeepsTheRestOfTheRecord) {
    store(Array{own({{"note", "somebody else's"}, {"launchAtLogin", true}})});
    self_.ask("tool-at-date", {"700000000", "1.5"});
    self_.ask("tool-cancel");
    EXPECT_EQ(records(), (Array{own({{"note", "somebody else's"},
                                     {"launchAtLogin", true},
                                     {"launchAtDate", false},
                                     {"date", Date{700'000'000}},
                                     {"interval", 1.5}})}));
}

TEST_F(ToolSchedulerTest, EachChangeMovesTheRecordBehindThoseOfOtherTools) {
    const Dictionary other{{"bundleid", "other"}, {"name", "Other"}};
    store(Array{own({}), other});
    self_.ask("tool-at-login", {"yes"});
    EXPECT_EQ(records(), (Array{other, own({{"launchAtLogin", true}})}));
}

TEST_F(ToolSchedulerTest, ADateThatNoStoreCanHoldChangesNothing) {
    store(Array{own({{"launchAtLogin", true}})});
    self_.ask("tool-at-date", {"nan", "60"});
    EXPECT_EQ(records(), (Array{own({{"launchAtLogin", true}})}));
    EXPECT_EQ(self_.log().size(), 1u);
}

}  // namespace
}  // namespace utilia
