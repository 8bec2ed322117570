// What a tool leaves behind when it ends, in an orderly way or not.

#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Process/SampleImage.h"
#include "Tests/Process/UnprivilegedUser.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

// Tells whether a file was replaced since. Holds it open, so that its inode is not used again.
class FileWatch final {
public:
    explicit FileWatch(fs::path path)
        : path_(std::move(path)), file_(open(path_.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~FileWatch() {
        if (file_ >= 0) close(file_);
    }
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    bool isOpen() const { return file_ >= 0; }
    bool wasReplaced() const {
        struct stat then {};
        struct stat now {};
        return fstat(file_, &then) != 0 || stat(path_.c_str(), &now) != 0 ||
               then.st_ino != now.st_ino || then.st_mtim.tv_sec != now.st_mtim.tv_sec ||
               then.st_mtim.tv_nsec != now.st_mtim.tv_nsec;
    }

private:
    fs::path path_;
    int file_;
};

class LazyWriter : public testing::Test {
protected:
    ScriptedChild start() const { return ScriptedChild(bundle_.role("writer")); }

    fs::path suiteFile() const {
        return home_.groupContainer() / "Library/Preferences/7QK2M9ZD4R.com.korvane.utilia.plist";
    }
    fs::path icon(const char* kind) const {
        return home_.groupContainer() / "Library/Caches/Icons" /
               (std::string(kind) + "_Sample Tool.app_com.korvane.utilia.SampleTool.tiff");
    }
    // What the file holds, not what our reader says.
    std::optional<Dictionary> storedRecords() const {
        std::ifstream file(suiteFile(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)),
                                std::istreambuf_iterator<char>());
        const auto value = platform::propertyListFromData(
            {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
        if (!value || !value->dictionary()) return std::nullopt;
        return value->dictionary()->dictionary("ToolPersistentData");
    }
    static std::string content(const fs::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    static std::optional<Data> templateAttribute(const fs::path& path) {
        const auto value =
            platform::FileManager::extendedAttribute(path.string(), "NSImage.isTemplate", 16);
        return value ? std::optional(*value) : std::nullopt;
    }
    void leaveBehind(const char* text, const char* seed) const {
        ScriptedChild tool = start();
        tool.ask("set-permanent", {"yes"});
        tool.ask("set-menu-text", {text});
        tool.ask("set-tool-icon", {"8", seed});
        tool.ask("set-menu-icon", {"4", seed, "template"});
        tool.terminate();
    }
    static Dictionary onlyRecord(Dictionary record) {
        return Dictionary{{"com.korvane.utilia.SampleTool_Sample Tool.app", std::move(record)}};
    }

    TemporaryHome home_;
    TestBundle bundle_{home_};
};

TEST_F(LazyWriter, DescribesTheCallingApplication) {
    ScriptedChild tool = start();
    EXPECT_EQ(tool.ask("names"), "Sample Tool.app com.korvane.utilia.SampleTool");
    EXPECT_EQ(tool.ask("stated"), "not permanent, none, none, none");
}

TEST_F(LazyWriter, SettersWriteNothingBeforeTheEnd) {
    ScriptedChild tool = start();
    tool.ask("set-permanent", {"yes"});
    tool.ask("set-menu-text", {"text"});
    tool.ask("set-tool-icon", {"8", "1"});
    tool.ask("set-menu-icon", {"4", "2", "template"});
    EXPECT_EQ(tool.ask("stated"), "permanent, text, 8x8 seed 1, 4x4 seed 2 template");
    EXPECT_FALSE(fs::exists(suiteFile()));
    EXPECT_FALSE(fs::exists(icon("Tool")));
    EXPECT_FALSE(fs::exists(icon("Menu")));
}

TEST_F(LazyWriter, PermanentToolLeavesRecordAndIcons) {
    leaveBehind("12:30 \u2013 tea", "7");
    EXPECT_EQ(storedRecords(),
              onlyRecord(Dictionary{{"Permanent", true}, {"MenuText", "12:30 \u2013 tea"}}));
    EXPECT_EQ(content(icon("Tool")), sampleTiff(8, 7));
    EXPECT_EQ(content(icon("Menu")), sampleTiff(4, 7));
    EXPECT_EQ(templateAttribute(icon("Menu")), Data{1});
    EXPECT_EQ(templateAttribute(icon("Tool")), std::nullopt);
    const ToolPersistentDataReader reader("Sample Tool.app", "com.korvane.utilia.SampleTool");
    EXPECT_TRUE(reader.isPermanent());
    EXPECT_EQ(describe(reader.toolIcon()), "8x8 seed 7");
    EXPECT_EQ(describe(reader.menuIcon()), "4x4 seed 7 template");
}

TEST_F(LazyWriter, MenuIconThatIsNoTemplateHasTheByteZero) {
    ScriptedChild tool = start();
    tool.ask("set-permanent", {"yes"});
    tool.ask("set-menu-icon", {"4", "2"});
    tool.terminate();
    EXPECT_EQ(templateAttribute(icon("Menu")), Data{0});
}

TEST_F(LazyWriter, TemplateFlagFollowsTheNextIcon) {
    leaveBehind("text", "7");
    ScriptedChild tool = start();
    tool.ask("set-menu-icon", {"4", "8"});
    tool.terminate();
    EXPECT_EQ(templateAttribute(icon("Menu")), Data{0});
    EXPECT_EQ(content(icon("Menu")), sampleTiff(4, 8));
}

TEST_F(LazyWriter, PermanentToolWithoutTextAndIconsLeavesTheRecordOnly) {
    ScriptedChild tool = start();
    tool.ask("set-permanent", {"yes"});
    tool.terminate();
    EXPECT_EQ(storedRecords(), onlyRecord(Dictionary{{"Permanent", true}}));
    EXPECT_FALSE(fs::exists(icon("Tool")));
    EXPECT_FALSE(fs::exists(icon("Menu")));
}

TEST_F(LazyWriter, StartsWithTheStoredFlagAndTextButWithoutIcons) {
    leaveBehind("stored", "7");
    ScriptedChild tool = start();
    EXPECT_EQ(tool.ask("stated"), "permanent, stored, none, none");
}

TEST_F(LazyWriter, IconsThatAreNotSetLeaveTheOlderFiles) {
    leaveBehind("text", "7");
    const FileWatch toolIcon(icon("Tool"));
    const FileWatch menuIcon(icon("Menu"));
    start().terminate();
    EXPECT_FALSE(toolIcon.wasReplaced());
    EXPECT_FALSE(menuIcon.wasReplaced());
    EXPECT_EQ(templateAttribute(icon("Menu")), Data{1});
}

TEST_F(LazyWriter, RecordWithATextIsWrittenAgainAtEveryEnd) {
    leaveBehind("text", "7");
    for (int i = 0; i < 2; ++i) {
        const FileWatch suite(suiteFile());
        ASSERT_TRUE(suite.isOpen());
        start().terminate();
        EXPECT_TRUE(suite.wasReplaced());
    }
    EXPECT_EQ(storedRecords(), onlyRecord(Dictionary{{"Permanent", true}, {"MenuText", "text"}}));
}

TEST_F(LazyWriter, UnchangedRecordWithoutTextIsNotWritten) {
    {
        ScriptedChild tool = start();
        tool.ask("set-permanent", {"yes"});
        tool.terminate();
    }
    const FileWatch suite(suiteFile());
    ASSERT_TRUE(suite.isOpen());
    start().terminate();
    EXPECT_FALSE(suite.wasReplaced());
}

TEST_F(LazyWriter, ToolThatNeverWasPermanentWritesNoStore) {
    start().terminate();
    EXPECT_FALSE(fs::exists(suiteFile()));
}

TEST_F(LazyWriter, TextTakenAwayIsTakenOutOfTheRecord) {
    leaveBehind("text", "7");
    ScriptedChild tool = start();
    tool.ask("set-menu-text");
    tool.terminate();
    EXPECT_EQ(storedRecords(), onlyRecord(Dictionary{{"Permanent", true}}));
}

TEST_F(LazyWriter, EmptyTextIsStored) {
    ScriptedChild tool = start();
    tool.ask("set-permanent", {"yes"});
    tool.ask("set-menu-text", {""});
    tool.terminate();
    EXPECT_EQ(storedRecords(), onlyRecord(Dictionary{{"Permanent", true}, {"MenuText", ""}}));
}

TEST_F(LazyWriter, ToolThatIsPermanentNoMoreLosesRecordAndIconsWhateverItsText) {
    leaveBehind("text", "7");
    ScriptedChild tool = start();
    tool.ask("set-permanent", {"no"});
    tool.ask("set-menu-text", {"still a text"});
    tool.ask("set-tool-icon", {"8", "9"});
    tool.terminate();
    EXPECT_EQ(storedRecords(), Dictionary{});
    EXPECT_FALSE(fs::exists(icon("Tool")));
    EXPECT_FALSE(fs::exists(icon("Menu")));
}

TEST_F(LazyWriter, RecordIsMadeAnewAndRecordsOfOthersAreKept) {
    const Dictionary foreign{{"Permanent", true}, {"MenuText", "foreign"}, {"Other", 7}};
    accessAppGroupPlist([&](platform::UserDefaults& suite) {
        suite.setObject(Dictionary{{"a_A.app", foreign},
                                   {"com.korvane.utilia.SampleTool_Sample Tool.app",
                                    Dictionary{{"Permanent", false}, {"Of another release", 1}}},
                                   {"junk", "text"}},
                        "ToolPersistentData");
        suite.setObject(Array{"kept"}, "Scheduler");
    });
    ScriptedChild tool = start();
    tool.ask("set-permanent", {"yes"});
    tool.terminate();
    EXPECT_EQ(storedRecords(), (Dictionary{{"a_A.app", foreign},
                                           {"com.korvane.utilia.SampleTool_Sample Tool.app",
                                            Dictionary{{"Permanent", true}}},
                                           {"junk", "text"}}));
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        EXPECT_EQ(suite.arrayForKey("Scheduler"), Array{"kept"});
    });
}

TEST_F(LazyWriter, MayBeFlushedDirectly) {
    ScriptedChild tool = start();
    tool.ask("set-permanent", {"yes"});
    tool.ask("set-menu-text", {"early"});
    tool.ask("flush");
    EXPECT_EQ(storedRecords(), onlyRecord(Dictionary{{"Permanent", true}, {"MenuText", "early"}}));
}

TEST_F(LazyWriter, OrderlySignalsFlush) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        ScriptedChild tool = start();
        tool.ask("set-permanent", {"yes"});
        tool.ask("set-menu-text", {std::to_string(signal)});
        tool.ask("set-tool-icon", {"512", "1"});
        tool.process().signal(signal);
        EXPECT_EQ(tool.process().waitForExit(), 0);
        EXPECT_EQ(storedRecords(), onlyRecord(Dictionary{{"Permanent", true},
                                                         {"MenuText", std::to_string(signal)}}));
        EXPECT_EQ(content(icon("Tool")), sampleTiff(512, 1));
    }
}

