#include <filesystem>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/Bundle.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Tests/Process/Tools/RunningTool.h"
#include "Tests/Support/Places.h"

// What the tools record for usage reporting.

namespace utilia::test {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

struct Tool {
    const char* bundle;
    const char* identifier;
};

class ToolRecordsTest : public testing::TestWithParam<Tool> {
protected:
    std::string recorded() const {
        std::ifstream file(session_.home().state() /
                           "korvane-utilia/Library/Logs/krv.utilia.ceplog.xml");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void runFromStartToEnd() {
        auto tool = session_.start(GetParam().bundle);
        session_.askForMenu(GetParam().bundle);
        session_.nextText();
        ToolSession::turnOff(GetParam().bundle);
        EXPECT_EQ(tool.waitForExit(), 0) << session_.log();
    }
    ToolSession session_;
};

TEST_P(ToolRecordsTest, AreItsStartAndItsEnd) {
    runFromStartToEnd();
    const std::string path = platform::Bundle::bundleWithPath(GetParam().bundle)->bundlePath();
    const std::string origin = "<event timestamp=\"[-0-9]+ [.:0-9]+\" tool=\"" +
                               std::string(GetParam().identifier) + "\" toollocation=\"" + path +
                               "\" toolversion=\"[-.0-9]+\" action=";
    EXPECT_THAT(recorded(),
                AllOf(ContainsRegex(origin + "\"Start\"/>"), ContainsRegex(origin + "\"Quit\"/>")));
}

TEST_P(ToolRecordsTest, AreNoneWhileUsageReportingIsOff) {
    CEPLog().setCEPDisabled(true);
    runFromStartToEnd();
    EXPECT_EQ(recorded(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Tools, ToolRecordsTest,
    testing::Values(Tool{test::places::kTimerBundle, "com.korvane.utilia.Timer"},
                    Tool{test::places::kMoonPhaseBundle, "com.korvane.utilia.MoonPhase"},
                    Tool{test::places::kKeepAwakeBundle, "com.korvane.utilia.KeepAwake"}));

}  // namespace
}  // namespace utilia::test
