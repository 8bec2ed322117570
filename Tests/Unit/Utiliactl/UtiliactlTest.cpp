#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia {
namespace {

using test::ChildProcess;
using test::TemporaryHome;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;

UTILIA_CHILD_ROLE(holdPorts) {
    std::vector<std::shared_ptr<platform::Port>> ports;
    for (const std::string& name : self.arguments) {
        ports.push_back(platform::Port::port());
        if (!platform::PortNameServer::systemDefaultPortNameServer().registerPort(ports.back(),
                                                                                  name))
            return 1;
    }
    self.say("registered");
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
};

class Utiliactl : public testing::Test {
protected:
    Answer run(const std::vector<std::string>& arguments) {
        test::ChildProcessOptions options;
        options.standardOutput = home_.path() / "out";
        options.standardError = home_.path() / "err";
        fs::remove(options.standardOutput);
        fs::remove(options.standardError);
        auto child = ChildProcess::program(test::places::kControlProgram, arguments, options);
        const int status = child.waitForExit().value_or(-1);
        return {status, contentOf(options.standardOutput), contentOf(options.standardError)};
    }
    // What a successful call writes.
    std::string answer(const std::vector<std::string>& arguments) {
        const Answer given = run(arguments);
        EXPECT_EQ(given.status, 0) << given.err;
        EXPECT_EQ(given.err, "");
        return given.out;
    }

    TemporaryHome home_;
};

TEST_F(Utiliactl, TellsItsVersionAndHelp) {
    EXPECT_EQ(answer({"--version"}), "utiliactl " UTILIA_VERSION "\n");
    for (const std::vector<std::string>& command : {std::vector<std::string>{},
                                                    {"ports"},
                                                    {"port-name"},
                                                    {"store"},
                                                    {"store", "dump"},
                                                    {"store", "get"},
                                                    {"schedule"},
                                                    {"schedule", "list"},
                                                    {"schedule", "add"},
                                                    {"schedule", "cancel"},
                                                    {"descriptions"},
                                                    {"descriptions", "save"},
                                                    {"descriptions", "show"},
                                                    {"descriptions", "remove"},
                                                    {"suggestions"},
                                                    {"suggestions", "pause"},
                                                    {"suggestions", "resume"},
                                                    {"suggestions", "status"},
                                                    {"tools"},
                                                    {"events"},
                                                    {"events", "path"},
                                                    {"events", "show"},
                                                    {"events", "log"},
                                                    {"extended-logging"}}) {
        std::vector<std::string> arguments = command;
        arguments.push_back("--help");
        EXPECT_THAT(answer(arguments), HasSubstr("Usage: utiliactl"));
    }
}

TEST_F(Utiliactl, NamesASubcommandThatThereIsNot) {
    const auto wrong = [this](const std::vector<std::string>& arguments) {
        const Answer given = run(arguments);
        EXPECT_EQ(given.status, 2);
        EXPECT_EQ(given.out, "");
        return given.err;
    };
    EXPECT_EQ(wrong({"bogus"}), "utiliactl: \"bogus\" is no subcommand of \"utiliactl\"\n"
                                "Run \"utiliactl --help\" for more.\n");
    EXPECT_THAT(wrong({"dr"}), StartsWith("utiliactl: \"dr\" is no subcommand"));
    EXPECT_THAT(wrong({"--bogus"}),
                StartsWith("utiliactl: \"--bogus\" is no option of \"utiliactl\"\n"));
    EXPECT_EQ(wrong({"store", "bogus"}),
              "utiliactl: \"bogus\" is no subcommand of \"utiliactl store\"\n"
              "Run \"utiliactl store --help\" for more.\n");
    EXPECT_THAT(wrong({"store"}),
                HasSubstr("A subcommand is required\nRun \"utiliactl store --help"));
    EXPECT_THAT(wrong({"store", "dump", "--bogus"}),
                HasSubstr("--bogus\nRun \"utiliactl store dump --help\" for more.\n"));
}

TEST_F(Utiliactl, HelpEndsWithWhereThereIsMoreAndTheExitStatuses) {
    EXPECT_THAT(answer({"--help"}), HasSubstr("\"utiliactl SUBCOMMAND --help\" tells more"));
    EXPECT_THAT(answer({"store", "--help"}),
                HasSubstr("\"utiliactl store SUBCOMMAND --help\" tells more"));
    EXPECT_THAT(answer({"store", "dump", "--help"}), Not(HasSubstr("SUBCOMMAND --help")));
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"--help"}, {"store", "dump", "--help"}, {"doctor", "--help"}})
        EXPECT_THAT(answer(command), HasSubstr("Exit status: 0 done, 1 "));
}

