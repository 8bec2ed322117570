#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"

using namespace utilia::test;

namespace fs = std::filesystem;

namespace {

// A copy of this program beside a framework bundle of one's own.
class ReachabilityModule : public testing::Test {
protected:
    ReachabilityModule() {
        fs::create_directories(program().parent_path());
        fs::create_directories(modules());
        fs::copy_file(ownProgramPath(), program());
    }
    fs::path program() const { return folder_.path() / "bin" / "program"; }
    fs::path modules() const {
        return folder_.path() / "lib" / "UtiliaCommon.framework" / "Modules";
    }

    // Answers the one log line of an attempt to watch a host.
    std::string expectHostsToBeUnwatchable() {
        ScriptedChild child(ChildProcess::role("watcher", {}, {.program = program().string()}));
        EXPECT_EQ(child.ask("plain"), "without a target");
        EXPECT_EQ(child.log(), std::vector<std::string>());
        EXPECT_EQ(child.ask("watch", {"localhost"}), "nil");
        const auto log = child.log();
        EXPECT_EQ(log.size(), 1u);
        return log.empty() ? "" : log[0];
    }

    const TemporaryHome home_;
    TemporaryFolder folder_;
};

constexpr const char* kStart = "Host localhost cannot be watched: module Desktop: ";

TEST_F(ReachabilityModule, WithoutItHostsCannotBeWatched) {
    const std::string line = expectHostsToBeUnwatchable();
    EXPECT_TRUE(line.starts_with(kStart)) << line;
    EXPECT_NE(line.find("Desktop.so"), std::string::npos) << line;
}

TEST_F(ReachabilityModule, WhenItIsBrokenHostsCannotBeWatched) {
    std::ofstream(modules() / "Desktop.so") << "this is no library";
    const std::string line = expectHostsToBeUnwatchable();
    EXPECT_TRUE(line.starts_with(kStart)) << line;
}

TEST_F(ReachabilityModule, OfAnotherVersionCannotBeUsed) {
    fs::copy_file(utilia::test::places::kForeignModule, modules() / "Desktop.so");
    EXPECT_EQ(expectHostsToBeUnwatchable(), std::string(kStart) + "version 999 instead of 1");
}

}  // namespace
