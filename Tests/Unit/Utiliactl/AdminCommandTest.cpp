// Long file: the settings file with everything that can be wrong with it, through one fixture.

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

constexpr uid_t kNobody = 65534;
const std::string kFile = "/etc/com.korvane.utilia/settings.conf";

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct stat statusOf(const fs::path& path) {
    struct stat found {};
    EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
    return found;
}

struct Answer {
    int status = -1;
    std::string out;
    std::string err;
};

class AdminCommand : public testing::Test {
protected:
    AdminCommand() {
        mounts_.replaceGroups("root:x:0:\nadmin:x:4711:\nusers:x:100:\n");
        fs::permissions(home_.path(), fs::perms(0777));
    }

    Answer run(const std::vector<std::string>& arguments, uid_t user = static_cast<uid_t>(-1)) {
        test::ChildProcessOptions options;
        options.standardOutput = home_.path() / "out";
        options.standardError = home_.path() / "err";
        options.user = user;
        options.mounts = &mounts_;
        options.environment = environment_;
        fs::remove(options.standardOutput);
        fs::remove(options.standardError);
        auto child = test::ChildProcess::program(test::places::kControlProgram, arguments, options);
        const int status = child.waitForExit().value_or(-1);
        return {status, contentOf(options.standardOutput), contentOf(options.standardError)};
    }
    std::string answer(const std::vector<std::string>& arguments) {
        const Answer given = run(arguments);
        EXPECT_EQ(given.status, 0) << given.err;
        EXPECT_EQ(given.err, "");
        return given.out;
    }
    std::string settings() const { return contentOf(mounts_.settingsFile()); }
    // What "admin check" finds, as "severity message".
    std::vector<std::string> findings(int expectedStatus) {
        const Answer given = run({"admin", "check", "--json"});
        EXPECT_EQ(given.status, expectedStatus) << given.out << given.err;
        std::vector<std::string> texts;
        const json answer = json::parse(given.out);
        EXPECT_EQ(answer.at("valid").get<bool>(), expectedStatus == 0);
        for (const json& finding : answer.at("findings")) {
            texts.push_back(finding.at("severity").get<std::string>() + " " +
                            finding.at("message").get<std::string>());
        }
        return texts;
    }

    const test::TemporaryHome home_;
    test::PrivateMounts mounts_;
    std::map<std::string, std::string> environment_;
};

TEST_F(AdminCommand, ShowsTheSettings) {
    EXPECT_EQ(answer({"admin", "show"}), kFile + " does not exist: nothing is restricted.\n");
    EXPECT_EQ(json::parse(answer({"admin", "show", "--json"})),
              (json{{"file", kFile}, {"exists", false}, {"settings", nullptr}}));
    mounts_.writeSettings(R"({"UpdatesDisabled": true, "WhiteToolsList": ["Timer"]})");
    EXPECT_EQ(answer({"admin", "show"}),
              "\"UpdatesDisabled\": true\n\"WhiteToolsList\":\n  - \"Timer\"\n");
    EXPECT_EQ(answer({"admin", "show", "--json"}), "{\n  \"file\": \"" + kFile +
                                                       "\",\n  \"exists\": true,\n"
                                                       "  \"settings\": {\n"
                                                       "    \"UpdatesDisabled\": true,\n"
                                                       "    \"WhiteToolsList\": [\n"
                                                       "      \"Timer\"\n    ]\n  }\n}\n");
    mounts_.writeSettings("{\n  oops\n}");
    const Answer damaged = run({"admin", "show"});
    EXPECT_EQ(damaged.status, 1);
    EXPECT_EQ(damaged.out, "");
    EXPECT_EQ(damaged.err,
              "utiliactl: " + kFile + ": line 2, column 3: a key in quotes is missing\n");
}

TEST_F(AdminCommand, MakesTheSettingsForAWhiteList) {
    EXPECT_EQ(answer({"admin", "set-white-list", " Timer , moonphase"}), "");
    EXPECT_EQ(settings(), "{\n  \"WhiteToolsList\" : [\n    \"Timer\",\n    \"moonphase\"\n  ]\n}");
    EXPECT_EQ(statusOf(mounts_.settingsFile()).st_mode & 07777, 0664u);
    EXPECT_EQ(statusOf(mounts_.settingsFile()).st_gid, 4711u);
    EXPECT_EQ(statusOf(mounts_.settingsFolder()).st_mode & 07777, 0775u);
    EXPECT_EQ(statusOf(mounts_.settingsFolder()).st_gid, 4711u);
}

