#include "Common/Platform/Workspace.h"

#include <filesystem>
#include <fstream>

#include <sys/stat.h>

#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Applications/TestFiles.h"

namespace utilia::platform {
namespace {

using test::TemporaryHome;
using test::TestBundle;
using test::TestLog;
using testing::HasSubstr;
using testing::IsEmpty;

namespace fs = std::filesystem;

constexpr const char* kIdentifier = "com.korvane.utilia.SampleTool";

TEST(Workspace, AnswersTheBundleOfAnInstalledApplication) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    EXPECT_EQ(Workspace::URLForApplicationWithBundleIdentifier(kIdentifier), std::nullopt);
    bundle.install("reportingApplication");
    EXPECT_EQ(Workspace::URLForApplicationWithBundleIdentifier(kIdentifier), bundle.path());
    fs::remove_all(bundle.path());
    EXPECT_EQ(Workspace::URLForApplicationWithBundleIdentifier(kIdentifier), std::nullopt);
}

TEST(Workspace, TellsWhatIsNotInstalledFromWhatIsDamaged) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    const auto code = [] {
        const auto found = Workspace::findApplicationWithBundleIdentifier(kIdentifier);
        return found ? 0 : found.error().code;
    };
    constexpr int kNotInstalled = static_cast<int>(UtiliaErrorCode::NotFound);
    constexpr int kDamaged = static_cast<int>(UtiliaErrorCode::Refused);
    const fs::path entry = home.data() / "applications" / (std::string(kIdentifier) + ".desktop");

    EXPECT_EQ(code(), kNotInstalled);
    bundle.install("reportingApplication");
    const auto found = Workspace::findApplicationWithBundleIdentifier(kIdentifier);
    ASSERT_TRUE(found);
    EXPECT_EQ(*found, bundle.path());

    fs::rename(bundle.path() + "/Contents/Linux/tool", home.path() / "elsewhere");
    EXPECT_EQ(code(), kDamaged) << "without its program";
    fs::rename(home.path() / "elsewhere", bundle.path() + "/Contents/Linux/tool");
    test::writeFile(fs::path(bundle.path()) / "Contents/Info.plist", "no property list");
    EXPECT_EQ(code(), kDamaged) << "with a damaged Info.plist";
    fs::remove_all(bundle.path());
    EXPECT_EQ(code(), kDamaged) << "without its bundle";
    test::writeFile(entry, "no desktop entry");
    EXPECT_EQ(code(), kDamaged) << "with a damaged desktop entry";
    test::writeFile(entry, "[Desktop Entry]\nType=Application\nName=x\nExec=/x\nHidden=true\n");
    EXPECT_EQ(code(), kNotInstalled) << "hidden by the user";
    EXPECT_NE(Workspace::findApplicationWithBundleIdentifier("../x").has_value(), true);
}

TEST(Workspace, AnswersBundlePathsWithoutSymbolicLinks) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    fs::create_directory_symlink(bundle.path(), home.path() / "Link.app");
    test::writeFile(home.data() / "applications" / (std::string(kIdentifier) + ".desktop"),
                    "[Desktop Entry]\nType=Application\nName=x\nExec=" +
                        (home.path() / "Link.app/Contents/Linux/tool").string() + "\n");
    EXPECT_EQ(Workspace::URLForApplicationWithBundleIdentifier(kIdentifier), bundle.path());
}

TEST(Workspace, TheBundleMustBearTheIdentifierOfItsEntry) {
    const TemporaryHome home;
    test::TestBundleOptions options;
    options.info.set("CFBundleIdentifier", "com.example.another");
    const TestBundle bundle(home, options);
    bundle.install("reportingApplication");
    EXPECT_EQ(Workspace::URLForApplicationWithBundleIdentifier(kIdentifier), std::nullopt);
    const auto launched =
        Workspace::launchAppWithBundleIdentifier(kIdentifier, WorkspaceLaunchOptions::None);
    ASSERT_FALSE(launched);
    EXPECT_EQ(launched.error().description, std::string(kIdentifier) +
                                                ": its desktop entry leads to " + bundle.path() +
                                                ", which is com.example.another");
}

