// The programs that start login items in real sessions, on the entries that we write: systemd's
// generator, GLib's parser (which the GTK desktops use), and a plain runner for window managers.

#include <filesystem>
#include <fstream>
#include <sstream>

#include <sys/stat.h>

#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ReportPipe.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia {
namespace {

using test::ChildProcess;
using test::TestBundle;
using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<std::string> filesIn(const fs::path& folder) {
    std::vector<std::string> paths;
    if (!fs::exists(folder)) return paths;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.is_regular_file()) paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

// The one command of a unit: ExecStart=:"/path with\"escapes\"" or without quotes.
std::string commandOf(const std::string& unit) {
    std::istringstream lines(contentOf(unit));
    for (std::string line; std::getline(lines, line);) {
        constexpr std::string_view kKey = "ExecStart=:";
        if (!line.starts_with(kKey)) continue;
        std::string command;
        bool isEscaped = false;
        for (const char c : line.substr(kKey.size())) {
            if (!isEscaped && c == '"') continue;
            isEscaped = !isEscaped && c == '\\';
            if (!isEscaped) command += c;
        }
        return command;
    }
    return "(none)";
}

// Folders whose names need quoting in one way or another.
const std::vector<std::string> kFolders{"plain",  "two words", "$HOME",   "a`id`b", "a\"q\"b",
                                        "it's",   "a;b&c|d",   "ünï€",    "(a)",    "a#b~c",
                                        "a${b}c", "a*?b",      "<a>[b]!", ",:@+"};
// As of version 252 systemd's generator takes no backslash, and neither it nor GLib 2.74 takes "%%"
// for "%" in a program's path. The entries are valid all the same, and sessions may read them.
const std::vector<std::string> kFoldersWithBackslash{"a\\b", "a\\n", "\\"};
const std::vector<std::string> kFoldersWithPercent{"100%", "%f%%"};

std::vector<std::string> operator+(std::vector<std::string> left,
                                   const std::vector<std::string>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class SessionRunners : public testing::Test {
protected:
    // An application that reports its own path when it is started.
    TestBundle reporting(const std::string& folder) {
        test::TestBundleOptions options;
        options.folder = home_.path() / folder;
        const TestBundle bundle(home_, options);
        fs::remove(bundle.program());
        std::ofstream(bundle.program())
            << "#!/bin/sh\nprintf '%s\\n' \"$0\" >'" << reports_.path() << "'\n";
        chmod(bundle.program().c_str(), 0755);
        return bundle;
    }
    std::string entry() const { return filesIn(home_.config() / "autostart").at(0); }

    std::string run(const std::string& program, const std::vector<std::string>& arguments) {
        test::ChildProcessOptions options;
        options.standardOutput = home_.path() / "out";
        options.standardError = home_.path() / "out";
        options.environment = {{"SYSTEMD_LOG_TARGET", "console"}};
        auto child = ChildProcess::program(program, arguments, options);
        const auto status = child.waitForExit();
        const std::string said = contentOf(home_.path() / "out");
        fs::remove(home_.path() / "out");
        EXPECT_EQ(status, 0) << program << ": " << said;
        return said;
    }
    // The units that systemd makes of the autostart folders.
    std::vector<std::string> units() {
        const fs::path folder = home_.path() / "units";
        fs::remove_all(folder);
        fs::create_directory(folder);
        run(UTILIA_AUTOSTART_GENERATOR, {folder, folder, folder});
        return filesIn(folder);
    }
    static CommonAuxiliary& auxiliary() { return CommonAuxiliary::sharedInstance(); }

    test::TemporaryHome home_;
    test::ReportPipe reports_{home_.path()};
};

TEST_F(SessionRunners, OurEntriesAreValid) {
    for (const std::string& folder : kFolders + kFoldersWithBackslash + kFoldersWithPercent) {
        const TestBundle app = reporting(folder);
        ASSERT_TRUE(auxiliary().addAppToLoginItems(app.path())) << folder;
        EXPECT_TRUE(auxiliary().findAppInLoginItems(app.path())) << folder;
        EXPECT_EQ(run(UTILIA_DESKTOP_FILE_VALIDATE, {entry()}), "") << folder;
        ASSERT_TRUE(auxiliary().removeAppFromLoginItems(app.path()));
    }
}

TEST_F(SessionRunners, SystemdStartsOurItemFromAnyFolder) {
    for (const std::string& folder : kFolders) {
        const TestBundle app = reporting(folder);
        ASSERT_TRUE(auxiliary().addAppToLoginItems(app.path())) << folder;
        const auto made = units();
        ASSERT_EQ(made.size(), 1u) << folder;
        EXPECT_EQ(commandOf(made[0]), app.program());
        auto child = ChildProcess::program(commandOf(made[0]), {});
        EXPECT_EQ(reports_.waitForLine(), app.program());
        EXPECT_EQ(child.waitForExit(), 0);
        ASSERT_TRUE(auxiliary().removeAppFromLoginItems(app.path()));
    }
}

TEST_F(SessionRunners, GLibStartsOurItemFromAnyFolder) {
    for (const std::string& folder : kFolders + kFoldersWithBackslash) {
        const TestBundle app = reporting(folder);
        ASSERT_TRUE(auxiliary().addAppToLoginItems(app.path())) << folder;
        run(UTILIA_GIO, {"launch", entry()});
        EXPECT_EQ(reports_.waitForLine(), app.program());
        ASSERT_TRUE(auxiliary().removeAppFromLoginItems(app.path()));
    }
}

TEST_F(SessionRunners, APlainRunnerStartsOurItem) {
    const TestBundle app = reporting("two words ünï€");
    ASSERT_TRUE(auxiliary().addAppToLoginItems(app.path()));
    run(UTILIA_DEX, {"--autostart"});
    EXPECT_EQ(reports_.waitForLine(), app.program());
}

TEST_F(SessionRunners, WhatIsSwitchedOffIsStartedByNobodyUntilItIsAddedAgain) {
    const TestBundle app = reporting("plain");
    const fs::path provided = home_.systemConfig() / "autostart/provided.desktop";
    const fs::path foreign = home_.config() / "autostart/foreign.desktop";
    for (const fs::path& path : {provided, foreign}) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "[Desktop Entry]\nType=Application\nName=x\nExec=\"" << app.program()
                            << "\"\n";
        ASSERT_EQ(units().size(), 1u) << path;
        ASSERT_TRUE(auxiliary().removeAppFromLoginItems(app.path()));
        EXPECT_THAT(units(), IsEmpty()) << path;
        EXPECT_EQ(run(UTILIA_DEX, {"--autostart", "--dry-run"}).find(app.program()),
                  std::string::npos);
        ASSERT_TRUE(auxiliary().addAppToLoginItems(app.path()));
        EXPECT_EQ(units().size(), 1u) << path;
        EXPECT_NE(run(UTILIA_DEX, {"--autostart", "--dry-run"}).find(app.program()),
                  std::string::npos);
        fs::remove(path);
    }
}

TEST_F(SessionRunners, AnItemWhoseApplicationHasGoneIsPassedOver) {
    const TestBundle app = reporting("plain");
    ASSERT_TRUE(auxiliary().addAppToLoginItems(app.path()));
    fs::remove_all(app.path());
    EXPECT_THAT(units(), IsEmpty());
}

}  // namespace
}  // namespace utilia
