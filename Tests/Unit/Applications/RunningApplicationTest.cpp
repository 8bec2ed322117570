#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/Workspace.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Unit/Applications/TestFiles.h"

namespace utilia::platform {
namespace {

using test::ChildProcess;
using test::TemporaryHome;
using test::TestBundle;
using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

constexpr const char* kIdentifier = "com.korvane.utilia.SampleTool";

std::vector<std::int64_t> running(std::string_view identifier = kIdentifier) {
    std::vector<std::int64_t> processes;
    for (const auto& application :
         RunningApplication::runningApplicationsWithBundleIdentifier(identifier)) {
        EXPECT_EQ(application.bundleIdentifier(), identifier);
        processes.push_back(application.processIdentifier());
    }
    return processes;
}

std::string joined(const std::vector<std::int64_t>& processes) {
    std::string text;
    for (const std::int64_t process : processes) text += std::to_string(process) + " ";
    return text;
}

UTILIA_CHILD_ROLE(runAsApplication) {
    const auto registered = RunningApplication::registerCurrentApplication();
    self.say(registered ? "registered" : registered.error().description);
    for (std::string line = self.waitForLine(); !line.empty(); line = self.waitForLine()) {
        if (line == "register")
            self.say(RunningApplication::registerCurrentApplication() ? "registered" : "failed");
        if (line == "list") self.say(joined(running()));
        if (line == "list other") self.say(joined(running("com.korvane.utilia.other")));
        if (line == "fork") {
            const pid_t child = fork();
            if (child == 0) {
                self.say("child " + std::to_string(getpid()) + " sees " + joined(running()));
                pause();
            }
            self.say("forked " + std::to_string(child));
        }
    }
    return 0;
}

ChildProcess startAs(const TestBundle& bundle) {
    auto child = bundle.role("runAsApplication");
    EXPECT_EQ(child.waitForLine(), "registered");
    return child;
}

class RunningApplicationTest : public testing::Test {
protected:
    TemporaryHome home_;
    TestBundle bundle_{home_};
    fs::path list_ = home_.runtime() / "com.korvane.utilia/running/com.korvane.utilia.sampletool";
};

TEST_F(RunningApplicationTest, NobodyIsListedAtFirst) { EXPECT_THAT(running(), IsEmpty()); }

TEST_F(RunningApplicationTest, EveryProcessOfTheIdentifierIsListedInOrder) {
    std::vector<ChildProcess> children;
    std::vector<std::int64_t> expected;
    for (int i = 0; i < 8; ++i) {
        children.push_back(startAs(bundle_));
        expected.push_back(children.back().pid());
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(running(), expected);
    EXPECT_THAT(running("com.korvane.utilia.other"), IsEmpty());
}

TEST_F(RunningApplicationTest, AKilledProcessIsNotListedFromThatMomentOn) {
    auto first = startAs(bundle_);
    auto second = startAs(bundle_);
    first.kill();
    EXPECT_THAT(running(), ElementsAre(second.pid()));
    second.kill();
    EXPECT_THAT(running(), IsEmpty());
}

TEST_F(RunningApplicationTest, AProcessCountsItselfAndTheOthers) {
    auto other = startAs(bundle_);
    auto child = startAs(bundle_);
    child.say("list");
    std::vector<std::int64_t> expected{other.pid(), child.pid()};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(child.waitForLine(), joined(expected));
}

TEST_F(RunningApplicationTest, ListingDoesNotEndOnesOwnEntry) {
    auto child = startAs(bundle_);
    for (const char* question : {"list", "list other", "list"}) {
        child.say(question);
        child.waitForLine();
        EXPECT_THAT(running(), ElementsAre(child.pid()));
    }
}

TEST_F(RunningApplicationTest, RegisteringAgainChangesNothing) {
    auto child = startAs(bundle_);
    child.say("register");
    EXPECT_EQ(child.waitForLine(), "registered");
    EXPECT_THAT(running(), ElementsAre(child.pid()));
}

TEST_F(RunningApplicationTest, AForkedChildIsNotListedAndDoesNotKeepItsParentListed) {
    auto child = startAs(bundle_);
    child.say("fork");
    std::vector<std::string> lines{*child.waitForLine(), *child.waitForLine()};
    std::sort(lines.begin(), lines.end());  // "child …" before "forked …"
    const std::string forked = lines[1].substr(lines[1].find(' ') + 1);
    EXPECT_EQ(lines[0], "child " + forked + " sees " + joined({child.pid()}));
    EXPECT_THAT(running(), ElementsAre(child.pid()));
    child.kill();
    EXPECT_THAT(running(), IsEmpty());
    ::kill(std::stoi(forked), SIGKILL);
}

TEST_F(RunningApplicationTest, TheCaseOfLettersInAnIdentifierDoesNotMatter) {
    auto child = startAs(bundle_);
    EXPECT_THAT(running("COM.Korvane.utilia.sampleTOOL"), ElementsAre(child.pid()));
}

TEST_F(RunningApplicationTest, TheEntryHoldsInATemporaryFolderOfTheSameName) {
    // What a crashed login left behind names nobody.
    test::writeFile(list_, "4711\n");
    chmod((home_.runtime() / "com.korvane.utilia").c_str(), 0700);
    chmod((home_.runtime() / "com.korvane.utilia/running").c_str(), 0700);
    EXPECT_THAT(running(), IsEmpty());
    auto child = startAs(bundle_);
    EXPECT_THAT(running(), ElementsAre(child.pid()));
}

TEST_F(RunningApplicationTest, LocksThatMeanNothingAreNotListed) {
    auto child = startAs(bundle_);
    const pid_t stranger = fork();
    if (stranger == 0) {
        const int file = open(list_.c_str(), O_RDWR | O_CLOEXEC);
        struct flock byte {};
        byte.l_type = F_WRLCK;
        byte.l_start = child.pid() + 1;  // another process's byte
        byte.l_len = 3;
        _exit(fcntl(file, F_SETLK, &byte) == 0 && raise(SIGSTOP) == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(stranger, &status, WUNTRACED), stranger);
    ASSERT_TRUE(WIFSTOPPED(status));
    EXPECT_THAT(running(), ElementsAre(child.pid()));
    ::kill(stranger, SIGKILL);
    waitpid(stranger, &status, 0);
}

TEST_F(RunningApplicationTest, IdentifiersThatAreNoFileNamesHaveNoProcesses) {
    for (const std::string& identifier :
         {std::string(), std::string("."), std::string(".."), std::string("a/b"),
          std::string("../running/x"), std::string("a\0b", 3), std::string(171, 'a')}) {
        EXPECT_THAT(running(identifier), IsEmpty()) << identifier;
    }
}

TEST_F(RunningApplicationTest, AProgramWithoutABundleCannotRegister) {
    const auto registered = RunningApplication::registerCurrentApplication();
    ASSERT_FALSE(registered);
    EXPECT_TRUE(registered.error().is(UtiliaErrorCode::NotFound));
}

std::string refusalOf(const TestBundle& bundle) {
    auto child = bundle.role("runAsApplication");
    return child.waitForLine().value_or("(no answer)");
}

TEST_F(RunningApplicationTest, ABundleWithoutAnIdentifierCannotRegister) {
    test::TestBundleOptions options;
    options.name = "Nameless";
    options.bundleIdentifier = "";
    const TestBundle nameless(home_, options);
    EXPECT_EQ(refusalOf(nameless),
              "this program is no application: it has no bundle with an identifier");
}

TEST_F(RunningApplicationTest, AnIdentifierThatIsNoFileNameCannotRegister) {
    test::TestBundleOptions options;
    options.name = "Hostile";
    options.bundleIdentifier = "../../evil";
    const TestBundle hostile(home_, options);
    EXPECT_EQ(refusalOf(hostile), "../../evil: cannot be used as a bundle identifier");
    EXPECT_FALSE(fs::exists(home_.runtime() / "evil"));
}

TEST_F(RunningApplicationTest, ARuntimeFolderThatOthersMayEnterIsRefused) {
    const fs::path folder = home_.runtime() / "com.korvane.utilia";
    fs::create_directory(folder);
    chmod(folder.c_str(), 0755);
    EXPECT_EQ(refusalOf(bundle_),
              folder.string() + ": other users may enter it (its mode must be 0700)");
    EXPECT_THAT(running(), IsEmpty());
}

TEST_F(RunningApplicationTest, ALinkInPlaceOfTheListIsRefused) {
    startAs(bundle_).kill();
    const fs::path canary = home_.path() / "canary";
    test::writeFile(canary, "untouched");
    fs::remove(list_);
    fs::create_symlink(canary, list_);
    EXPECT_EQ(refusalOf(bundle_), "open " + list_.string() + ": Too many levels of symbolic links");
    EXPECT_EQ(fs::file_size(canary), 9u);
}

}  // namespace
}  // namespace utilia::platform
