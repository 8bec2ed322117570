// What the login items make of system calls that fail, and of death between any two of them: each
// change is made or it is not, one log line says so, and nothing is left lying about.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "Common/Platform/LoginItems.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

using test::FaultRun;
using test::forEachFault;
using test::TestBundle;

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class LoginItemFaults : public testing::Test {
protected:
    LoginItemFaults() { fs::create_directories(user_); }

    std::string entry(const std::string& marks = "") const {
        return "# mine\n[Desktop Entry]\n" + marks + "Type=Application\nName=x\nExec=\"" +
               app_.program() + "\"\n\n[Other]\na=b";
    }
    void write(const fs::path& path, const std::string& content) const {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }
    bool isItem() { return auxiliary_.findAppInLoginItems(app_.path()); }
    std::size_t filesInFolder() const {
        const fs::directory_iterator all(user_);
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }

    const test::TemporaryHome home_{test::folderInMemory()};
    test::TestLog log_;
    CommonAuxiliary auxiliary_;
    TestBundle app_{home_};
    fs::path user_ = home_.config() / "autostart";
    fs::path own_ = user_ / "com.korvane.utilia.SampleTool.desktop";
};

TEST_F(LoginItemFaults, AnEntryIsAddedWholeOrNotAtAll) {
    ASSERT_TRUE(auxiliary_.addAppToLoginItems(app_.path()));
    const std::string whole = contentOf(own_);
    bool isAdded = false;
    const std::size_t runs = forEachFault(
        test::storageFaults(),
        [&] {
            fs::remove(own_);
            log_.clear();
        },
        [&] { isAdded = auxiliary_.addAppToLoginItems(app_.path()); },
        [&](const FaultRun&) {
            // A bundle that cannot be read has a line of its own.
            EXPECT_EQ(log_.count("Login items: "), isAdded ? 0u : 1u);
            for (const auto& file : fs::directory_iterator(user_))
                EXPECT_EQ(contentOf(file.path()), whole) << file.path();
            EXPECT_EQ(isItem(), isAdded);
            for (const auto& file : fs::directory_iterator(user_)) fs::remove(file.path());
            EXPECT_TRUE(auxiliary_.addAppToLoginItems(app_.path())) << "the next call works";
            EXPECT_EQ(filesInFolder(), 1u);
        });
    EXPECT_GT(runs, 0u);
}

TEST_F(LoginItemFaults, AnEntryOfSomebodyElseIsSwitchedOffOrKept) {
    const fs::path foreign = user_ / "foreign.desktop";
    const std::size_t runs = forEachFault(
        test::storageFaults(),
        [&] {
            write(foreign, entry());
            log_.clear();
        },
        [&] { auxiliary_.removeAppFromLoginItems(app_.path()); },
        [&](const FaultRun&) {
            EXPECT_LE(log_.lines().size(), 1u);
            const std::string content = contentOf(foreign);
            EXPECT_TRUE(content == entry() || content == entry("Hidden=true\n")) << content;
            EXPECT_EQ(filesInFolder(), 1u);
            EXPECT_TRUE(auxiliary_.removeAppFromLoginItems(app_.path()));
            EXPECT_EQ(contentOf(foreign), entry("Hidden=true\n")) << "the next call works";
        });
    EXPECT_GT(runs, 0u);
}

TEST_F(LoginItemFaults, AnEntryOfTheSystemIsHiddenOrShows) {
    const fs::path provided = home_.systemConfig() / "autostart/provided.desktop";
    write(provided, entry());
    const fs::path copy = user_ / "provided.desktop";
    const std::size_t runs = forEachFault(
        test::storageFaults(), [&] { fs::remove(copy); },
        [&] { auxiliary_.removeAppFromLoginItems(app_.path()); },
        [&](const FaultRun&) {
            EXPECT_EQ(contentOf(provided), entry());
            EXPECT_EQ(isItem(), !fs::exists(copy));
            EXPECT_EQ(filesInFolder(), fs::exists(copy) ? 1u : 0u);
            EXPECT_TRUE(auxiliary_.removeAppFromLoginItems(app_.path()));
            EXPECT_EQ(contentOf(copy), entry("Hidden=true\n")) << "the next call works";
        });
    EXPECT_GT(runs, 0u);
}

TEST_F(LoginItemFaults, TheListKeepsItsToolsWhateverFails) {
    const auto list = [] {
        return UtiliaToolLauncher::getDefaults()->arrayForKey(kLaunchAtLoginToolsKey);
    };
    const Array before{"a", "b"};
    const std::size_t runs = forEachFault(
        test::storageFaults(),
        [&] { UtiliaToolLauncher::getDefaults()->setObject(before, kLaunchAtLoginToolsKey); },
        [&] { UtiliaToolLauncher::addToolToLaunchAtLogin("c"); },
        [&](const FaultRun&) {
            EXPECT_TRUE(list() == before || list() == (Array{"a", "b", "c"}));
            UtiliaToolLauncher::addToolToLaunchAtLogin("c");
            EXPECT_EQ(list(), (Array{"a", "b", "c"})) << "the next call works";
        });
    EXPECT_GT(runs, 0u);
}