TEST_F(Utiliactl, SaysThatItsHelpCannotBeWritten) {
    auto child = ChildProcess::program(
        test::places::kControlProgram, {"--help"},
        {.standardError = home_.path() / "err", .standardOutput = "/dev/full"});
    EXPECT_EQ(child.waitForExit(), 1);
    EXPECT_THAT(contentOf(home_.path() / "err"), StartsWith("utiliactl: write standard output: "));
}

TEST_F(Utiliactl, AnswersWrongUsageWithStatus2) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                      {"nonsense"},
                                                      {"--nonsense"},
                                                      {"ports", "--nonsense"},
                                                      {"ports", "more"},
                                                      {"port-name"},
                                                      {"port-name", "/a.app", "--canonical"},
                                                      {"store"},
                                                      {"store", "get"},
                                                      {"schedule"},
                                                      {"extended-logging"},
                                                      {"extended-logging", "maybe"}}) {
        const Answer given = run(arguments);
        EXPECT_EQ(given.status, 2);
        EXPECT_EQ(given.out, "");
        EXPECT_THAT(given.err, StartsWith("utiliactl: "));
    }
}

TEST_F(Utiliactl, SaysWhenItsAnswerCannotBeWritten) {
    test::ChildProcessOptions options;
    options.standardOutput = "/dev/full";
    options.standardError = home_.path() / "err";
    auto child = ChildProcess::program(test::places::kControlProgram, {"ports"}, options);
    EXPECT_EQ(child.waitForExit(), 1);
    EXPECT_EQ(contentOf(home_.path() / "err"),
              "utiliactl: write standard output: No space left on device\n");
}

TEST_F(Utiliactl, ListsLiveAndStalePorts) {
    EXPECT_EQ(answer({"ports"}), "No port is registered.\n");
    EXPECT_EQ(answer({"ports", "--json"}), "[]\n");
    auto live = ChildProcess::role("holdPorts", {"b.port"});
    auto dead = ChildProcess::role("holdPorts", {"a.port"});
    ASSERT_EQ(live.waitForLine(), "registered");
    ASSERT_EQ(dead.waitForLine(), "registered");
    dead.kill();
    const std::string pid = std::to_string(live.pid());
    EXPECT_EQ(answer({"ports", "--json"}), "[\n"
                                           "  {\n"
                                           "    \"name\": \"a.port\",\n"
                                           "    \"live\": false,\n"
                                           "    \"pid\": null\n"
                                           "  },\n"
                                           "  {\n"
                                           "    \"name\": \"b.port\",\n"
                                           "    \"live\": true,\n"
                                           "    \"pid\": " +
                                               pid + "\n  }\n]\n");
    const std::string blanks(pid.size() < 5 ? 5 - pid.size() : 0, ' ');
    const std::string wide(pid.size() > 5 ? pid.size() - 5 : 0, ' ');
    EXPECT_EQ(answer({"ports"}), "STATE  OWNER" + wide + "  NAME\nstale  -    " + wide +
                                     "  a.port\nlive   " + pid + blanks + "  b.port\n");
}

TEST_F(Utiliactl, SaysWhenTheRuntimeFolderCannotBeUsed) {
    const fs::path folder = home_.runtime() / "com.korvane.utilia";
    fs::create_directory(folder);
    fs::permissions(folder, fs::perms(0755));
    const Answer given = run({"ports"});
    EXPECT_EQ(given.status, 1);
    EXPECT_EQ(given.err,
              "utiliactl: the runtime folder of this login cannot be used: " + folder.string() +
                  ": other users may enter it (its mode must be 0700)\n");
}

TEST_F(Utiliactl, TellsPortNamesOfPaths) {
    const std::string prefix = "7QK2M9ZD4R.com.korvane.utilia.tool.";
    EXPECT_EQ(answer({"port-name", "/Applications/Sample Tool.app"}),
              prefix + "58f7ceb296f135f1\n");
    EXPECT_EQ(answer({"port-name", "/Applications/Sample Tool.app/"}),
              prefix + "58f7ceb296f135f1\n");
    EXPECT_EQ(answer({"port-name", "/Applications/Renamed Copy.app", "--canonical", "Sample Tool"}),
              prefix + "58f7ceb296f135f1\n");
    EXPECT_EQ(answer({"port-name", "--canonical=時計", "/Applications/日本語.app"}),
              prefix + "af8ae914e517d12\n");
    const Answer empty = run({"port-name", ""});
    EXPECT_EQ(empty.status, 1);
    EXPECT_EQ(empty.err, "utiliactl: an empty path names no bundle\n");
}