TEST_F(LazyWriter, KilledToolLeavesWhatItsLastOrderlyEndStored) {
    leaveBehind("orderly", "7");
    const FileWatch suite(suiteFile());
    {
        ScriptedChild tool = start();
        tool.ask("set-menu-text", {"lost"});
        tool.ask("set-permanent", {"no"});
        tool.ask("set-tool-icon", {"8", "9"});
        tool.process().kill();
    }
    EXPECT_FALSE(suite.wasReplaced());
    EXPECT_EQ(content(icon("Tool")), sampleTiff(8, 7));
}

TEST_F(LazyWriter, KilledWhileItEndsLeavesNoHalfRecordAndNoHalfIcon) {
    leaveBehind("0", "1");
    const std::string icons[] = {sampleTiff(8, 1), sampleTiff(256, 2)};
    for (int i = 1; i <= 60; ++i) {
        SCOPED_TRACE(i);
        // Not as the one instance of its bundle: this is about files, not about taking over.
        ScriptedChild tool(bundle_.role("writer", {"unlaunched"}));
        tool.ask("set-menu-text", {std::to_string(i)});
        tool.ask("set-tool-icon", {"256", "2"});
        tool.tell("terminate");
        // Somewhere on its way out, or after it.
        (void)tool.process().waitForExit(std::chrono::milliseconds(i % 12));
        tool.process().kill();
        const auto records = storedRecords();
        ASSERT_TRUE(records);
        const auto record = records->dictionary("com.korvane.utilia.SampleTool_Sample Tool.app");
        ASSERT_TRUE(record);
        EXPECT_TRUE(record->boolean("Permanent"));
        EXPECT_TRUE(record->string("MenuText"));
        const std::string stored = content(icon("Tool"));
        EXPECT_TRUE(stored == icons[0] || stored == icons[1]);
        EXPECT_EQ(templateAttribute(icon("Menu")), Data{1});
    }
    leaveBehind("the store is free", "3");
    EXPECT_EQ(content(icon("Tool")), sampleTiff(8, 3));
}

