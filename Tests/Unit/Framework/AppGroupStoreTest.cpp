#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using platform::UserDefaults;

const char* const kBundleId = "com.korvane.utilia.Clock";
const char* const kName = "Clock";

class AppGroupStore : public testing::Test {
protected:
    static void store(Value records) {
        accessAppGroupPlist(
            [&](UserDefaults& suite) { suite.setObject(std::move(records), "Scheduler"); });
    }
    static Array records() {
        Array all;
        accessAppGroupPlist(
            [&](UserDefaults& suite) { all = suite.arrayForKey("Scheduler").value_or(Array()); });
        return all;
    }
    static Dictionary record(const char* bundleId, const char* name, const char* note = nullptr) {
        Dictionary result{{"bundleid", bundleId}, {"name", name}};
        if (note) result.set("note", note);
        return result;
    }
    fs::path suiteFile() const {
        return home_.groupContainer() / "Library/Preferences/7QK2M9ZD4R.com.korvane.utilia.plist";
    }

    static std::string content(const fs::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    // Puts a file in the suite's place, as another release may have left it.
    void installSuite(const char* name) const {
        fs::create_directories(suiteFile().parent_path());
        fs::copy_file(fs::path(test::places::kTestData) / name, suiteFile());
    }

    test::TemporaryHome home_;
    test::TestLog log_;
};

TEST_F(AppGroupStore, NamesAreTheAgreedOnes) {
    EXPECT_EQ(kAppGroupIdentifier, "7QK2M9ZD4R.com.korvane.utilia");
    EXPECT_EQ(kSchedulerKey, "Scheduler");
    EXPECT_EQ(kSchedulerBundleIdKey, "bundleid");
    EXPECT_EQ(kSchedulerNameKey, "name");
    EXPECT_EQ(kSchedulerLaunchAtDateKey, "launchAtDate");
    EXPECT_EQ(kSchedulerDateKey, "date");
    EXPECT_EQ(kSchedulerIntervalKey, "interval");
    EXPECT_EQ(kSchedulerLaunchAtLoginKey, "launchAtLogin");
}

TEST_F(AppGroupStore, SuiteLiesInTheGroupContainer) {
    accessAppGroupPlist([&](UserDefaults& suite) {
        EXPECT_EQ(suite.path(), suiteFile().string());
        suite.setObject(1, "key");
    });
    EXPECT_TRUE(fs::exists(suiteFile()));
}

TEST_F(AppGroupStore, EveryAccessHasAFreshViewThatSeesTheLastOne) {
    accessAppGroupPlist([](UserDefaults& suite) { suite.setObject("set", "key"); });
    accessAppGroupPlist([](UserDefaults& suite) { EXPECT_EQ(suite.stringForKey("key"), "set"); });
}

TEST_F(AppGroupStore, EmptyBlockIsNoFailure) {
    accessAppGroupPlist(nullptr);
    accessAppGroupPlist([](UserDefaults&) {});
    assertAppInAppGroup();
    EXPECT_EQ(log_.lines(), std::vector<std::string>{});
}

TEST_F(AppGroupStore, LockIsGivenUpWhenTheBlockThrows) {
    EXPECT_THROW(accessAppGroupPlist([](UserDefaults&) { throw std::runtime_error("block"); }),
                 std::runtime_error);
    bool ran = false;
    accessAppGroupPlist([&](UserDefaults&) { ran = true; });
    EXPECT_TRUE(ran);
}

TEST_F(AppGroupStore, ReadWithoutMatchLeavesTheCallersDefault) {
    int calls = 0;
    readSchedulerPlist(kBundleId, kName, [&](const Dictionary&) { ++calls; });
    store(Array{record("com.korvane.utilia.Other", kName), record(kBundleId, "Other"),
                record("com.korvane.utilia.clock", kName), record(kBundleId, "Clock.app"),
                Dictionary{{"bundleid", kBundleId}}, Dictionary{{"name", kName}}});
    readSchedulerPlist(kBundleId, kName, [&](const Dictionary&) { ++calls; });
    EXPECT_EQ(calls, 0);
}

TEST_F(AppGroupStore, ReadsTheFirstMatchOnly) {
    store(Array{record("other", "other"), record(kBundleId, kName, "first"),
                record(kBundleId, kName, "second")});
    std::vector<std::string> notes;
    readSchedulerPlist(kBundleId, kName, [&](const Dictionary& found) {
        notes.push_back(found.string("note").value_or("none"));
    });
    EXPECT_EQ(notes, std::vector<std::string>{"first"});
    readSchedulerPlist(kBundleId, kName, nullptr);
}

TEST_F(AppGroupStore, NamesAreComparedToTheLetter) {
    store(Array{record(kBundleId, "Caf\u00e9")});
    int calls = 0;
    readSchedulerPlist(kBundleId, "Cafe\u0301", [&](const Dictionary&) { ++calls; });
    EXPECT_EQ(calls, 0);
    readSchedulerPlist(kBundleId, "Caf\u00e9", [&](const Dictionary&) { ++calls; });
    EXPECT_EQ(calls, 1);
}

TEST_F(AppGroupStore, UpdateOfAnUnknownToolCreatesItsRecord) {
    updateSchedulerPlist(kBundleId, kName, [](Dictionary& record) {
        EXPECT_EQ(record, (Dictionary{{"bundleid", kBundleId}, {"name", kName}}))
            << "both are set before the block runs";
        record.set("launchAtLogin", true);
    });
    EXPECT_EQ(
        records(),
        (Array{Dictionary{{"bundleid", kBundleId}, {"name", kName}, {"launchAtLogin", true}}}));
}

TEST_F(AppGroupStore, UpdateWithoutBlockCreatesAndMovesToo) {
    updateSchedulerPlist("a", "A", nullptr);
    updateSchedulerPlist("b", "B", nullptr);
    updateSchedulerPlist("a", "A", nullptr);
    EXPECT_EQ(records(), (Array{record("b", "B"), record("a", "A")}));
}

TEST_F(AppGroupStore, UpdateMovesTheRecordToTheEnd) {
    store(Array{record("a", "A"), record(kBundleId, kName, "old"), record("b", "B")});
    updateSchedulerPlist(kBundleId, kName, [](Dictionary& found) { found.set("note", "new"); });
    EXPECT_EQ(records(),
              (Array{record("a", "A"), record("b", "B"), record(kBundleId, kName, "new")}));
}

TEST_F(AppGroupStore, UpdateKeepsWhatTheBlockDoesNotTouch) {
    const Date date{123456.789};
    Dictionary old = record(kBundleId, kName);
    old.set("date", date);
    old.set("interval", 0.5);
    old.set("launchAtDate", true);
    old.set("of another release", Array{1, Data{2}, "three"});
    store(Array{old});
    updateSchedulerPlist(kBundleId, kName, [](Dictionary& found) {
        found.set("interval", 0);
        found.remove("launchAtDate");
    });
    Dictionary expected = old;
    expected.set("interval", 0);
    expected.remove("launchAtDate");
    EXPECT_EQ(records(), Array{expected}) << "types and the fraction of the date included";
}

TEST_F(AppGroupStore, OnlyTheFirstOfTwoDifferentRecordsIsMerged) {
    store(Array{record(kBundleId, kName, "first"), record(kBundleId, kName, "second"),
                record("b", "B")});
    updateSchedulerPlist(kBundleId, kName, [](Dictionary& found) {
        EXPECT_EQ(found.string("note"), "first");
        found.set("note", "updated");
    });
    EXPECT_EQ(records(), (Array{record(kBundleId, kName, "second"), record("b", "B"),
                                record(kBundleId, kName, "updated")}));
    readSchedulerPlist(kBundleId, kName, [](const Dictionary& found) {
        EXPECT_EQ(found.string("note"), "second") << "found before the updated one";
    });
}

TEST_F(AppGroupStore, RecordsEqualToTheOldOneGoWithIt) {
    // Equal entry by entry, whatever their order.
    const Dictionary turned{{"note", "same"}, {"name", kName}, {"bundleid", kBundleId}};
    store(Array{record(kBundleId, kName, "same"), record("b", "B"), turned,
                record(kBundleId, kName, "same")});
    updateSchedulerPlist(kBundleId, kName, [](Dictionary& found) { found.set("note", "new"); });
    EXPECT_EQ(records(), (Array{record("b", "B"), record(kBundleId, kName, "new")}));
}

TEST_F(AppGroupStore, BlockMayRenameTheRecord) {
    store(Array{record(kBundleId, kName)});
    updateSchedulerPlist(kBundleId, kName, [](Dictionary& found) {
        found.set("bundleid", "com.korvane.utilia.New");
        found.remove("name");
    });
    EXPECT_EQ(records(), (Array{Dictionary{{"bundleid", "com.korvane.utilia.New"}}}));
}

TEST_F(AppGroupStore, ElementsThatAreNoRecordsSurvive) {
    const Array junk{"text",
                     7,
                     Array{record(kBundleId, kName)},
                     Data{1, 2},
                     true,
                     Date{5},
                     Dictionary{{"bundleid", 4}, {"name", kName}},
                     Dictionary{}};
    Array all = junk;
    all.append(record(kBundleId, kName, "old"));
    store(all);
    updateSchedulerPlist(kBundleId, kName, [](Dictionary& found) { found.set("note", "new"); });
    Array expected = junk;
    expected.append(record(kBundleId, kName, "new"));
    EXPECT_EQ(records(), expected);
}

TEST_F(AppGroupStore, RecordsOfAnotherTypeThanAnArrayReadAsEmpty) {
    store("no array");
    int calls = 0;
    readSchedulerPlist(kBundleId, kName, [&](const Dictionary&) { ++calls; });
    EXPECT_EQ(calls, 0);
    updateSchedulerPlist(kBundleId, kName, nullptr);
    EXPECT_EQ(records(), Array{record(kBundleId, kName)});
}

TEST_F(AppGroupStore, OtherKeysOfTheSuiteAreLeftAlone) {
    accessAppGroupPlist([](UserDefaults& suite) {
        suite.setObject(Dictionary{{"a", 1}}, "ToolPersistentData");
        suite.setObject(Array{"com.korvane.utilia.Clock"}, "ToolsSuggestionsPausedBy");
    });
    updateSchedulerPlist(kBundleId, kName, nullptr);
    accessAppGroupPlist([](UserDefaults& suite) {
        EXPECT_EQ(suite.dictionaryForKey("ToolPersistentData"), (Dictionary{{"a", 1}}));
        EXPECT_EQ(suite.arrayForKey("ToolsSuggestionsPausedBy"), Array{"com.korvane.utilia.Clock"});
    });
}

TEST_F(AppGroupStore, BlockRunsUnlockedWhenThereIsAFileInTheContainersPlace) {
    fs::create_directories(home_.groupContainer().parent_path());
    std::ofstream(home_.groupContainer()) << "in the way";
    int calls = 0;
    accessAppGroupPlist([&](UserDefaults& suite) {
        ++calls;
        EXPECT_EQ(suite.arrayForKey("Scheduler"), std::nullopt);
        suite.setObject(1, "key");
    });
    updateSchedulerPlist(kBundleId, kName, [&](Dictionary&) { ++calls; });
    readSchedulerPlist(kBundleId, kName, [&](const Dictionary&) { ++calls; });
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(fs::is_regular_file(home_.groupContainer()));
}

TEST_F(AppGroupStore, WritesTheDocumentedExample) {
    updateSchedulerPlist(kBundleId, kName, [](Dictionary& record) {
        record.set("launchAtDate", true);
        record.set("date", Date{796'000'000.5});
        record.set("interval", 86'400.0);
    });
    EXPECT_EQ(content(suiteFile()),
              content(fs::path(test::places::kTestData) / "scheduler-records.plist"));
}

TEST_F(AppGroupStore, ReadsTheDocumentedExample) {
    installSuite("scheduler-records.plist");
    std::optional<Dictionary> found;
    readSchedulerPlist(kBundleId, kName, [&](const Dictionary& record) { found = record; });
    EXPECT_EQ(found, (Dictionary{{"bundleid", kBundleId},
                                 {"name", kName},
                                 {"launchAtDate", true},
                                 {"date", Date{796'000'000.5}},
                                 {"interval", 86'400.0}}));
}

TEST_F(AppGroupStore, ProgramWithoutBundleHasNoScheduleOfItsOwn) {
    int calls = 0;
    updateSchedulerForThisTool([&](Dictionary&) { ++calls; });
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(log_.lines(),
              std::vector<std::string>{
                  "This program has no bundle identifier, so it has no schedule of its own."});
}

}  // namespace
}  // namespace utilia