TEST_F(Utiliactl, TellsThePortNameThatAnExistingBundleHas) {
    test::TestBundleOptions options;
    options.canonicalName = "Canonical";
    const test::TestBundle bundle(home_, options);
    fs::create_directory_symlink(bundle.path(), home_.path() / "Link.app");
    const std::string canonical =
        (fs::path(bundle.path()).parent_path() / "Canonical.app").string();
    const std::string expected = answer({"port-name", canonical});
    EXPECT_EQ(answer({"port-name", bundle.path()}), expected);
    EXPECT_EQ(answer({"port-name", (home_.path() / "Link.app").string()}), expected);
    EXPECT_EQ(
        answer({"port-name", bundle.path(), "--canonical", "Other"}),
        answer({"port-name", (fs::path(bundle.path()).parent_path() / "Other.app").string()}));
}

TEST_F(Utiliactl, ShowsTheSharedStore) {
    EXPECT_EQ(answer({"store", "dump"}), "{}\n");
    EXPECT_EQ(answer({"store", "dump", "--json"}), "{}\n");
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        suite.setObject(Array{1, 2.5, true}, "List");
        suite.setObject(Dictionary{{"date", Date{0.25}}, {"data", Data{255}}}, "Record");
    });
    EXPECT_EQ(answer({"store", "get", "List"}), "- 1\n- 2.5\n- true\n");
    EXPECT_EQ(answer({"store", "get", "List", "--json"}), "[\n  1,\n  2.5,\n  true\n]\n");
    EXPECT_EQ(answer({"store", "get", "--json", "Record"}),
              "{\n  \"date\": \"2001-01-01T00:00:00.250Z\",\n  \"data\": \"/w==\"\n}\n");
    EXPECT_EQ(answer({"store", "dump"}), "\"List\":\n  - 1\n  - 2.5\n  - true\n"
                                         "\"Record\":\n  \"date\": 2001-01-01T00:00:00.250Z\n"
                                         "  \"data\": <1 bytes> /w==\n");
}

TEST_F(Utiliactl, NamesTheKeyThatTheStoreHasNot) {
    for (const auto& arguments : {std::vector<std::string>{"store", "get", "Missing"},
                                  {"store", "get", "Missing", "--json"}}) {
        const Answer given = run(arguments);
        EXPECT_EQ(given.status, 1);
        EXPECT_EQ(given.out, "");
        EXPECT_EQ(given.err, "utiliactl: the store has no key \"Missing\"\n");
    }
}

TEST_F(Utiliactl, SaysWhenTheContainerCannotBeUsed) {
    std::ofstream(home_.data() / "korvane-utilia") << "a file in the way";
    for (const auto& arguments : {std::vector<std::string>{"store", "dump"},
                                  {"store", "get", "x"},
                                  {"schedule", "list"},
                                  {"tools"}}) {
        const Answer given = run(arguments);
        EXPECT_EQ(given.status, 1);
        EXPECT_EQ(given.out, "");
        EXPECT_THAT(given.err, HasSubstr((home_.data() / "korvane-utilia").string()));
        EXPECT_THAT(
            given.err,
            HasSubstr(
                "utiliactl: the container of 7QK2M9ZD4R.com.korvane.utilia cannot be used\n"));
    }
}

TEST_F(Utiliactl, ListsTheSchedule) {
    EXPECT_EQ(answer({"schedule", "list"}), "No tool is scheduled.\n");
    EXPECT_EQ(answer({"schedule", "list", "--json"}), "[]\n");
    updateSchedulerPlist("com.korvane.utilia.timer", "Timer", [](Dictionary& record) {
        record.set(kSchedulerLaunchAtDateKey, true);
        record.set(kSchedulerDateKey, Date{636613567.123});
        record.set(kSchedulerIntervalKey, 604800.5);
    });
    updateSchedulerPlist("com.korvane.utilia.clock", "Clock",
                         [](Dictionary& record) { record.set(kSchedulerLaunchAtLoginKey, true); });
    EXPECT_EQ(answer({"schedule", "list", "--json"}), R"([
  {
    "bundleid": "com.korvane.utilia.timer",
    "name": "Timer",
    "launchAtDate": true,
    "date": "2021-03-05T05:06:07.123Z",
    "interval": 604800.5,
    "launchAtLogin": false
  },
  {
    "bundleid": "com.korvane.utilia.clock",
    "name": "Clock",
    "launchAtDate": false,
    "date": null,
    "interval": 0,
    "launchAtLogin": true
  }
]
)");
    EXPECT_EQ(
        answer({"schedule", "list"}),
        "BUNDLE IDENTIFIER         NAME   AT DATE  DATE (UTC)                INTERVAL  AT LOGIN\n"
        "com.korvane.utilia.timer  Timer  yes      2021-03-05T05:06:07.123Z  604800.5  no\n"
        "com.korvane.utilia.clock  Clock  no       -                         0         yes\n");
}

