#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "Common/Platform/Alert.h"
#include "Common/Platform/Bundle.h"
#include "Tests/Process/Alerts/AskingRole.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

// Every system call of a question fails once, in every way that it can.

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::AskingTool;
using test::TemporaryHome;
using test::TestBundle;
using testing::IsEmpty;

// Says "asking" at once, which takes minutes on a busy machine, then the number of runs, and in its log what went wrong in
// them.
UTILIA_CHILD_ROLE(askWithFaults) {
    self.say("asking");
    platform::Alert alert;
    alert.setMessageText("Which?");
    alert.addButtonWithTitle("One");
    alert.addButtonWithTitle("Two");
    platform::Bundle::frameworkBundle()->localizedStringForKey("en");
    std::size_t runs = 0;
    std::vector<std::string> wrong;
    for (const auto& table : {test::socketFaults(), test::storageFaults(), test::memoryFaults()}) {
        test::TestLog log;
        int answer = 0;
        runs += test::forEachFault(
            table, [&] { log.clear(); }, [&] { answer = alert.runModal(); },
            [&](const test::FaultRun& run) {
                // The helper answers with the first button; the last one stands for every failure.
                // Nothing fails without one line, be it only that the tool's name cannot be read.
                const std::size_t lines = log.lines().size();
                const bool isAnswered = answer == 1000 && lines <= 1;
                const bool isRefused = answer == 1001 && lines == 1;
                const bool isOutOfMemory = answer == 1001 && run.fault.call == kUtiliaFaultMemory;
                if (!isAnswered && !isRefused && !isOutOfMemory) {
                    wrong.push_back(run.description() + ": " + std::to_string(answer) + " with " +
                                    std::to_string(log.lines().size()) + " lines");
                }
                if (waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD) {
                    wrong.push_back(run.description() + ": a child is left");
                }
            });
    }
    self.say(std::to_string(runs));
    std::string all;
    for (const std::string& line : wrong) all += line + "; ";
    self.say(all);
    return testing::Test::HasFailure() ? 1 : 0;
}

TEST(AlertFaults, AreTheLastButtonAndLeaveNothingBehind) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    const fs::path library = fs::path(bundle.path()) / "Contents/lib";
    fs::remove(library);
    const fs::path programs =
        library / "UtiliaCommon.framework/Resources/UtiliaCommon.bundle/Contents/Linux";
    fs::create_directories(programs);
    // Ends with its tool's end of the socket, should the question never come.
    std::ofstream(programs / "utilia-alert") << "#!/bin/sh\n[ \"$(dd bs=65536 count=1 2>/dev/null "
                                                "| wc -c)\" -gt 0 ] && printf 'button 0' >&0\n";
    chmod((programs / "utilia-alert").c_str(), 0755);

    AskingTool tool(bundle, "askWithFaults", {}, {{"DISPLAY", ":a-display"}});
    const auto runs = tool.process().waitForLine(std::chrono::minutes(4));
    EXPECT_GT(std::stoi(runs.value_or("0")), 10);
    EXPECT_EQ(tool.process().waitForLine(), "");
    EXPECT_EQ(tool.process().waitForExit(), 0);
}

}  // namespace
}  // namespace utilia
