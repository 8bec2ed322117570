// What the framework makes of system calls that fail: a block runs all the same, what was stored
// stays, and the next call works.

#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>

#include <gtest/gtest.h>

#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataLazyWriter.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;

using platform::FileManager;
using platform::Image;
using platform::UserDefaults;
using test::FaultRun;
using test::forEachFault;
using test::storageFaults;

constexpr const char* kBundleId = "com.korvane.utilia.SampleTool";
constexpr const char* kFileName = "Sample Tool.app";

std::shared_ptr<Image> picture(std::uint8_t seed, bool isTemplate = false) {
    auto image = Image::initWithBitmap({1, 1, Data{seed, 2, 3, 0xff}});
    image->setTemplate(isTemplate);
    return image;
}

// The first byte of a picture; empty when there is none to be had.
std::optional<std::uint8_t> seedOf(const std::shared_ptr<Image>& image) {
    if (!image) return std::nullopt;
    const auto pixels = image->representation(0);
    if (!pixels || pixels->rgba.empty()) return std::nullopt;
    return pixels->rgba.front();
}

class FrameworkFaults : public testing::Test {
protected:
    // The store as a tool that comes later finds it.
    static Array schedule() {
        Array all;
        accessAppGroupPlist(
            [&](UserDefaults& suite) { all = suite.arrayForKey(kSchedulerKey).value_or(Array()); });
        return all;
    }
    static Dictionary record(const char* bundleId, std::int64_t count) {
        return Dictionary{{"bundleid", bundleId}, {"name", "Name"}, {"count", count}};
    }
    static void leaveBehind() {
        accessAppGroupPlist([](UserDefaults& suite) {
            suite.setObject(Dictionary{{std::string(kBundleId) + "_" + kFileName,
                                        Dictionary{{"Permanent", true}, {"MenuText", "stored"}}}},
                            kToolPersistentDataKey);
        });
        const ToolPersistentDataReader reader(kFileName, kBundleId);
        ASSERT_TRUE(FileManager::writeAtomically(*reader.getToolIconPath(),
                                                 *picture(1)->TIFFRepresentation()));
        const FileManager::ExtendedAttribute isTemplate{std::string(kTemplateAttribute), Data{1}};
        ASSERT_TRUE(FileManager::writeAtomically(*reader.getMenuIconPath(),
                                                 *picture(2)->TIFFRepresentation(),
                                                 std::span(&isTemplate, 1)));
    }

    const test::TemporaryHome home_{test::folderInMemory()};
    test::TestLog log_;
};

TEST_F(FrameworkFaults, AccessRunsItsBlockAndLosesNothing) {
    accessAppGroupPlist([](UserDefaults& suite) { suite.setObject("kept", "other"); });
    std::int64_t attempted = 0;
    std::int64_t before = 0;
    int calls = 0;
    const std::size_t runs = forEachFault(
        storageFaults(),
        [&] {
            calls = 0;
            before = attempted;
        },
        [&] {
            accessAppGroupPlist([&](UserDefaults& suite) {
                ++calls;
                suite.setObject(++attempted, "number");
            });
        },
        [&](const FaultRun&) {
            EXPECT_EQ(calls, 1);
            accessAppGroupPlist([&](UserDefaults& suite) {
                EXPECT_EQ(suite.stringForKey("other"), "kept");
                const std::int64_t stored = suite.integerForKey("number");
                EXPECT_TRUE(stored == attempted || stored == before) << stored;
                suite.setObject(++attempted, "number");
                EXPECT_TRUE(suite.synchronize()) << "the next call works";
            });
        });
    EXPECT_GT(runs, 0u);
}

TEST_F(FrameworkFaults, UpdateRunsItsBlockAndLosesNoRecord) {
    updateSchedulerPlist("other", "Name", [](Dictionary& found) { found.set("count", 7); });
    std::int64_t attempted = 0;
    std::int64_t before = 0;
    int calls = 0;
    const auto update = [&] {
        updateSchedulerPlist(kBundleId, "Name", [&](Dictionary& found) {
            ++calls;
            found.set("count", ++attempted);
        });
    };
    const std::size_t runs = forEachFault(
        storageFaults(),
        [&] {
            calls = 0;
            before = attempted;
        },
        update,
        [&](const FaultRun&) {
            EXPECT_EQ(calls, 1);
            const Array stored = schedule();
            EXPECT_TRUE(stored == (Array{record("other", 7), record(kBundleId, attempted)}) ||
                        stored == (Array{record("other", 7), record(kBundleId, before)}))
                << stored.size() << " records";
            update();
            EXPECT_EQ(schedule(), (Array{record("other", 7), record(kBundleId, attempted)}))
                << "the next call works";
        });
    EXPECT_GT(runs, 0u);
}

TEST_F(FrameworkFaults, ReadersAnswerWhatIsStoredOrNothing) {
    leaveBehind();
    const ToolPersistentDataReader reader(kFileName, kBundleId);
    bool isPermanent = false;
    std::optional<std::string> text;
    std::optional<std::uint8_t> toolIcon;
    std::optional<std::uint8_t> menuIcon;
    bool isTemplate = false;
    const auto read = [&] {
        isPermanent = reader.isPermanent();
        text = reader.menuText();
        toolIcon = seedOf(reader.toolIcon());
        const auto icon = reader.menuIcon();
        menuIcon = seedOf(icon);
        isTemplate = icon && icon->isTemplate();
    };
    const std::size_t runs = forEachFault(storageFaults(), read, [&](const FaultRun& run) {
        EXPECT_TRUE(!text || text == "stored");
        EXPECT_TRUE(!toolIcon || toolIcon == 1);
        EXPECT_TRUE(!menuIcon || menuIcon == 2);
        EXPECT_GE(isPermanent + text.has_value() + toolIcon.has_value() + menuIcon.has_value() +
                      isTemplate,
                  run.repetition == test::FaultRepetition::Once ? 3 : 0)
            << "one fault spoils one answer, or the menu icon and its flag";
        read();
        EXPECT_TRUE(isPermanent && isTemplate);
        EXPECT_EQ(text, "stored");
        EXPECT_EQ(toolIcon, 1);
        EXPECT_EQ(menuIcon, 2);
    });
    EXPECT_GT(runs, 0u);
}