TEST_F(LazyWriter, ToolsThatEndAtOnceAllLeaveTheirRecords) {
    constexpr int kTools = 6;
    std::vector<std::unique_ptr<TestBundle>> bundles;
    std::vector<ScriptedChild> tools;
    for (int i = 0; i < kTools; ++i) {
        const std::string name = "Tool " + std::to_string(i);
        bundles.push_back(std::make_unique<TestBundle>(
            home_, TestBundleOptions{.name = name, .bundleIdentifier = "id" + std::to_string(i)}));
        tools.emplace_back(bundles.back()->role("writer"));
        tools.back().ask("set-permanent", {"yes"});
        tools.back().ask("set-menu-text", {name});
    }
    for (ScriptedChild& tool : tools) tool.tell("terminate");
    for (ScriptedChild& tool : tools) EXPECT_EQ(tool.process().waitForExit(), 0);
    Dictionary expected;
    for (int i = 0; i < kTools; ++i) {
        const std::string name = "Tool " + std::to_string(i);
        expected.set("id" + std::to_string(i) + "_" + name + ".app",
                     Dictionary{{"Permanent", true}, {"MenuText", name}});
    }
    EXPECT_EQ(storedRecords(), expected);
}

TEST_F(LazyWriter, RecordKeepsTheExtensionThatTheScheduleDrops) {
    ScriptedChild tool = start();
    tool.ask("set-permanent", {"yes"});
    tool.terminate();
    ChildProcess scheduling = bundle_.role("updateOwnSchedule");
    EXPECT_EQ(scheduling.waitForExit(), 0);
    EXPECT_TRUE(storedRecords()->contains("com.korvane.utilia.SampleTool_Sample Tool.app"));
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        EXPECT_EQ(suite.arrayForKey("Scheduler"),
                  (Array{Dictionary{{"bundleid", "com.korvane.utilia.SampleTool"},
                                    {"name", "Sample Tool"},
                                    {"launchAtLogin", true}}}));
    });
}