TEST_F(AdminCommand, KeepsOtherKeysOwnerGroupAndMode) {
    mounts_.writeSettings(R"({"Other": [1, null], "UpdatesDisabled": true})");
    ASSERT_EQ(chown(mounts_.settingsFile().c_str(), 0, 4711), 0);
    fs::permissions(mounts_.settingsFile(), fs::perms(0664));
    EXPECT_EQ(answer({"admin", "set-white-list", "business-toolset-only"}), "");
    EXPECT_EQ(json::parse(settings()), (json{{"Other", {1, nullptr}},
                                             {"UpdatesDisabled", true},
                                             {"WhiteToolsList", {"business-toolset-only"}}}));
    EXPECT_EQ(statusOf(mounts_.settingsFile()).st_mode & 07777, 0664u);
    EXPECT_EQ(statusOf(mounts_.settingsFile()).st_gid, 4711u);
    EXPECT_EQ(contentOf(mounts_.settingsFile().string() + ".previous"),
              R"({"Other": [1, null], "UpdatesDisabled": true})");
    EXPECT_EQ(statusOf(mounts_.settingsFile().string() + ".previous").st_mode & 07777, 0664u);
    EXPECT_EQ(answer({"admin", "clear-white-list"}), "");
    EXPECT_EQ(json::parse(settings()), (json{{"Other", {1, nullptr}}, {"UpdatesDisabled", true}}));
    EXPECT_EQ(answer({"admin", "set-white-list", "Timer"}), "");
    EXPECT_EQ(answer({"admin", "set-white-list", "  "}), "");
    EXPECT_EQ(json::parse(settings()), (json{{"Other", {1, nullptr}}, {"UpdatesDisabled", true}}));
}

TEST_F(AdminCommand, LeavesNothingBehindWhereNothingChanges) {
    EXPECT_EQ(answer({"admin", "clear-white-list"}), "");
    EXPECT_FALSE(fs::exists(mounts_.settingsFolder()));
    mounts_.writeSettings("{ }");
    EXPECT_EQ(answer({"admin", "clear-white-list"}), "");
    EXPECT_EQ(settings(), "{ }");
    EXPECT_FALSE(fs::exists(mounts_.settingsFile().string() + ".previous"));
}

TEST_F(AdminCommand, RefusesTheSubsetBesideNames) {
    const Answer given = run({"admin", "set-white-list", "Timer, business-toolset-only"});
    EXPECT_EQ(given.status, 2);
    EXPECT_EQ(given.err,
              "utiliactl: TOOLS: \"business-toolset-only\" stands alone, not beside other "
              "names\nRun \"utiliactl admin set-white-list --help\" for more.\n");
    EXPECT_EQ(run({"admin", "set-white-list", "business-toolset-only,"}).status, 2);
    EXPECT_FALSE(fs::exists(mounts_.settingsFolder()));
}

TEST_F(AdminCommand, WarnsOfNamesThatItStoresAllTheSame) {
    const Answer given = run({"admin", "set-white-list", "Timerr,,Timer"});
    EXPECT_EQ(given.status, 0);
    EXPECT_EQ(given.err, "warning: \"WhiteToolsList\" holds \"Timerr\", which names no tool and is "
                         "ignored\nwarning: \"WhiteToolsList\" holds \"\", which names no tool and "
                         "is ignored\n");
    EXPECT_EQ(json::parse(settings()), (json{{"WhiteToolsList", {"Timerr", "", "Timer"}}}));
}

TEST_F(AdminCommand, TakesJsonAndPlainTextAsValues) {
    const std::vector<std::pair<std::string, json>> table{{"true", true},
                                                          {" 5 ", 5},
                                                          {"1.5", 1.5},
                                                          {"plain text", "plain text"},
                                                          {"truely", "truely"},
                                                          {"1,2", "1,2"},
                                                          {"", ""},
                                                          {"\"true\"", "true"},
                                                          {"[1, \"a\"]", {1, "a"}},
                                                          {"{\"a\": {}}", {{"a", json::object()}}}};
    for (const auto& [text, value] : table) {
        EXPECT_EQ(answer({"admin", "set", "Key", text}), "") << text;
        EXPECT_EQ(json::parse(settings()), (json{{"Key", value}})) << text;
    }
    EXPECT_EQ(answer({"admin", "set", "Key", "null"}), "");
    EXPECT_EQ(settings(), "{\n\n}");
    for (const char* text : {"[1,]", "{a: 1}", "\"open", "[1],[2]"}) {
        const Answer given = run({"admin", "set", "Key", text});
        EXPECT_EQ(given.status, 2);
        EXPECT_THAT(given.err, StartsWith("utiliactl: the value begins like JSON and is none: "));
    }
    EXPECT_EQ(settings(), "{\n\n}");
}

