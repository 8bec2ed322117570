#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

using test::TemporaryHome;
using test::TestBundle;
using test::TestLog;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace fs = std::filesystem;

constexpr const char* kTool = "com.korvane.utilia.Timer";
constexpr const char* kOtherTool = "com.korvane.utilia.MoonPhase";

TestBundle agentIn(const TemporaryHome& home) {
    test::TestBundleOptions options;
    options.name = "Korvane Utilia";
    options.bundleIdentifier = "com.korvane.utilia";
    return TestBundle(home, options);
}

TestBundle launcherIn(const TemporaryHome& home, const TestBundle& agent) {
    test::TestBundleOptions options;
    options.name = "Utilia Tool Launcher";
    options.bundleIdentifier = "com.korvane.utilia.ToolLauncher";
    options.folder = agent.path() + "/Contents/Applications";
    return TestBundle(home, options);
}

TestBundle legacyIn(const TemporaryHome& home, const std::string& folder, const std::string& name) {
    test::TestBundleOptions options;
    options.name = name;
    options.bundleIdentifier = "com.example.legacy";
    options.folder = home.path() / folder;
    return TestBundle(home, options);
}

class UtiliaToolLauncherTest : public testing::Test {
protected:
    UtiliaToolLauncherTest() { agent_.install("none"); }

    std::optional<Array> list() const {
        return UtiliaToolLauncher::getDefaults()->arrayForKey(kLaunchAtLoginToolsKey);
    }
    bool isLauncherAnItem() const {
        return CommonAuxiliary::sharedInstance().findAppInLoginItems(launcher_.path());
    }

    TemporaryHome home_;
    TestLog log_;
    TestBundle agent_ = agentIn(home_);
    TestBundle launcher_ = launcherIn(home_, agent_);
};

TEST_F(UtiliaToolLauncherTest, TheLauncherLiesInsideTheAgent) {
    EXPECT_EQ(UtiliaToolLauncher::launchHelperURL(),
              agent_.path() + "/Contents/Applications/Utilia Tool Launcher.app");
    fs::remove_all(launcher_.path());
    EXPECT_EQ(UtiliaToolLauncher::launchHelperURL(), launcher_.path());
    fs::remove_all(agent_.path());
    EXPECT_EQ(UtiliaToolLauncher::launchHelperURL(), std::nullopt);
}

