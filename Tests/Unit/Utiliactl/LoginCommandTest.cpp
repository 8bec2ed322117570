#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia {
namespace {

using test::ChildProcess;
using test::TestBundle;
using testing::HasSubstr;

namespace fs = std::filesystem;

constexpr const char* kTimer = "com.korvane.utilia.Timer";

UTILIA_CHILD_ROLE(runListedTool) {
    if (!platform::RunningApplication::registerCurrentApplication()) return 1;
    self.say("up");
    self.waitForLine();
    return 0;
}

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

struct Answer {
    int status = -1;
    std::string out;
    std::string err;

    friend bool operator==(const Answer&, const Answer&) = default;
};

void PrintTo(const Answer& answer, std::ostream* stream) {
    *stream << "status " << answer.status << ", out \"" << answer.out << "\", err \"" << answer.err
            << "\"";
}

// With an agent, its launcher, and the tool Timer installed; the machine's settings are the test's.
class LoginCommand : public testing::Test {
protected:
    LoginCommand() {
        agent_.install("none");
        timer_.install("none");
    }

    TestBundle bundle(const std::string& name, const std::string& identifier,
                      const fs::path& folder = {}) {
        test::TestBundleOptions options;
        options.name = name;
        options.bundleIdentifier = identifier;
        options.folder = folder;
        return TestBundle(home_, options);
    }
    Answer login(std::vector<std::string> arguments) {
        test::ChildProcessOptions options;
        options.standardOutput = home_.path() / "out";
        options.standardError = home_.path() / "err";
        options.mounts = &mounts_;
        fs::remove(options.standardOutput);
        fs::remove(options.standardError);
        arguments.insert(arguments.begin(), "login");
        auto child = ChildProcess::program(test::places::kControlProgram, arguments, options);
        const int status = child.waitForExit().value_or(-1);
        return {status, contentOf(options.standardOutput), contentOf(options.standardError)};
    }
    static void setList(Array list) {
        UtiliaToolLauncher::getDefaults()->setObject(std::move(list), kLaunchAtLoginToolsKey);
    }
    static std::optional<Array> list() {
        return UtiliaToolLauncher::getDefaults()->arrayForKey(kLaunchAtLoginToolsKey);
    }

