#include "Common/UtiliaCommon/CEP/ReportUpload.h"
#include "Tests/Unit/Interface/UsageFixture.h"

// The agent's settings in a program that has what stands in the place of uploads in builds without them.

namespace utilia::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kNever =
    "This version never sends anything. What is recorded stays on this computer.";

TEST_F(UsageTest, IsNotSaidToBeSentInABuildWithoutUploads) {
    ASSERT_FALSE(isReportUploadBuilt());
    for (int times = 0; times < 2; ++times) {
        EXPECT_THAT(page(), AllOf(Contains(kNever), Contains("&Record how I use the tools"),
                                  Not(Contains(HasSubstr("Once a week"))),
                                  Not(Contains(HasSubstr("Report how I"))),
                                  Not(Contains(HasSubstr("Sent")))));
        switchOff();
    }
}

TEST_F(UsageTest, IsPreviewedAsWhatIsRecordedInABuildWithoutUploads) {
    // Of a build that had uploads.
    leaveReport("utilia_report (1).xml", "<a/>\n");
    CEPLog().log("Act");
    EXPECT_THAT(preview(), ElementsAre("What is recorded", kNever, kDocuments,
                                       "utilia_report (1).xml · 5 bytes",
                                       StartsWith("What no report has taken yet · ")));
    ASSERT_EQ(shown().size(), 2u);
    EXPECT_THAT(shown()[1], HasSubstr("action=\"Act\""));
}

}  // namespace
}  // namespace utilia::test