TEST_F(UtiliaToolLauncherTest, AddingKeepsOrderAndOneEntryAndEnsuresTheLoginItem) {
    EXPECT_TRUE(UtiliaToolLauncher::addToolToLaunchAtLogin(kTool));
    EXPECT_TRUE(UtiliaToolLauncher::addToolToLaunchAtLogin(kOtherTool));
    ASSERT_TRUE(CommonAuxiliary::sharedInstance().removeAppFromLoginItems(launcher_.path()));
    EXPECT_TRUE(UtiliaToolLauncher::addToolToLaunchAtLogin(kTool));
    EXPECT_EQ(list(), (Array{kTool, kOtherTool}));
    EXPECT_TRUE(isLauncherAnItem());
    EXPECT_TRUE(UtiliaToolLauncher::isToolInLaunchAtLogin(kTool));
    EXPECT_FALSE(UtiliaToolLauncher::isToolInLaunchAtLogin("com.korvane.utilia.timer"));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(UtiliaToolLauncherTest, TheLastToolTakesTheLoginItemWithIt) {
    UtiliaToolLauncher::addToolToLaunchAtLogin(kTool);
    UtiliaToolLauncher::addToolToLaunchAtLogin(kOtherTool);
    EXPECT_TRUE(UtiliaToolLauncher::removeToolFromLaunchAtLogin(kTool));
    EXPECT_EQ(list(), Array{kOtherTool});
    EXPECT_TRUE(isLauncherAnItem());
    EXPECT_TRUE(UtiliaToolLauncher::removeToolFromLaunchAtLogin(kOtherTool));
    EXPECT_EQ(list(), Array());
    EXPECT_FALSE(isLauncherAnItem());
}

TEST_F(UtiliaToolLauncherTest, RemovingAToolThatIsNotThereStoresTheListAllTheSame) {
    ASSERT_TRUE(CommonAuxiliary::sharedInstance().addAppToLoginItems(launcher_.path()));
    EXPECT_EQ(list(), std::nullopt);
    EXPECT_TRUE(UtiliaToolLauncher::removeToolFromLaunchAtLogin(kTool));
    EXPECT_EQ(list(), Array());
    EXPECT_FALSE(isLauncherAnItem());
}

TEST_F(UtiliaToolLauncherTest, RemovingTakesEveryOccurrenceOut) {
    UtiliaToolLauncher::getDefaults()->setObject(Array{kTool, kOtherTool, kTool, 4711},
                                                 kLaunchAtLoginToolsKey);
    EXPECT_TRUE(UtiliaToolLauncher::removeToolFromLaunchAtLogin(kTool));
    EXPECT_EQ(list(), (Array{kOtherTool, 4711}));
}

TEST_F(UtiliaToolLauncherTest, WithoutAnAgentTheListIsKeptAllTheSame) {
    fs::remove_all(agent_.path());
    EXPECT_FALSE(UtiliaToolLauncher::addToolToLaunchAtLogin(kTool));
    EXPECT_TRUE(UtiliaToolLauncher::isToolInLaunchAtLogin(kTool));
    EXPECT_TRUE(UtiliaToolLauncher::removeToolFromLaunchAtLogin(kTool));
    EXPECT_EQ(list(), Array());
}

TEST_F(UtiliaToolLauncherTest, FindsTheFirstLoginItemOfAFileName) {
    const TestBundle legacy = legacyIn(home_, "old", "Hide Menu Icons");
    EXPECT_EQ(UtiliaToolLauncher::findAppInLoginItems("Hide Menu Icons.app"), std::nullopt);
    ASSERT_TRUE(CommonAuxiliary::sharedInstance().addAppToLoginItems(legacy.path()));
    EXPECT_EQ(UtiliaToolLauncher::findAppInLoginItems("Hide Menu Icons.app"), legacy.path());
    EXPECT_EQ(UtiliaToolLauncher::findAppInLoginItems("hide menu icons.app"), std::nullopt);
    EXPECT_EQ(UtiliaToolLauncher::findAppInLoginItems("Hide Menu Icons"), std::nullopt);
}

TEST_F(UtiliaToolLauncherTest, MigratesEachLegacyToolWhereverItLies) {
    const struct {
        const char* name;
        const char* tool;
    } table[] = {
        {"FreeMemoryLauncher", "com.korvane.utilia.FreeMemory"},
        {"Hide Menu Icons", "com.korvane.utilia.HideMenuIcons"},
        {"Clipboard History", "com.korvane.utilia.ClipboardHistory"},
    };
    for (const auto& row : table) {
        const TestBundle legacy = legacyIn(home_, "some/where", row.name);
        ASSERT_TRUE(CommonAuxiliary::sharedInstance().addAppToLoginItems(legacy.path()));
        UtiliaToolLauncher::getDefaults()->removeObjectForKey(kToolLauncherMigratedKey);
        UtiliaToolLauncher::getDefaults()->removeObjectForKey(kLaunchAtLoginToolsKey);
        log_.clear();
        UtiliaToolLauncher::migrate();
        EXPECT_THAT(log_.lines(), ElementsAre("Tool " + std::string(row.tool) +
                                              " is migrated to UtiliaToolLauncher."));
        EXPECT_EQ(list(), Array{row.tool});
        EXPECT_FALSE(CommonAuxiliary::sharedInstance().findAppInLoginItems(legacy.path()));
        EXPECT_TRUE(isLauncherAnItem());
    }
}

TEST_F(UtiliaToolLauncherTest, MigratesOnceAndIsSilentAfterwards) {
    UtiliaToolLauncher::migrate();
    EXPECT_THAT(log_.lines(), ElementsAre("No tools were migrated to UtiliaToolLauncher."));
    EXPECT_TRUE(UtiliaToolLauncher::getDefaults()->boolForKey(kToolLauncherMigratedKey));
    EXPECT_EQ(list(), std::nullopt);
    EXPECT_FALSE(isLauncherAnItem());

    const TestBundle legacy = legacyIn(home_, "old", "Clipboard History");
    ASSERT_TRUE(CommonAuxiliary::sharedInstance().addAppToLoginItems(legacy.path()));
    log_.clear();
    UtiliaToolLauncher::migrate();
    EXPECT_THAT(log_.lines(), IsEmpty());
    EXPECT_TRUE(CommonAuxiliary::sharedInstance().findAppInLoginItems(legacy.path()));

    setExtendedLoggingProbe([] { return true; });
    UtiliaToolLauncher::migrate();
    setExtendedLoggingProbe({});
    EXPECT_THAT(log_.lines(), ElementsAre("Migration of autostarted tools has been already done."));
}

TEST_F(UtiliaToolLauncherTest, AMigrationThatFailsIsNotTriedAgain) {
    fs::create_symlink("autostart", home_.config() / "autostart");
    UtiliaToolLauncher::migrate();
    EXPECT_TRUE(UtiliaToolLauncher::getDefaults()->boolForKey(kToolLauncherMigratedKey));
    log_.clear();
    fs::remove(home_.config() / "autostart");
    UtiliaToolLauncher::migrate();
    EXPECT_THAT(log_.lines(), IsEmpty());
}

UTILIA_CHILD_ROLE(migrateTools) {
    const TestLog log;
    self.say("ready");
    self.waitForLine();
    UtiliaToolLauncher::migrate();
    std::string lines;
    for (const std::string& line : log.lines()) lines += line + "|";
    self.say(lines);
    return 0;
}

TEST_F(UtiliaToolLauncherTest, ManyProcessesThatMigrateAtTheSameTimeDoItOnce) {
    std::vector<TestBundle> legacies;
    for (const char* name : {"FreeMemoryLauncher", "Hide Menu Icons", "Clipboard History"}) {
        legacies.push_back(legacyIn(home_, "old", name));
        ASSERT_TRUE(CommonAuxiliary::sharedInstance().addAppToLoginItems(legacies.back().path()));
    }
    std::vector<test::ChildProcess> children;
    for (int i = 0; i < 12; ++i) children.push_back(test::ChildProcess::role("migrateTools"));
    for (auto& child : children) ASSERT_EQ(child.waitForLine(), "ready");
    for (auto& child : children) child.say("go");
    std::vector<std::string> said;
    for (auto& child : children) said.push_back(child.waitForLine().value_or("(none)"));
    std::sort(said.begin(), said.end());
    EXPECT_EQ(said.back(), "Tool com.korvane.utilia.FreeMemory is migrated to UtiliaToolLauncher.|"
                           "Tool com.korvane.utilia.HideMenuIcons is migrated to "
                           "UtiliaToolLauncher.|"
                           "Tool com.korvane.utilia.ClipboardHistory is migrated to "
                           "UtiliaToolLauncher.|");
    said.pop_back();
    EXPECT_THAT(said, testing::Each(""));
    EXPECT_EQ(list(), (Array{"com.korvane.utilia.FreeMemory", "com.korvane.utilia.HideMenuIcons",
                             "com.korvane.utilia.ClipboardHistory"}));
    for (const TestBundle& legacy : legacies)
        EXPECT_FALSE(CommonAuxiliary::sharedInstance().findAppInLoginItems(legacy.path()));
    EXPECT_TRUE(isLauncherAnItem());
}

TEST_F(UtiliaToolLauncherTest, MigratesAlsoWithoutARuntimeFolderForItsLock) {
    setenv("XDG_RUNTIME_DIR", (home_.path() / "absent").c_str(), 1);
    UtiliaToolLauncher::migrate();
    EXPECT_EQ(log_.count("No tools were migrated to UtiliaToolLauncher."), 1u);
    EXPECT_TRUE(UtiliaToolLauncher::getDefaults()->boolForKey(kToolLauncherMigratedKey));
}

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST_F(UtiliaToolLauncherTest, ThePreferencesAreTheBytesOfTheFormatsPage) {
    UtiliaToolLauncher::migrate();
    UtiliaToolLauncher::addToolToLaunchAtLogin(kTool);
    EXPECT_EQ(contentOf(UtiliaToolLauncher::getDefaults()->path()),
              contentOf(std::string(test::places::kTestData) + "/launch-at-login.plist"));
}

UTILIA_CHILD_ROLE(tellDefaults) {
    const auto defaults = UtiliaToolLauncher::getDefaults();
    self.say(defaults->path());
    self.say(defaults.get() == &platform::UserDefaults::standardUserDefaults() ? "own" : "other");
    return 0;
}

TEST_F(UtiliaToolLauncherTest, TheAgentAloneUsesItsOwnPreferences) {
    const std::string file = (home_.config() / "korvane-utilia/com.korvane.utilia.plist").string();
    const struct {
        const char* identifier;
        const char* whose;
    } table[] = {
        {"com.korvane.utilia", "own"},
        {"com.korvane.Utilia", "other"},
        {"com.korvane.utilia.Timer", "other"},
        {"", "other"},
    };
    int number = 0;
    for (const auto& row : table) {
        test::TestBundleOptions options;
        options.name = "Application " + std::to_string(++number);
        options.bundleIdentifier = row.identifier;
        auto child = TestBundle(home_, options).role("tellDefaults");
        EXPECT_EQ(child.waitForLine(), file) << row.identifier;
        EXPECT_EQ(child.waitForLine(), row.whose) << row.identifier;
    }
}

}  // namespace
}  // namespace utilia