TEST_F(Utiliactl, ListsWhatToolsLeftBehind) {
    EXPECT_EQ(answer({"tools"}), "No tool has left anything behind.\n");
    EXPECT_EQ(answer({"tools", "--json"}), "[]\n");
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        suite.setObject(Dictionary{{"com.korvane.utilia.clip_Clip_board.app",
                                    Dictionary{{"Permanent", true}, {"MenuText", "3 entries"}}},
                                   {"com.korvane.utilia.old_Old.app", Dictionary{}}},
                        kToolPersistentDataKey);
    });
    const ToolPersistentDataReader reader("Clip_board.app", "com.korvane.utilia.clip");
    const std::string icon = *reader.getMenuIconPath();
    const Data picture{1};
    const std::vector<platform::FileManager::ExtendedAttribute> attributes{
        {std::string(kTemplateAttribute), Data{1}}};
    ASSERT_TRUE(platform::FileManager::writeAtomically(icon, picture, attributes));
    EXPECT_EQ(answer({"tools", "--json"}), R"([
  {
    "bundleid": "com.korvane.utilia.clip",
    "name": "Clip_board.app",
    "permanent": true,
    "menuText": "3 entries",
    "toolIcon": null,
    "menuIcon": ")" + icon + R"(",
    "menuIconIsTemplate": true
  },
  {
    "bundleid": "com.korvane.utilia.old",
    "name": "Old.app",
    "permanent": false,
    "menuText": null,
    "toolIcon": null,
    "menuIcon": null,
    "menuIconIsTemplate": false
  }
]
)");
    EXPECT_EQ(answer({"tools"}),
              "BUNDLE IDENTIFIER        NAME            PERMANENT  ICON  MENU ICON  MENU TEXT\n"
              "com.korvane.utilia.clip  Clip_board.app  yes        no    template   \"3 entries\"\n"
              "com.korvane.utilia.old   Old.app         no         no    no         -\n");
}

TEST_F(Utiliactl, SurvivesAStoreOfOtherTypes) {
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        suite.setObject(Array{1, Dictionary{{"date", "soon"}, {"interval", "often"}, {"name", 5}}},
                        kSchedulerKey);
        suite.setObject(
            Dictionary{{"no separator", Dictionary{}}, {"a_b.app", 3}, {"../x_../y", Dictionary{}}},
            kToolPersistentDataKey);
    });
    EXPECT_THAT(answer({"schedule", "list", "--json"}),
                HasSubstr("\"date\": null,\n    \"interval\": 0"));
    EXPECT_THAT(answer({"tools", "--json"}),
                HasSubstr("\"bundleid\": \"no separator\",\n    \"name\": \"\""));
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        suite.setObject("text", kSchedulerKey);
        suite.setObject("text", kToolPersistentDataKey);
    });
    EXPECT_EQ(answer({"schedule", "list", "--json"}), "[]\n");
    EXPECT_EQ(answer({"tools", "--json"}), "[]\n");
}

TEST_F(Utiliactl, TurnsExtendedLoggingOnAndOff) {
    EXPECT_EQ(answer({"extended-logging", "status"}), "off\n");
    EXPECT_EQ(answer({"extended-logging", "on"}), "on\n");
    EXPECT_EQ(answer({"extended-logging", "status"}), "on\n");
    const auto preferences = platform::FileManager::contentsAtPath(
        (home_.config() / "korvane-utilia/com.korvane.utilia.plist").string(),
        platform::kPropertyListMaximumSize);
    ASSERT_TRUE(preferences);
    EXPECT_EQ(platform::propertyListFromData(*preferences).value(),
              Value(Dictionary{{"ExtendedLogging", true}}));
    EXPECT_EQ(answer({"extended-logging", "off"}), "off\n");
    EXPECT_EQ(answer({"extended-logging", "status"}), "off\n");
}

TEST_F(Utiliactl, SaysWhenThePreferencesCannotBeWritten) {
    std::ofstream(home_.config() / "korvane-utilia") << "a file in the way";
    const Answer given = run({"extended-logging", "on"});
    EXPECT_EQ(given.status, 1);
    EXPECT_EQ(given.out, "");
    EXPECT_THAT(given.err, HasSubstr((home_.config() / "korvane-utilia").string()));
    EXPECT_THAT(given.err, HasSubstr("utiliactl: "));
}

}  // namespace
}  // namespace utilia