TEST_F(AdminCommand, RefusesAnotherTypeForAKeyThatIsItsOwn) {
    EXPECT_EQ(run({"admin", "set", "UpdatesDisabled", "yes"}).err,
              "utiliactl: UpdatesDisabled takes true or false\n"
              "Run \"utiliactl admin set --help\" for more.\n");
    EXPECT_EQ(run({"admin", "set", "WhiteToolsList", "Timer"}).status, 2);
    EXPECT_FALSE(fs::exists(mounts_.settingsFolder()));
    EXPECT_EQ(answer({"admin", "set", "UpdatesDisabled", "true"}), "");
    EXPECT_EQ(answer({"admin", "set", "WhiteToolsList", "[\"Timer\"]"}), "");
    EXPECT_EQ(json::parse(settings()),
              (json{{"UpdatesDisabled", true}, {"WhiteToolsList", {"Timer"}}}));
}

TEST_F(AdminCommand, RefusesToChangeADamagedFile) {
    mounts_.writeSettings("{\"WhiteToolsList\": [\"Timer\"");
    const Answer given = run({"admin", "set", "Key", "1"});
    EXPECT_EQ(given.status, 1);
    EXPECT_EQ(given.err,
              "utiliactl: " + kFile +
                  ": line 1, column 28: \",\" or \"]\" is missing; correct it or move it "
                  "away before it is changed\n");
    EXPECT_EQ(settings(), "{\"WhiteToolsList\": [\"Timer\"");
}

TEST_F(AdminCommand, NeverWritesThroughALink) {
    fs::create_directory(mounts_.settingsFolder());
    std::ofstream(mounts_.etc() / "victim") << "{}";
    fs::create_symlink("/etc/victim", mounts_.settingsFile());
    const Answer given = run({"admin", "set", "Key", "1"});
    EXPECT_EQ(given.status, 1);
    EXPECT_THAT(given.err, HasSubstr("utiliactl: " + kFile + " cannot be changed: "));
    EXPECT_EQ(contentOf(mounts_.etc() / "victim"), "{}");
}

TEST_F(AdminCommand, TellsOtherUsersWhatItTakes) {
    Answer given = run({"admin", "set-white-list", "Timer"}, kNobody);
    EXPECT_EQ(given.status, 1);
    EXPECT_EQ(given.out, "");
    EXPECT_THAT(given.err,
                HasSubstr("utiliactl: " + kFile + " cannot be changed: making it takes root\n"));
    mounts_.writeSettings("{}");
    given = run({"admin", "set-white-list", "Timer"}, kNobody);
    EXPECT_EQ(given.status, 1);
    EXPECT_THAT(given.err, StartsWith("utiliactl: " + kFile + " cannot be changed: "));
    EXPECT_THAT(given.err,
                HasSubstr("(it takes root, or membership in the administrators' group)\n"));
    EXPECT_EQ(settings(), "{}");
    EXPECT_EQ(run({"admin", "show"}, kNobody).status, 0);
    EXPECT_EQ(run({"policy"}, kNobody).status, 0);
}

TEST_F(AdminCommand, AFullDiskLosesNothing) {
    // Room for the file and not for its copy.
    mounts_.limitSpace("/etc/com.korvane.utilia", 4096);
    fs::create_directory(mounts_.settingsFolder());
    const std::string script = "printf '{\"Key\": 1}' > " + kFile + " && " +
                               test::places::kControlProgram + " admin set Key 2; echo $?; cat " +
                               kFile + "; ls /etc/com.korvane.utilia";
    test::ChildProcessOptions options;
    options.standardOutput = home_.path() / "out";
    options.standardError = home_.path() / "err";
    options.mounts = &mounts_;
    auto child = test::ChildProcess::program("/bin/sh", {"-c", script}, options);
    EXPECT_EQ(child.waitForExit(), 0);
    EXPECT_EQ(contentOf(options.standardOutput), "1\n{\"Key\": 1}settings.conf\n");
    EXPECT_THAT(contentOf(options.standardError), HasSubstr("No space left on device"));
}

#ifndef UTILIA_FAULTS_WITHOUT_MEMORY  // a program with a sanitizer takes no other library first