TEST_F(LazyWriter, BundleWithoutIdentifierLeavesNothing) {
    const TestBundle nameless(home_, {.name = "Nameless", .bundleIdentifier = ""});
    ScriptedChild tool(nameless.role("writer"));
    tool.ask("set-permanent", {"yes"});
    tool.ask("set-menu-text", {"text"});
    tool.terminate();
    EXPECT_FALSE(fs::exists(suiteFile()));
}

// A folder that its own user may not write: root may, so the tool runs as somebody else then.
TEST_F(LazyWriter, ContainerThatCannotBeWrittenIsNoCrash) {
    const UnprivilegedUser user(home_);
    fs::create_directories(home_.groupContainer());
    user.own(home_.data() / "korvane-utilia");
    ASSERT_EQ(chmod(home_.groupContainer().c_str(), 0500), 0);
    ChildProcessOptions options;
    options.user = user.id();
    ScriptedChild tool(bundle_.role("writer", {}, options));
    tool.ask("set-permanent", {"yes"});
    tool.ask("set-menu-text", {"text"});
    tool.ask("set-tool-icon", {"8", "1"});
    tool.ask("flush");
    EXPECT_EQ(tool.ask("stated"), "permanent, text, 8x8 seed 1, none");
    EXPECT_FALSE(tool.log().empty()) << "a store that cannot be written is worth a line";
    tool.terminate();
    EXPECT_TRUE(fs::is_empty(home_.groupContainer()));
}

TEST_F(LazyWriter, FileInTheContainersPlaceIsNoCrash) {
    fs::create_directories(home_.groupContainer().parent_path());
    std::ofstream(home_.groupContainer()) << "in the way";
    ScriptedChild tool = start();
    tool.ask("set-permanent", {"yes"});
    tool.ask("set-tool-icon", {"8", "1"});
    tool.terminate();
    EXPECT_EQ(content(home_.groupContainer()), "in the way");
}

}  // namespace
}  // namespace utilia::test
