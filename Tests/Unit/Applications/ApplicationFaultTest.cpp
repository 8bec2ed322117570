#include <filesystem>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/Bundle.h"
#include "Common/Platform/Linux/DesktopEntry.h"
#include "Common/Platform/Workspace.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

using test::ArmedFault;
using test::Fault;
using test::FaultRun;
using test::TemporaryHome;
using test::TestBundle;
using test::TestLog;

namespace fs = std::filesystem;

constexpr const char* kIdentifier = "com.korvane.utilia.SampleTool";

UTILIA_CHILD_ROLE(beListed) {
    self.say(RunningApplication::registerCurrentApplication() ? "listed" : "not listed");
    self.waitForLine();
    return 0;
}

enum Attempt { kRecovered, kNotHit, kBroken };

// In a process of its own, because a process registers once.
Attempt registerUnder(const Fault& fault, unsigned ordinal, test::FaultRepetition repetition) {
    const pid_t child = fork();
    if (child == 0) {
        unsigned hits = 0;
        {
            const ArmedFault armed(fault, ordinal, repetition);
            const auto ignored = RunningApplication::registerCurrentApplication();
            hits = armed.hits();
        }
        if (hits == 0) _exit(kNotHit);
        const bool registered = static_cast<bool>(RunningApplication::registerCurrentApplication());
        const auto listed =
            RunningApplication::runningApplicationsWithBundleIdentifier(kIdentifier);
        _exit(registered && listed.size() == 1 && listed[0].processIdentifier() == getpid()
                  ? kRecovered
                  : kBroken);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? static_cast<Attempt>(WEXITSTATUS(status)) : kBroken;
}

UTILIA_CHILD_ROLE(registerUnderFaults) {
    // The Info.plist is read once, and is not what these faults are for.
    if (Bundle::mainBundle()->bundleIdentifier() != kIdentifier) return 1;
    int runs = 0;
    for (const Fault& fault : test::storageFaults()) {
        for (const auto repetition :
             {test::FaultRepetition::Once, test::FaultRepetition::ForEver}) {
            for (unsigned ordinal = 1;; ++ordinal) {
                const Attempt attempt = registerUnder(fault, ordinal, repetition);
                if (attempt == kNotHit) break;
                ++runs;
                if (attempt == kBroken) {
                    self.say("broken: " + FaultRun{fault, ordinal, repetition}.description());
                    return 1;
                }
            }
        }
    }
    self.say(runs > 0 ? "recovered every time" : "no call was hit");
    return 0;
}

class ApplicationFaults : public testing::Test {
protected:
    TemporaryHome home_;
    TestBundle bundle_{home_};
};

TEST_F(ApplicationFaults, AFailedRegistrationCanBeRepeated) {
    auto child = bundle_.role("registerUnderFaults");
    EXPECT_EQ(child.waitForLine(std::chrono::seconds(240)), "recovered every time");
}

TEST_F(ApplicationFaults, AListThatCannotBeReadIsEmptyAndNothingElse) {
    auto child = bundle_.role("beListed");
    ASSERT_EQ(child.waitForLine(), "listed");
    std::vector<RunningApplication> listed;
    const auto list = [&] {
        listed = RunningApplication::runningApplicationsWithBundleIdentifier(kIdentifier);
    };
    const std::size_t runs = forEachFault(test::storageFaults(), list, [&](const FaultRun&) {
        EXPECT_LE(listed.size(), 1u);
        for (const auto& application : listed)
            EXPECT_EQ(application.processIdentifier(), child.pid());
        list();
        EXPECT_EQ(listed.size(), 1u);
    });
    EXPECT_GT(runs, 0u);
}

TEST_F(ApplicationFaults, ABundleIsReadOrSaysWhyNot) {
    TestLog log;
    std::unique_ptr<Bundle> bundle;
    std::optional<std::string> identifier;
    const auto read = [&] {
        bundle = Bundle::bundleWithPath(bundle_.path());
        identifier = bundle ? bundle->bundleIdentifier() : std::nullopt;
    };
    const std::size_t runs = forEachFault(
        test::storageFaults(), [&] { log.clear(); }, read,
        [&](const FaultRun&) {
            if (identifier) {
                EXPECT_EQ(identifier, kIdentifier);
            } else {
                // A folder that is not found is no bundle, and that is answer enough.
                EXPECT_EQ(log.lines().size(), bundle ? 1u : 0u);
            }
            read();
            EXPECT_EQ(identifier, kIdentifier);
        });
    EXPECT_GT(runs, 0u);
}

TEST_F(ApplicationFaults, ADesktopEntryIsReadOrSaysWhyNot) {
    bundle_.install("beListed");
    std::optional<Result<DesktopEntry>> entry;
    const auto find = [&] { entry = DesktopEntry::find(kIdentifier); };
    const std::size_t runs = forEachFault(test::storageFaults(), find, [&](const FaultRun&) {
        if (*entry) {
            EXPECT_EQ((*entry)->bundlePath, bundle_.path());
        } else {
            EXPECT_NE(entry->error().description, "");
        }
        find();
        EXPECT_TRUE(*entry);
    });
    EXPECT_GT(runs, 0u);
}

TEST_F(ApplicationFaults, ALaunchStartsTheProgramOrSaysWhyNot) {
    // A program that is quick, and declines to run.
    fs::remove(bundle_.program());
    fs::copy_file("/bin/true", bundle_.program());
    std::optional<Result<void>> launched;
    const auto launch = [&] {
        launched = Workspace::launchApplicationAtPath(bundle_.path(), WorkspaceLaunchOptions::None);
    };
    const TestLog log;
    const std::size_t runs = forEachFault(test::storageFaults(), launch, [&](const FaultRun&) {
        if (!*launched) {
            EXPECT_NE(launched->error().description, "");
        }
        launch();
        EXPECT_TRUE(*launched) << launched->error().description;
    });
    EXPECT_GT(runs, 0u);
}

}  // namespace
}  // namespace utilia::platform
