#include "Common/UtiliaCommon/CEP/ReportUpload.h"
#include "Tests/Unit/Reporting/ReportingFixture.h"

// A program that has what stands in the place of uploads in builds without them.

namespace utilia {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class NoUploadTest : public test::ReportingTest {};

TEST_F(NoUploadTest, NothingIsUploadedOrCollectedAlsoWhenItIsForced) {
    const auto log = makeLog();
    EXPECT_FALSE(isReportUploadBuilt());
    EXPECT_EQ(reportUploadEndpoint(), "");
    test::writeFile(std::filesystem::path(reportFolder()) / "utilia_report.xml", "<a/>\n");
    log->log("Act");
    log->initGrab();
    EXPECT_THAT(log->sendCEPImp(false), IsEmpty());
    EXPECT_THAT(log->sendCEPImp(true), IsEmpty());
    log->setCEPDisabled(true);
    log->disableCEP();
    EXPECT_FALSE(log->getCEPSentAfterDisabling()) << "a later build makes the last upload";
    EXPECT_EQ(tasks_.count(), 0u);
    EXPECT_THAT(actions(), ElementsAre("Act"));
    EXPECT_THAT(messages_.lines(), IsEmpty());
}

}  // namespace
}  // namespace utilia