TEST_F(AdminCommand, AWriteThatFailsHalfWayIsUndone) {
    mounts_.writeSettings("{\"Key\": 1}");
    // The first write is that of the copy; the second finds an emptied file.
    const test::TemporaryFolder faults;
    environment_ = test::preload(faults.path(), {.call = kUtiliaFaultWrite, .error = ENOSPC}, 2);
    const Answer given = run({"admin", "set", "Key", "2"});
    EXPECT_EQ(given.status, 1);
    EXPECT_THAT(given.err, HasSubstr("utiliactl: " + kFile +
                                     " cannot be changed: the write failed "
                                     "(error 640); it is as it was\n"));
    EXPECT_EQ(settings(), "{\"Key\": 1}");
}

TEST_F(AdminCommand, AWriteThatCannotBeUndoneNamesTheCopy) {
    mounts_.writeSettings("{\"Key\": 1}");
    const test::TemporaryFolder faults;
    environment_ = test::preload(faults.path(), {.call = kUtiliaFaultTruncate, .error = EIO}, 1,
                                 test::FaultRepetition::ForEver);
    const Answer given = run({"admin", "set", "Key", "2"});
    EXPECT_EQ(given.status, 1);
    EXPECT_THAT(given.err,
                HasSubstr("the write failed (error 512) and left it damaged; what it held "
                          "is in " +
                          kFile + ".previous\n"));
    EXPECT_EQ(contentOf(mounts_.settingsFile().string() + ".previous"), "{\"Key\": 1}");
}

#endif

TEST_F(AdminCommand, AReadOnlyDiskIsSaid) {
    mounts_.writeSettings("{}");
    mounts_.makeReadOnly("/etc/com.korvane.utilia");
    const Answer given = run({"admin", "set", "Key", "2"});
    EXPECT_EQ(given.status, 1);
    EXPECT_THAT(given.err, HasSubstr(kFile + " cannot be changed: "));
    EXPECT_THAT(given.err, HasSubstr("Read-only file system"));
}

TEST_F(AdminCommand, ChecksWhatIsInOrder) {
    EXPECT_EQ(findings(0),
              std::vector<std::string>{"notice it does not exist, so that nothing is restricted"});
    EXPECT_EQ(answer({"admin", "set-white-list", "Timer"}), "");
    EXPECT_EQ(findings(0), std::vector<std::string>());
    EXPECT_EQ(answer({"admin", "check"}), kFile + " is in order.\n");
}

TEST_F(AdminCommand, ChecksWhatTheSettingsSay) {
    mounts_.writeSettings(R"({"UpdatesDisabled": 1, "Own": true, "whitetoolslist": [],
                              "WhiteToolsList": ["Timer", "timer", "Nonesuch", 5]})");
    EXPECT_EQ(
        findings(1),
        (std::vector<std::string>{
            "error \"UpdatesDisabled\" is neither true nor false: 1",
            "notice the key \"Own\" is unknown here; an application may know it",
            "warning the key \"whitetoolslist\" has no effect: letter case counts, and it is "
            "spelled \"WhiteToolsList\"",
            "notice \"WhiteToolsList\" names a tool again: \"timer\"",
            "warning \"WhiteToolsList\" holds \"Nonesuch\", which names no tool and is ignored",
            "warning \"WhiteToolsList\" holds 5, which is no text and is ignored"}));
    mounts_.writeSettings(R"({"WhiteToolsList": "Timer"})");
    EXPECT_EQ(
        findings(1),
        std::vector<std::string>{
            "error \"WhiteToolsList\" is no array, so that every tool is forbidden: \"Timer\""});
    mounts_.writeSettings(R"({"WhiteToolsList": []})");
    EXPECT_EQ(findings(0), std::vector<std::string>{"notice every tool is forbidden"});
    mounts_.writeSettings(R"({"HideRestrictedTools": true})");
    EXPECT_EQ(findings(0), std::vector<std::string>());
    mounts_.writeSettings(R"({"HideRestrictedTools": "yes"})");
    EXPECT_EQ(findings(1), std::vector<std::string>{
                               "error \"HideRestrictedTools\" is neither true nor false: \"yes\""});
    mounts_.writeSettings(R"({"WhiteToolsList": ["business-toolset-only", "Timer"]})");
    EXPECT_EQ(findings(0), std::vector<std::string>{
                               "warning \"WhiteToolsList\" holds \"business-toolset-only\", "
                               "beside which other entries do not count"});
}

