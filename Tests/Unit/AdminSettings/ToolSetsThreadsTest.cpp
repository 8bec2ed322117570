#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

// Answers how many of its threads' questions were answered rightly.
UTILIA_CHILD_ROLE(askFromManyThreads) {
    const test::TestLog log;
    ToolSets::createSharedInstance();
    std::atomic<int> right = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 200; ++n) {
                const auto sets = ToolSets::sharedInstance();
                right += sets->isToolAllowedWithBundleId("com.korvane.utilia.Timer") &&
                         !sets->isToolAllowedWithBundleId("com.korvane.utilia.MoonPhase");
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    self.say(std::to_string(right));
    return 0;
}

TEST(ToolSetsThreads, AskOneInstanceAtTheSameTime) {
    const test::PrivateMounts mounts;
    mounts.writeSettings(R"({"WhiteToolsList": ["Timer"]})");
    auto child = test::ChildProcess::role("askFromManyThreads", {}, {.mounts = &mounts});
    EXPECT_EQ(child.waitForLine(), "800");
    EXPECT_EQ(child.waitForExit(), 0);
}

}  // namespace
}  // namespace utilia