    test::TemporaryHome home_;
    test::PrivateMounts mounts_;
    TestBundle agent_ = bundle("Korvane Utilia", "com.korvane.utilia");
    TestBundle launcher_ = bundle("Utilia Tool Launcher", "com.korvane.utilia.ToolLauncher",
                                  agent_.path() + "/Contents/Applications");
    TestBundle timer_ = bundle("Timer", kTimer);
    fs::path entry_ = home_.config() / "autostart/com.korvane.utilia.ToolLauncher.desktop";
};

TEST_F(LoginCommand, SaysThatNothingIsListed) {
    EXPECT_EQ(login({"list"}), (Answer{0,
                                       "Launcher:    \"" + launcher_.path() +
                                           "\"\nLogin entry: none\n\n"
                                           "No tool is to be started at login.\n",
                                       ""}));
    EXPECT_EQ(login({"list", "--json"}), (Answer{0,
                                                 "{\n"
                                                 "  \"launcher\": \"" +
                                                     launcher_.path() +
                                                     "\",\n"
                                                     "  \"loginItem\": false,\n"
                                                     "  \"entry\": null,\n"
                                                     "  \"tools\": []\n"
                                                     "}\n",
                                                 ""}));
}

TEST_F(LoginCommand, ListsToolsWithWhatBecomesOfThem) {
    mounts_.writeSettings(R"({"WhiteToolsList": ["Timer"]})");
    bundle("Memory", "com.korvane.utilia.FreeMemory").install("none");
    ASSERT_EQ(login({"add", "com.korvane.utilia.FreeMemory"}).status, 0);
    ASSERT_EQ(login({"add", kTimer}).status, 0);
    Array all = *list();
    all.append("com.example.gone");
    all.append(4711);
    setList(all);
    auto running = timer_.role("runListedTool");
    ASSERT_EQ(running.waitForLine(), "up");
    const Answer text = login({"list"});
    EXPECT_EQ(text, (Answer{0,
                            "Launcher:    \"" + launcher_.path() + "\"\nLogin entry: \"" +
                                entry_.string() +
                                "\"\n\n"
                                "BUNDLE IDENTIFIER              INSTALLED  RUNNING  RESTRICTED\n"
                                "com.korvane.utilia.FreeMemory  yes        no       yes\n"
                                "com.korvane.utilia.Timer       yes        yes      no\n"
                                "com.example.gone               no         no       no\n",
                            ""}));
    const auto json = nlohmann::json::parse(login({"list", "--json"}).out);
    EXPECT_EQ(json["loginItem"], true);
    EXPECT_EQ(json["entry"], entry_.string());
    EXPECT_EQ(json["tools"].size(), 3u);
    EXPECT_EQ(json["tools"][0], (nlohmann::json{{"bundleid", "com.korvane.utilia.FreeMemory"},
                                                {"installed", true},
                                                {"running", false},
                                                {"restricted", true}}));
    EXPECT_EQ(json["tools"][1]["running"], true);
    EXPECT_EQ(json["tools"][2]["installed"], false);
}

TEST_F(LoginCommand, WithoutAnAgentThereIsNoLauncher) {
    fs::remove_all(agent_.path());
    EXPECT_THAT(login({"list", "--json"}).out, HasSubstr("\"launcher\": null"));
    const Answer given = login({"add", kTimer});
    EXPECT_EQ(given.status, 1);
    EXPECT_EQ(given.out, "");
    EXPECT_EQ(given.err, "utiliactl: com.korvane.utilia.Timer is in the list, but the launcher "
                         "could not be made a login item\n");
}

TEST_F(LoginCommand, AddsAToolOnceAndEnsuresTheEntry) {
    EXPECT_EQ(login({"add", kTimer}),
              (Answer{0, "com.korvane.utilia.Timer is started at login.\n", ""}));
    EXPECT_EQ(list(), Array{kTimer});
    EXPECT_TRUE(fs::exists(entry_));
    fs::remove(entry_);
    EXPECT_EQ(login({"add", kTimer}),
              (Answer{0, "com.korvane.utilia.Timer was in the list already.\n", ""}));
    EXPECT_EQ(list(), Array{kTimer});
    EXPECT_TRUE(fs::exists(entry_));
}

TEST_F(LoginCommand, DoesNotAddWhatIsNotInstalled) {
    EXPECT_EQ(login({"add", "com.example.gone"}),
              (Answer{1, "", "utiliactl: \"com.example.gone\" is not installed\n"}));
    EXPECT_EQ(login({"add", "../evil"}),
              (Answer{1, "",
                      "Workspace: \"../evil\" is no bundle identifier\nutiliactl: \"../evil\" is "
                      "not installed\n"}));
    EXPECT_EQ(list(), std::nullopt);
    EXPECT_FALSE(fs::exists(entry_));
}

TEST_F(LoginCommand, RemovesAToolAndWithTheLastOneTheEntry) {
    ASSERT_EQ(login({"add", kTimer}).status, 0);
    EXPECT_EQ(login({"remove", "com.example.gone"}),
              (Answer{0, "\"com.example.gone\" was not in the list.\n", ""}));
    EXPECT_TRUE(fs::exists(entry_));
    EXPECT_EQ(login({"remove", kTimer}),
              (Answer{0, "com.korvane.utilia.Timer is no longer started at login.\n", ""}));
    EXPECT_EQ(list(), Array());
    EXPECT_FALSE(fs::exists(entry_));
}

TEST_F(LoginCommand, SaysWhichPartCouldNotBeDone) {
    fs::create_symlink("autostart", home_.config() / "autostart");
    const Answer listed = login({"list"});
    EXPECT_EQ(listed.status, 1);
    EXPECT_EQ(listed.out, "");
    EXPECT_THAT(listed.err,
                HasSubstr("utiliactl: open " + (home_.config() / "autostart").string()));
    const Answer removed = login({"remove", kTimer});
    EXPECT_EQ(removed.status, 1);
    EXPECT_EQ(removed.out, "");
    EXPECT_THAT(removed.err, HasSubstr("could not be taken out of the login items"));
}

TEST_F(LoginCommand, SaysWhenTheListCannotBeStored) {
    fs::create_directories(home_.config() / "korvane-utilia/com.korvane.utilia.plist");
    const Answer added = login({"add", kTimer});
    EXPECT_EQ(added.status, 1);
    EXPECT_THAT(added.err, HasSubstr("utiliactl: the list cannot be stored\n"));
}

TEST_F(LoginCommand, AnswersWrongUsageWithStatus2) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                      {"nonsense"},
                                                      {"add"},
                                                      {"remove"},
                                                      {"add", "a", "b"},
                                                      {"list", "a"},
                                                      {"add", "a", "--json"}}) {
        EXPECT_EQ(login(arguments).status, 2);
    }
    EXPECT_EQ(login({"--help"}).status, 0);
}

}  // namespace
}  // namespace utilia