TEST_F(AdminCommand, NamesThePlaceOfAMistake) {
    mounts_.writeSettings("{\n  \"WhiteToolsList\": [\"Timer\",]\n}");
    const Answer plain = run({"admin", "check"});
    EXPECT_EQ(plain.status, 1);
    EXPECT_EQ(plain.out, "error: " + kFile +
                             ": line 2, column 30: it cannot be used, so that nothing is "
                             "restricted: a value is missing\n");
    mounts_.writeSettings("{\"Own\": 1,\n \"Own\": 2}");
    const json answer = json::parse(run({"admin", "check", "--json"}).out);
    EXPECT_EQ(answer.at("findings").at(0),
              (json{{"severity", "warning"},
                    {"path", kFile},
                    {"line", 2},
                    {"column", 2},
                    {"message", "the key \"Own\" is there twice; the last one counts"}}));
}

TEST_F(AdminCommand, FindsFilesThatTheFrameworkCannotUse) {
    const auto only = [&] {
        const auto all = findings(1);
        EXPECT_EQ(all.size(), 1u);
        return all.empty() ? "" : all.front();
    };
    mounts_.writeSettings("[]");
    EXPECT_EQ(only(), "error it cannot be used, so that nothing is restricted: the settings are an "
                      "array and no object");
    mounts_.writeSettings(std::string((4u << 20) + 1, ' '));
    EXPECT_THAT(only(), StartsWith("error it cannot be used, so that nothing is restricted: "));
    fs::remove(mounts_.settingsFile());
    ASSERT_EQ(mkfifo(mounts_.settingsFile().c_str(), 0644), 0);
    EXPECT_EQ(only(), "error it is no regular file, so that nothing is restricted");
}

TEST_F(AdminCommand, FindsWhoElseCouldChangeTheSettings) {
    const fs::path file = mounts_.settingsFile();
    const fs::path folder = mounts_.settingsFolder();
    mounts_.writeSettings("{}");
    fs::permissions(file, fs::perms(0646));
    EXPECT_EQ(findings(1), std::vector<std::string>{"error every user may write it"});
    fs::permissions(file, fs::perms(0664));
    ASSERT_EQ(chown(file.c_str(), 0, 100), 0);
    EXPECT_EQ(findings(1),
              std::vector<std::string>{"error group 100 may write it, which is not the "
                                       "administrators' group"});
    ASSERT_EQ(chown(file.c_str(), 0, 4711), 0);
    EXPECT_EQ(findings(0), std::vector<std::string>());
    ASSERT_EQ(chown(file.c_str(), kNobody, 4711), 0);
    EXPECT_EQ(findings(1), std::vector<std::string>{"error it belongs to user 65534, who is no "
                                                    "administrator and may change it"});
    mounts_.replaceGroups("root:x:0:\nadmin:x:4711:nobody\n");
    EXPECT_EQ(findings(0), std::vector<std::string>()) << "now he is one";
    ASSERT_EQ(chown(file.c_str(), 0, 0), 0);
    fs::permissions(file, fs::perms(0640));
    EXPECT_EQ(findings(1), std::vector<std::string>{"error users may not read it, so that their "
                                                    "tools are not restricted"});
    fs::permissions(file, fs::perms(0644));
    fs::permissions(folder, fs::perms(0777));
    EXPECT_EQ(findings(1), std::vector<std::string>{"error every user may write it"});
    fs::permissions(folder, fs::perms(0750));
    EXPECT_EQ(findings(1), std::vector<std::string>{
                               "error users may not enter it, so that their tools do not see "
                               "the settings and are not restricted"});
}

TEST_F(AdminCommand, FindsLinks) {
    mounts_.writeSettings("{}");
    fs::rename(mounts_.settingsFile(), mounts_.etc() / "elsewhere");
    fs::create_symlink("/etc/elsewhere", mounts_.settingsFile());
    EXPECT_EQ(findings(0), std::vector<std::string>{
                               "warning it is a link: tools read what it leads to, but it is never "
                               "written, and who may change that is not checked"});
    fs::remove(mounts_.etc() / "elsewhere");
    const auto dangling = findings(1);
    ASSERT_EQ(dangling.size(), 2u);
    EXPECT_EQ(dangling[1], "error it is a link that leads nowhere, so that nothing is restricted");
}