TEST_F(LoginItemFaults, TheLauncherStaysAnItemWhileTheListHasATool) {
    test::TestBundleOptions options;
    options.name = "Korvane Utilia";
    options.bundleIdentifier = "com.korvane.utilia";
    const TestBundle agent(home_, options);
    agent.install("none");
    options.name = "Utilia Tool Launcher";
    options.bundleIdentifier = "com.korvane.utilia.ToolLauncher";
    options.folder = fs::path(agent.path()) / "Contents/Applications";
    const TestBundle launcher(home_, options);
    const std::size_t runs = forEachFault(
        test::storageFaults(), [] { UtiliaToolLauncher::addToolToLaunchAtLogin("a"); },
        [] { UtiliaToolLauncher::removeToolFromLaunchAtLogin("a"); },
        [&](const FaultRun&) {
            EXPECT_TRUE(!UtiliaToolLauncher::isToolInLaunchAtLogin("a") ||
                        auxiliary_.findAppInLoginItems(launcher.path()));
            EXPECT_TRUE(UtiliaToolLauncher::removeToolFromLaunchAtLogin("a"));
            EXPECT_FALSE(UtiliaToolLauncher::isToolInLaunchAtLogin("a"));
            EXPECT_FALSE(auxiliary_.findAppInLoginItems(launcher.path()));
        });
    EXPECT_GT(runs, 0u);
}

// Entries are parsed by GLib, which ends the process where memory runs out; the list is not.
TEST_F(LoginItemFaults, MissingMemoryIsAnAnswerOfNo) {
    UtiliaToolLauncher::getDefaults()->setObject(Array{"a", "b"}, kLaunchAtLoginToolsKey);
    bool isDone = false;
    std::size_t refusals = 0;
    std::size_t runs = forEachFault(
        test::memoryFaults(), [&] { log_.clear(); },
        [&] { isDone = UtiliaToolLauncher::isToolInLaunchAtLogin("a"); },
        [&](const FaultRun&) {
            refusals += isDone ? 0 : 1;
            EXPECT_TRUE(isDone || !log_.lines().empty()) << "it is said why";
            EXPECT_TRUE(UtiliaToolLauncher::isToolInLaunchAtLogin("a")) << "the next call works";
        });
    EXPECT_EQ(runs > 0, !test::memoryFaults().empty());
    EXPECT_EQ(refusals > 0, !test::memoryFaults().empty());
    runs = forEachFault(
        test::memoryFaults(),
        [&] {
            UtiliaToolLauncher::getDefaults()->setObject(Array{"a", "b"}, kLaunchAtLoginToolsKey);
            log_.clear();
        },
        [&] { isDone = UtiliaToolLauncher::removeToolFromLaunchAtLogin("b"); },
        [&](const FaultRun&) {
            EXPECT_TRUE(UtiliaToolLauncher::isToolInLaunchAtLogin("a"));
            // What could not be stored at once may be later; what is said to be done is.
            EXPECT_TRUE(!isDone || !UtiliaToolLauncher::isToolInLaunchAtLogin("b"));
            EXPECT_TRUE(isDone || !log_.lines().empty()) << "it is said why";
        });
    EXPECT_EQ(runs > 0, !test::memoryFaults().empty());
}

TEST_F(LoginItemFaults, AFullDiskIsOneLogLineAndTheOldList) {
    write(user_ / "foreign.desktop", entry("Hidden=true\n"));
    const test::ArmedFault full({.call = kUtiliaFaultWrite, .error = ENOSPC}, 1,
                                test::FaultRepetition::ForEver);
    EXPECT_FALSE(auxiliary_.addAppToLoginItems(app_.path()));
    EXPECT_THAT(log_.lines(),
                testing::ElementsAre("Login items: write " + (user_ / "foreign.desktop").string() +
                                     ": No space left on device"));
    EXPECT_EQ(contentOf(user_ / "foreign.desktop"), entry("Hidden=true\n"));
    EXPECT_EQ(filesInFolder(), 1u);
}

TEST_F(LoginItemFaults, DeathAtAnyMomentLeavesOneListOrTheOther) {
    ASSERT_TRUE(auxiliary_.addAppToLoginItems(app_.path()));
    const std::string whole = contentOf(own_);
    fs::remove(own_);
    const std::size_t points = test::forEachKillPoint(
        1,
        [&] {
            auxiliary_.addAppToLoginItems(app_.path());
            auxiliary_.removeAppFromLoginItems(app_.path());
        },
        [&](const test::KillPoint&) {
            EXPECT_TRUE(!fs::exists(own_) || contentOf(own_) == whole) << contentOf(own_);
            EXPECT_TRUE(auxiliary_.addAppToLoginItems(app_.path()));
            EXPECT_EQ(contentOf(own_), whole);
            EXPECT_EQ(filesInFolder(), 1u) << "what the dead one left is cleared away";
            fs::remove(own_);
        });
    EXPECT_GT(points, 0u);
}

TEST_F(LoginItemFaults, DeathAtAnyMomentKeepsAnEntryOfSomebodyElse) {
    const fs::path foreign = user_ / "foreign.desktop";
    write(foreign, entry());
    const std::size_t points = test::forEachKillPoint(
        1,
        [&] {
            auxiliary_.removeAppFromLoginItems(app_.path());
            auxiliary_.addAppToLoginItems(app_.path());
        },
        [&](const test::KillPoint&) {
            const std::string content = contentOf(foreign);
            EXPECT_TRUE(content == entry() || content == entry("Hidden=true\n")) << content;
            write(foreign, entry());
        });
    EXPECT_GT(points, 0u);
}

}  // namespace
}  // namespace utilia