TEST_F(FrameworkFaults, PictureIsReadWholeOrNotAtAll) {
    leaveBehind();
    const std::string path = *ToolPersistentDataReader(kFileName, kBundleId).getToolIconPath();
    const Data expected = *picture(1)->TIFFRepresentation();
    std::optional<Data> bytes;
    const auto read = [&] {
        const auto image = Image::initByReferencingFile(path);
        bytes = image->isValid() ? image->TIFFRepresentation() : std::nullopt;
    };
    const std::size_t runs = forEachFault(storageFaults(), read, [&](const FaultRun&) {
        EXPECT_TRUE(!bytes || bytes == expected);
        read();
        EXPECT_EQ(bytes, expected);
    });
    EXPECT_GT(runs, 0u);
}

// What a tool finds after a flush that a fault has met: each thing as it was, or as it was to be.
class LeftBehind final {
public:
    explicit LeftBehind(std::uint8_t first) : old_(first), new_(first) {}

    void flush(ToolPersistentDataLazyWriter& writer, std::uint8_t seed) {
        new_ = seed;
        writer.setIsPermanent(true);
        writer.setMenuText(std::to_string(seed));
        writer.setToolIcon(picture(seed));
        writer.setMenuIcon(picture(seed, true));
        writer.appWillExit();
    }
    // Another process has begun to write this.
    void expectPending(std::uint8_t seed) { new_ = seed; }
    void expectEachWhole() const {
        const ToolPersistentDataReader reader(kFileName, kBundleId);
        EXPECT_TRUE(reader.isPermanent());
        EXPECT_TRUE(reader.menuText() == std::to_string(old_) ||
                    reader.menuText() == std::to_string(new_));
        for (const auto& icon : {reader.toolIcon(), reader.menuIcon()})
            EXPECT_TRUE(seedOf(icon) == old_ || seedOf(icon) == new_);
    }
    void expectAllNew() {
        const ToolPersistentDataReader reader(kFileName, kBundleId);
        EXPECT_TRUE(reader.isPermanent());
        EXPECT_EQ(reader.menuText(), std::to_string(new_));
        EXPECT_EQ(seedOf(reader.toolIcon()), new_);
        EXPECT_EQ(seedOf(reader.menuIcon()), new_);
        EXPECT_TRUE(reader.menuIcon() && reader.menuIcon()->isTemplate());
        old_ = new_;
    }

private:
    std::uint8_t old_;
    std::uint8_t new_;
};

// The expectations of a role count for nobody until it is asked.
int saysWhetherAllHeld(const test::ChildRole& self, std::size_t runs) {
    const bool failed = testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
    self.say(runs == 0 ? "nothing was hit" : failed ? "failed" : "held every time");
    return failed ? 1 : 0;
}

UTILIA_CHILD_ROLE(flushUnderFaults) {
    const test::TestLog log;
    ToolPersistentDataLazyWriter writer;
    std::uint8_t seed = 0;
    LeftBehind left(seed);
    left.flush(writer, ++seed);
    left.expectAllNew();
    const std::size_t runs = forEachFault(
        storageFaults(),
        [&] {
            left.flush(writer, ++seed);
            left.expectAllNew();
        },
        [&] { left.flush(writer, ++seed); },
        [&](const FaultRun&) {
            left.expectEachWhole();
            left.flush(writer, ++seed);
            left.expectAllNew();
        });
    return saysWhetherAllHeld(self, runs);
}

// Every end of a process that a kill can bring about, and an orderly end after each.
UTILIA_CHILD_ROLE(flushUnderKills) {
    const test::TestLog log;
    ToolPersistentDataLazyWriter writer;
    std::uint8_t seed = 1;
    LeftBehind left(seed);
    left.flush(writer, seed);
    left.expectAllNew();
    const fs::path folder = fs::path(*writer.getToolIconPath()).parent_path();
    const std::size_t points = test::forEachKillPoint(
        1,
        [&] {
            LeftBehind inChild(seed);
            inChild.flush(writer, static_cast<std::uint8_t>(seed + 1));
        },
        [&](const test::KillPoint&) {
            left.expectPending(++seed);
            left.expectEachWhole();
            left.flush(writer, seed);
            left.expectAllNew();
            EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 2)
                << "no stranger stays beside the two icons";
        });
    return saysWhetherAllHeld(self, points);
}

TEST_F(FrameworkFaults, FlushThatIsKilledLeavesEachThingWholeAndTheNextNoStrangers) {
    const test::TestBundle bundle(home_);
    auto tool = bundle.role("flushUnderKills");
    EXPECT_EQ(tool.waitForLine(std::chrono::seconds(240)), "held every time");
    EXPECT_EQ(tool.waitForExit(), 0);
}

TEST_F(FrameworkFaults, FlushLeavesEachThingAsItWasOrAsItWasToBe) {
    const test::TestBundle bundle(home_);
    auto tool = bundle.role("flushUnderFaults");
    EXPECT_EQ(tool.waitForLine(std::chrono::seconds(240)), "held every time");
    EXPECT_EQ(tool.waitForExit(), 0);
}

}  // namespace
}  // namespace utilia
