#include "Common/UtiliaCommon/Resources/SharedResource.h"

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/Places.h"
#include "Tests/Unit/Resources/ResourceFixture.h"

namespace utilia {
namespace {

using platform::UserDefaults;

constexpr const char* kBundleId = "com.korvane.utilia.clock";

std::optional<Value> stored(std::string_view key = kResourcesKey) {
    std::optional<Value> value;
    accessAppGroupPlist([&](UserDefaults& suite) { value = suite.objectForKey(key); });
    return value;
}

void store(Value value, std::string_view key = kResourcesKey) {
    accessAppGroupPlist([&](UserDefaults& suite) { suite.setObject(std::move(value), key); });
}

class SharedResources : public testing::Test {
protected:
    const test::TemporaryHome home_{test::folderInMemory()};
    test::TestLog log_;
    const SharedResource resource_{"converter", kBundleId};
};

TEST_F(SharedResources, KnowTheirNames) {
    EXPECT_EQ(resource_.name(), "converter");
    EXPECT_EQ(resource_.bundleId(), kBundleId);
    EXPECT_EQ(stored(), std::nullopt) << "making one touches nothing";
}

TEST_F(SharedResources, HaveNothingInAFreshStore) {
    EXPECT_EQ(resource_.path(), std::nullopt);
    EXPECT_EQ(resource_.version(), std::nullopt);
    EXPECT_EQ(resource_.getValueForKey("ResourcePath"), std::nullopt);
    EXPECT_EQ(stored(), std::nullopt) << "reading makes no record";
}

TEST_F(SharedResources, MakeTheWholeWayToAField) {
    resource_.setPath("/a/b");
    EXPECT_EQ(stored(),
              Value(Dictionary{
                  {kBundleId, Dictionary{{"converter", Dictionary{{"ResourcePath", "/a/b"}}}}}}));
    EXPECT_EQ(resource_.path(), "/a/b");
    EXPECT_EQ(resource_.version(), std::nullopt);
}

TEST_F(SharedResources, StoreVersionsInReportForm) {
    resource_.setVersion(IndexPath{5, 1, 2, 3456});
    EXPECT_EQ(resource_.getValueForKey("Version"), Value("5.1.2-3456"));
    EXPECT_EQ(resource_.version(), (IndexPath{5, 1, 2, 3456}));
    EXPECT_EQ(resource_.path(), std::nullopt);
}

TEST_F(SharedResources, LeaveAnEmptyRecordBecauseRecordsAreNeverDeleted) {
    resource_.setPath("/a/b");
    resource_.setPath(std::nullopt);
    EXPECT_EQ(stored(), Value(Dictionary{{kBundleId, Dictionary{{"converter", Dictionary()}}}}));
    EXPECT_EQ(resource_.path(), std::nullopt);
}

TEST_F(SharedResources, MakeARecordForAFieldThatIsRemovedBecauseEveryWriteMakesTheWay) {
    resource_.setPath(std::nullopt);
    EXPECT_EQ(stored(), Value(Dictionary{{kBundleId, Dictionary{{"converter", Dictionary()}}}}));
}

TEST_F(SharedResources, StoreNoVersionAsZerosBecauseOnlyAPathCanBeTakenBack) {
    resource_.setVersion(IndexPath{1, 2, 3, 4});
    resource_.setVersion(std::nullopt);
    EXPECT_EQ(resource_.getValueForKey("Version"), Value("0.0.0-0"));
    EXPECT_EQ(resource_.version(), (IndexPath{0, 0, 0, 0}));
}

TEST_F(SharedResources, FillUpShortVersionsAndCutLongOnes) {
    resource_.setVersion(IndexPath{1, 2, 7});
    EXPECT_EQ(resource_.getValueForKey("Version"), Value("1.2.7-9223372036854775807"));
    EXPECT_EQ(resource_.version(), (IndexPath{1, 2, 7, kNotFound}));
    resource_.setVersion(IndexPath{1, 2, 3, 4, 5});
    EXPECT_EQ(resource_.version(), (IndexPath{1, 2, 3, 4}));
}

TEST_F(SharedResources, HaveNoVersionWhenItsTextIsNone) {
    for (const char* text : {"5.1.2", "1.2.3.4.5", "", "newest"}) {
        resource_.updateValue(Value(text), "Version");
        EXPECT_EQ(resource_.version(), std::nullopt) << text;
        EXPECT_EQ(resource_.getValueForKey("Version"), Value(text));
    }
    resource_.updateValue(Value("build 5 1 2 3456"), "Version");
    EXPECT_EQ(resource_.version(), (IndexPath{5, 1, 2, 3456}));
}

TEST_F(SharedResources, NeverDisturbOneAnother) {
    const SharedResource sibling("viewer", kBundleId);
    const SharedResource namesake("converter", "com.korvane.utilia.timer");
    resource_.setPath("/clock/converter");
    sibling.setPath("/clock/viewer");
    namesake.setPath("/timer/converter");
    resource_.setVersion(IndexPath{1, 0, 0, 1});
    sibling.setVersion(IndexPath{2, 0, 0, 2});
    namesake.setVersion(IndexPath{3, 0, 0, 3});
    resource_.setPath("/new");
    EXPECT_EQ(resource_.path(), "/new");
    EXPECT_EQ(resource_.version(), (IndexPath{1, 0, 0, 1}));
    EXPECT_EQ(sibling.path(), "/clock/viewer");
    EXPECT_EQ(sibling.version(), (IndexPath{2, 0, 0, 2}));
    EXPECT_EQ(namesake.path(), "/timer/converter");
    EXPECT_EQ(namesake.version(), (IndexPath{3, 0, 0, 3}));
}

// Writes both fields of resources of its own, and one field of a record that all share.
UTILIA_CHILD_ROLE(recordResources) {
    const std::string own = self.arguments.at(0);
    for (std::uint64_t i = 0; i < 100; ++i) {
        const SharedResource resource("resource " + own + "-" + std::to_string(i % 5), kBundleId);
        resource.setPath("/" + std::to_string(i));
        resource.setVersion(IndexPath{1, 0, 0, i});
        SharedResource("shared", kBundleId).updateValue(Value(static_cast<std::int64_t>(i)), own);
    }
    return 0;
}

TEST_F(SharedResources, LoseNoFieldThatAnotherProcessWritesAtTheSameTime) {
    constexpr int kProcesses = 6;
    std::vector<test::ChildProcess> writers;
    for (int i = 0; i < kProcesses; ++i)
        writers.push_back(test::ChildProcess::role("recordResources", {std::to_string(i)}));
    for (test::ChildProcess& writer : writers)
        EXPECT_EQ(writer.waitForExit(std::chrono::seconds(200)), 0);
    for (int writer = 0; writer < kProcesses; ++writer) {
        const std::string own = std::to_string(writer);
        for (std::uint64_t i = 0; i < 5; ++i) {
            const SharedResource resource("resource " + own + "-" + std::to_string(i), kBundleId);
            EXPECT_EQ(resource.path(), "/" + std::to_string(95 + i));
            EXPECT_EQ(resource.version(), (IndexPath{1, 0, 0, 95 + i}));
        }
        EXPECT_EQ(SharedResource("shared", kBundleId).getValueForKey(own), Value(99));
    }
}

TEST_F(SharedResources, CarryOverWhatTheyDoNotKnow) {
    store("kept", "SomethingElse");
    store(Dictionary{
        {"other", 1},
        {kBundleId, Dictionary{{"note", "kept"}, {"converter", Dictionary{{"Size", 3}}}}}});
    resource_.setPath("/a");
    EXPECT_EQ(stored(),
              Value(Dictionary{
                  {"other", 1},
                  {kBundleId,
                   Dictionary{{"note", "kept"},
                              {"converter", Dictionary{{"Size", 3}, {"ResourcePath", "/a"}}}}}}));
    EXPECT_EQ(stored("SomethingElse"), Value("kept"));
}

TEST_F(SharedResources, TakeLevelsOfAnotherTypeAsMissing) {
    const Value damaged[] = {
        Value("text"),
        Value(Array{1, 2}),
        Value(Dictionary{{kBundleId, 7}}),
        Value(Dictionary{{kBundleId, Dictionary{{"converter", "text"}}}}),
        Value(Dictionary{{kBundleId, Dictionary{{"converter", Dictionary{{"ResourcePath", 7},
                                                                         {"Version", true}}}}}}),
    };
    for (const Value& content : damaged) {
        store(content);
        EXPECT_EQ(resource_.path(), std::nullopt);
        EXPECT_EQ(resource_.version(), std::nullopt);
        resource_.setPath("/a");
        EXPECT_EQ(resource_.path(), "/a");
    }
}

TEST_F(SharedResources, KeepValuesOfEveryType) {
    for (const Value& value : {Value(true), Value(7), Value(0.5), Value(Data{1, 2}),
                               Value(Array{"a"}), Value(Dictionary{{"a", 1}}), Value(Date{1.5})}) {
        resource_.updateValue(value, "field");
        EXPECT_EQ(resource_.getValueForKey("field"), value);
    }
}

TEST_F(SharedResources, ChangeNothingThatAPropertyListCannotHold) {
    resource_.setPath("/a");
    const auto before = stored();
    resource_.setPath(std::string("/b\0c", 4));
    resource_.setPath("/b\xFF");
    SharedResource("name\xFF", kBundleId).setPath("/b");
    SharedResource("name", std::string_view("id\0", 3)).setPath("/b");
    EXPECT_EQ(stored(), before);
    EXPECT_EQ(log_.lines().size(), 4u);
}

constexpr const char* kExamplePath =
    "/data/korvane-utilia/Group Containers/7QK2M9ZD4R.com.korvane.utilia/Resources/"
    "com.korvane.utilia.Clock/converter";

TEST_F(SharedResources, WriteTheDocumentedExample) {
    const SharedResource example("converter", "com.korvane.utilia.Clock");
    example.setPath(kExamplePath);
    example.setVersion(IndexPath{5, 1, 2, 3456});
    std::string path;
    accessAppGroupPlist([&](UserDefaults& suite) { path = suite.path(); });
    EXPECT_EQ(test::contentOf(path),
              test::contentOf(std::string(test::places::kTestData) + "/shared-resources.plist"));
}

TEST_F(SharedResources, ReadTheDocumentedExample) {
    std::filesystem::path path;
    accessAppGroupPlist([&](UserDefaults& suite) { path = suite.path(); });
    std::filesystem::create_directories(path.parent_path());
    std::filesystem::copy_file(std::string(test::places::kTestData) + "/shared-resources.plist",
                               path);
    const SharedResource example("converter", "com.korvane.utilia.Clock");
    EXPECT_EQ(example.path(), kExamplePath);
    EXPECT_EQ(example.version(), (IndexPath{5, 1, 2, 3456}));
}

// Whatever fails, the other field and the other records stay, and the next call works.
TEST_F(SharedResources, LoseNothingToFailingSystemCalls) {
    const SharedResource sibling("viewer", kBundleId);
    sibling.setPath("/clock/viewer");
    resource_.setVersion(IndexPath{1, 2, 3, 4});
    int number = 0;
    std::string before;
    const std::size_t runs = test::forEachFault(
        test::storageFaults(),
        [&] {
            resource_.setPath(before = "/old" + std::to_string(number));
            ASSERT_EQ(resource_.path(), before);
        },
        [&] { resource_.setPath("/new" + std::to_string(++number)); },
        [&](const test::FaultRun&) {
            const auto path = resource_.path();
            EXPECT_TRUE(path == before || path == "/new" + std::to_string(number))
                << path.value_or("nothing");
            EXPECT_EQ(resource_.version(), (IndexPath{1, 2, 3, 4}));
            EXPECT_EQ(sibling.path(), "/clock/viewer");
        });
    EXPECT_GT(runs, 0u);
}

}  // namespace
}  // namespace utilia
