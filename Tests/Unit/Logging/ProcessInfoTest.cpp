#include "Common/Platform/ProcessInfo.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "Common/Foundation/PathFunctions.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"

using namespace utilia;
using platform::ProcessInfo;

namespace {

UTILIA_CHILD_ROLE(sayProcessInfo) {
    const auto& arguments = ProcessInfo::arguments();
    // The roles' own switch and name come first; what follows is what the parent gave.
    for (std::size_t i = arguments.size() - 3; i < arguments.size(); ++i)
        self.say("[" + arguments[i] + "]");
    self.say(ProcessInfo::processName());
    self.say(std::to_string(ProcessInfo::processIdentifier()));
    return 0;
}

}  // namespace

TEST(ProcessInfo, AnswersArgumentsNameAndIdentifierOfTheProcess) {
    auto child = test::ChildProcess::role("sayProcessInfo", {"--turn-off", "", "two words"});

    EXPECT_EQ(child.waitForLine(), "[--turn-off]");
    EXPECT_EQ(child.waitForLine(), "[]");
    EXPECT_EQ(child.waitForLine(), "[two words]");
    EXPECT_EQ(child.waitForLine(), lastPathComponent(test::ownProgramPath()));
    EXPECT_EQ(child.waitForLine(), std::to_string(child.pid()));
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(ProcessInfo, AnswersTheProgramFirst) {
    ASSERT_FALSE(ProcessInfo::arguments().empty());
    EXPECT_EQ(lastPathComponent(ProcessInfo::arguments().front()), ProcessInfo::processName());
    EXPECT_EQ(ProcessInfo::processIdentifier(), getpid());
}