TEST(Workspace, LogsADamagedEntryAndTakesItForNotInstalled) {
    const TemporaryHome home;
    test::writeFile(home.data() / "applications" / (std::string(kIdentifier) + ".desktop"),
                    "damaged");
    const TestLog log;
    EXPECT_EQ(Workspace::URLForApplicationWithBundleIdentifier(kIdentifier), std::nullopt);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_THAT(log.lines()[0], HasSubstr(std::string("Workspace: ") + home.data().string()));
}

TEST(Workspace, IdentifiersThatAreNoFileNamesAreNotInstalled) {
    const TemporaryHome home;
    const TestLog log;
    for (const std::string& identifier :
         {std::string(), std::string("../x"), std::string("a\0b", 3)}) {
        EXPECT_EQ(Workspace::URLForApplicationWithBundleIdentifier(identifier), std::nullopt);
        const auto launched =
            Workspace::launchAppWithBundleIdentifier(identifier, WorkspaceLaunchOptions::Async);
        ASSERT_FALSE(launched);
        EXPECT_TRUE(launched.error().is(UtiliaErrorCode::Refused));
    }
}

TEST(Workspace, WhatIsNotInstalledCannotBeLaunched) {
    const TemporaryHome home;
    for (const auto options : {WorkspaceLaunchOptions::None, WorkspaceLaunchOptions::Async}) {
        const auto launched = Workspace::launchAppWithBundleIdentifier(kIdentifier, options);
        ASSERT_FALSE(launched);
        EXPECT_TRUE(launched.error().is(UtiliaErrorCode::NotFound));
        EXPECT_THAT(launched.error().description, HasSubstr(kIdentifier));
    }
}

TEST(Workspace, AProgramThatCannotBeExecutedIsNamed) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    bundle.install("reportingApplication");
    fs::remove(bundle.program());
    test::writeFile(bundle.program(), "no program");
    chmod(bundle.program().c_str(), 0755);
    for (const auto options : {WorkspaceLaunchOptions::None, WorkspaceLaunchOptions::Async}) {
        const auto launched = Workspace::launchAppWithBundleIdentifier(kIdentifier, options);
        ASSERT_FALSE(launched);
        EXPECT_EQ(launched.error().description, std::string("launch ") + kIdentifier + ": start " +
                                                    bundle.program() + ": Exec format error");
    }
}

TEST(Workspace, ArgumentsThatCannotBeHandedOnAreRefused) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    bundle.install("reportingApplication");
    for (const auto options : {WorkspaceLaunchOptions::None, WorkspaceLaunchOptions::Async}) {
        const auto launched = Workspace::launchAppWithBundleIdentifier(kIdentifier, options,
                                                                       {std::string("a\0b", 3)});
        ASSERT_FALSE(launched);
        EXPECT_TRUE(launched.error().is(UtiliaErrorCode::Refused));
    }
    EXPECT_THAT(RunningApplication::runningApplicationsWithBundleIdentifier(kIdentifier),
                IsEmpty());
}

TEST(Workspace, APathThatIsNoApplicationCannotBeLaunched) {
    const TemporaryHome home;
    test::TestBundleOptions nameless;
    nameless.name = "Nameless";
    nameless.bundleIdentifier = "";
    test::TestBundleOptions programless;
    programless.name = "Programless";
    programless.info.set("CFBundleExecutable", "missing");
    test::TestBundleOptions outside;
    outside.name = "Outside";
    outside.info.set("CFBundleExecutable", "../Info.plist");
    const TestBundle linked(home, [] {
        test::TestBundleOptions options;
        options.name = "Linked";
        return options;
    }());
    fs::remove(linked.program());
    fs::create_symlink("/bin/true", linked.program());
    for (const std::string& path :
         {TestBundle(home, nameless).path(), TestBundle(home, programless).path(),
          TestBundle(home, outside).path(), linked.path(), home.path().string(),
          (home.path() / "missing.app").string(), std::string()}) {
        const auto launched =
            Workspace::launchApplicationAtPath(path, WorkspaceLaunchOptions::None);
        ASSERT_FALSE(launched) << path;
        EXPECT_TRUE(launched.error().is(UtiliaErrorCode::NotFound)) << path;
        EXPECT_THAT(launched.error().description, HasSubstr(path));
    }
}

}  // namespace
}  // namespace utilia::platform