TEST_F(AdminCommand, TellsThePolicyOfOneTool) {
    const auto policy = [&](const std::string& tool) {
        return json::parse(answer({"policy", tool, "--json"}));
    };
    const auto expected = [](bool isAllowed, const char* reason, const json& key,
                             const json& value) {
        return json{{"tool", "Timer"},      {"bundleid", "com.korvane.utilia.Timer"},
                    {"allowed", isAllowed}, {"reason", reason},
                    {"file", kFile},        {"key", key},
                    {"value", value}};
    };
    EXPECT_EQ(policy("Timer"), expected(true, "no-settings", nullptr, nullptr));
    mounts_.writeSettings("{}");
    EXPECT_EQ(policy("timer"), expected(true, "no-white-list", nullptr, nullptr));
    mounts_.writeSettings("damaged");
    EXPECT_EQ(policy("timer"), expected(true, "unusable-settings", nullptr, nullptr));
    mounts_.writeSettings(R"({"WhiteToolsList": ["tIMER", 5]})");
    EXPECT_EQ(policy("COM.korvane.utilia.timer"),
              expected(true, "listed", "WhiteToolsList", "tIMER"));
    mounts_.writeSettings(R"({"WhiteToolsList": ["MoonPhase"]})");
    EXPECT_EQ(policy("Timer"), expected(false, "not-listed", "WhiteToolsList", json{"MoonPhase"}));
    mounts_.writeSettings(R"({"WhiteToolsList": ["x", "business-toolset-only"]})");
    EXPECT_EQ(policy("Timer"),
              expected(true, "in-subset", "WhiteToolsList", "business-toolset-only"));
    EXPECT_EQ(policy("ConvertVideo").at("reason"), "not-in-subset");
    mounts_.writeSettings(R"({"WhiteToolsList": true})");
    const Answer given = run({"policy", "Timer", "--json"});
    EXPECT_EQ(json::parse(given.out), expected(false, "not-an-array", "WhiteToolsList", true));
}

TEST_F(AdminCommand, TellsThePolicyOfAllToolsInTheOrderOfTheCatalogue) {
    mounts_.writeSettings(R"({"WhiteToolsList": ["Timer", "moonphase"]})");
    const json all = json::parse(answer({"policy", "--json"}));
    std::vector<std::string> identifiers;
    std::vector<std::string> allowed;
    for (const json& tool : all) {
        identifiers.push_back(tool.at("bundleid").get<std::string>());
        if (tool.at("allowed").get<bool>()) allowed.push_back(tool.at("tool").get<std::string>());
    }
    EXPECT_EQ(identifiers, ToolSets::fullSet());
    EXPECT_EQ(allowed, (std::vector<std::string>{"MoonPhase", "Timer"}));
    const std::string table = answer({"policy"});
    EXPECT_THAT(table, StartsWith("TOOL                ALLOWED  BECAUSE\n"
                                  "AlarmClock          no       not in WhiteToolsList\n"));
    EXPECT_THAT(table, HasSubstr("MoonPhase           yes      \"moonphase\" in WhiteToolsList\n"));
    EXPECT_THAT(table, HasSubstr("\nSettings: " + kFile + "\n"));
}

TEST_F(AdminCommand, SaysWhenTheCatalogueHasNoSuchTool) {
    for (const char* tool : {"Nonesuch", "", "com.korvane.utilia", "com.korvane.utilia."}) {
        const Answer given = run({"policy", tool});
        EXPECT_EQ(given.status, 1);
        EXPECT_EQ(given.out, "");
        EXPECT_EQ(given.err,
                  "utiliactl: the catalogue has no tool \"" + std::string(tool) + "\"\n");
    }
}

TEST_F(AdminCommand, AnswersHelpAndWrongUsage) {
    for (const std::vector<std::string>& command : {std::vector<std::string>{"admin"},
                                                    {"admin", "show"},
                                                    {"admin", "set-white-list"},
                                                    {"admin", "clear-white-list"},
                                                    {"admin", "set"},
                                                    {"admin", "check"},
                                                    {"policy"}}) {
        std::vector<std::string> arguments = command;
        arguments.push_back("--help");
        EXPECT_THAT(answer(arguments), HasSubstr("Usage: utiliactl"));
    }
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"admin"},
                                                      {"admin", "nonsense"},
                                                      {"admin", "set"},
                                                      {"admin", "set", "Key"},
                                                      {"admin", "set-white-list"},
                                                      {"admin", "clear-white-list", "x"},
                                                      {"policy", "a", "b"}}) {
        EXPECT_EQ(run(arguments).status, 2);
    }
}

}  // namespace
}  // namespace utilia
