#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/UniqueFd.h"
#include "Common/UtiliaCommon/CEP/EventLogFile.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Unit/Reporting/ReportingFixture.h"

namespace utilia {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace fs = std::filesystem;

constexpr std::string_view kHeader = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                     "<KorvaneProblemReport>\n<CepCustomData>\n";
constexpr std::string_view kFooter = "</CepCustomData>\n</KorvaneProblemReport>\n";

std::string record(std::string_view action) {
    return "<event timestamp=\"2026-11-21 10:00:00.000\" toollocation=\"/t\" toolversion=\"1-1\" "
           "action=\"" +
           std::string(action) + "\"/>\n";
}

std::string document(std::string_view action) {
    return std::string(kHeader) + record(action) + std::string(kFooter);
}

class ReportFolderTest : public test::ReportingTest {
protected:
    // What a writer leaves when it has ended a log.
    static void leaveOverflow(std::string_view action) {
        test::writeFile(overflow(), document(action));
        chmod(overflow().c_str(), 0444);
    }
    static void leaveLegacyLog(std::string_view action) {
        test::writeFile(legacy(), std::string(kHeader) + record(action));
    }
    static std::vector<std::string> names() {
        return waitingReports(reportFolder()).value_or(std::vector<std::string>{"no folder"});
    }
    platform::UniqueFd grabbed(std::string_view content) const {
        const fs::path path = home_.path() / "grabbed";
        test::writeFile(path, content);
        platform::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        fs::remove(path);
        return file;
    }
    // As an upload does when the server has accepted the report.
    static void takeName(std::size_t number) {
        test::writeFile(fs::path(reportFolder()) / reportName(number), document("Waiting"));
    }
};

TEST_F(ReportFolderTest, LiesInTheUsersLogs) {
    EXPECT_EQ(reportFolder(),
              (home_.state() / "korvane-utilia/Library/Logs/KorvaneUtilia").string());
}

TEST_F(ReportFolderTest, HasAHundredNames) {
    EXPECT_EQ(reportName(0), "utilia_report.xml");
    EXPECT_EQ(reportName(1), "utilia_report (1).xml");
    EXPECT_EQ(reportName(99), "utilia_report (99).xml");
    EXPECT_EQ(kMaximumReports, 100u);
}

TEST_F(ReportFolderTest, ListsWhatIsNamedAsAReportAlsoInFoldersBelow) {
    for (const char* name :
         {"utilia_report.xml", "utilia_report (2).xml", "utilia_report", "utilia_report.xml.tar.gz",
          "Utilia_report.xml", "other.xml", "inner/utilia_report.xml", "utilia_reports/any.xml"})
        test::writeFile(fs::path(reportFolder()) / name, "");
    EXPECT_THAT(names(), ElementsAre("utilia_report (2).xml", "utilia_report.xml",
                                     "utilia_reports/any.xml"));
}

TEST_F(ReportFolderTest, WithoutALogNoReportIsMadeAndTheFolderIsTheAnswer) {
    const auto log = makeLog();
    EXPECT_EQ(log->logGrab(), reportFolder());
    EXPECT_EQ(log->logPath(), reportFolder());
    EXPECT_TRUE(fs::is_directory(reportFolder()));
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ReportFolderTest, MakesAReportOfTheCurrentLog) {
    const auto log = makeLog();
    log->log("Act");
    ASSERT_EQ(log->logGrab(), reportFolder());
    EXPECT_THAT(names(), ElementsAre("utilia_report.xml"));
    EXPECT_TRUE(isFinished(report())) << report();
    EXPECT_THAT(test::actionsIn(report()), ElementsAre("Act"));
    EXPECT_FALSE(fs::exists(current()));
    EXPECT_FALSE(fs::exists(overflow()));
    struct stat status {};
    ASSERT_EQ(stat((fs::path(reportFolder()) / "utilia_report.xml").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(ReportFolderTest, MakesTwoReportsOfOverflowAndCurrentLogInThisOrder) {
    const auto log = makeLog();
    log->log("Later");
    leaveOverflow("Earlier");
    log->logGrab();
    EXPECT_THAT(names(), ElementsAre("utilia_report (1).xml", "utilia_report.xml"));
    EXPECT_THAT(test::actionsIn(report(0)), ElementsAre("Earlier"));
    EXPECT_THAT(test::actionsIn(report(1)), ElementsAre("Later"));
}

TEST_F(ReportFolderTest, MakesOneReportOfAnOverflowAlone) {
    leaveOverflow("Earlier");
    makeLog()->logGrab();
    EXPECT_THAT(names(), ElementsAre("utilia_report.xml"));
    EXPECT_EQ(report(), document("Earlier"));
}

TEST_F(ReportFolderTest, ALegacyLogGoesFirstAndTheCurrentOneWaitsForTheNextTime) {
    const auto log = makeLog();
    log->log("Current");
    leaveLegacyLog("Legacy");
    log->logGrab();
    EXPECT_EQ(report(), document("Legacy"));
    EXPECT_FALSE(fs::exists(legacy()));
    EXPECT_THAT(actions(), ElementsAre("Current"));
    log->logGrab();
    EXPECT_THAT(test::actionsIn(report(1)), ElementsAre("Current"));
}

TEST_F(ReportFolderTest, TakesTheFirstNameThatIsFree) {
    takeName(0);
    takeName(2);
    const auto log = makeLog();
    log->log("First");
    log->logGrab();
    EXPECT_THAT(test::actionsIn(report(1)), ElementsAre("First"));
    log->log("Second");
    log->logGrab();
    EXPECT_THAT(test::actionsIn(report(3)), ElementsAre("Second"));
}

TEST_F(ReportFolderTest, WhenAllHundredNamesAreTakenTheLogIsLostWithOneLogLine) {
    for (std::size_t number = 0; number < 99; ++number) takeName(number);
    const auto log = makeLog();
    log->log("Ninety-nine");
    log->logGrab();
    EXPECT_THAT(test::actionsIn(report(99)), ElementsAre("Ninety-nine"));
    EXPECT_THAT(messages_.lines(), IsEmpty());
    log->log("Lost");
    EXPECT_EQ(log->logGrab(), reportFolder());
    EXPECT_FALSE(fs::exists(current()));
    EXPECT_EQ(names().size(), 100u);
    EXPECT_THAT(messages_.lines(),
                ElementsAre("Usage reporting: what was recorded is lost: " + reportFolder() +
                            ": 100 reports wait already, and that many names there are"));
}

TEST_F(ReportFolderTest, AtTheLimitOnlyOneLogIsTakenAway) {
    for (std::size_t number = 0; number < 100; ++number) takeName(number);
    const auto log = makeLog();
    log->log("Current");
    leaveOverflow("Overflow");
    log->logGrab();
    EXPECT_FALSE(fs::exists(overflow()));
    EXPECT_THAT(actions(), ElementsAre("Current")) << "collecting ends with the first failure";
}

TEST_F(ReportFolderTest, NothingIsTakenAwayWhereThereCanBeNoReports) {
    const auto log = makeLog();
    log->log("Act");
    test::writeFile(reportFolder(), "a file in the place of the folder");
    EXPECT_EQ(log->logGrab(), std::nullopt);
    EXPECT_THAT(actions(), ElementsAre("Act"));
    EXPECT_EQ(messages_.count("KorvaneUtilia"), 1u);
    log->setCepOwner(true);
    EXPECT_THAT(log->sendCEPImp(false), IsEmpty());
    EXPECT_EQ(tasks_.count(), 0u);
}

TEST_F(ReportFolderTest, MakesTheFolderAgainWhenSomebodyHasRemovedIt) {
    const auto log = makeLog();
    log->logGrab();
    fs::remove_all(reportFolder());
    log->log("Act");
    log->logGrab();
    EXPECT_THAT(test::actionsIn(report()), ElementsAre("Act"));
}

TEST_F(ReportFolderTest, AFolderThatTheUserHasChosenStays) {
    const auto log = makeLog();
    const std::string chosen = (home_.path() / "chosen").string();
    log->setLogPath(chosen);
    log->log("Act");
    EXPECT_EQ(log->logGrab(), chosen);
    EXPECT_THAT(test::actionsIn(test::contentOf(fs::path(chosen) / "utilia_report.xml")),
                ElementsAre("Act"));
}

TEST_F(ReportFolderTest, CopiesLogsOfAnySize) {
    fs::create_directories(reportFolder());
    for (const std::size_t size : {16'383u, 16'384u, 16'385u, 6'000'000u}) {
        const std::string content = std::string(kHeader) + std::string(size, 'x');
        const auto path = addReport(reportFolder(), grabbed(content));
        ASSERT_TRUE(path) << path.error().description;
        EXPECT_EQ(test::contentOf(*path), content);
    }
}

TEST_F(ReportFolderTest, AReportOfALogThatCannotBeReadToItsEndHoldsWhatIsWholeAndAFooter) {
    fs::create_directories(reportFolder());
    std::string content(kHeader);
    while (content.size() < 40'000) content += record("Act");
    auto file = grabbed(content + std::string(kFooter));
    std::optional<Result<std::string>> added;
    {
        const test::ArmedFault fault({.call = kUtiliaFaultRead, .error = EIO}, 3);
        added = addReport(reportFolder(), std::move(file));
        EXPECT_EQ(fault.hits(), 1u);
    }
    ASSERT_TRUE(*added);
    const std::string made = test::contentOf(**added);
    EXPECT_TRUE(isFinished(made));
    EXPECT_THAT(made, testing::StartsWith(content.substr(0, made.size() - kFooter.size())));
    EXPECT_LE(made.size(), 2 * 16'384 + kFooter.size());
    EXPECT_GT(made.size(), 2 * 16'384 - record("Act").size());
    EXPECT_EQ(messages_.count("a log cannot be read to its end"), 1u);
}

TEST_F(ReportFolderTest, ALogOfWhichNothingCanBeReadMakesNoReport) {
    fs::create_directories(reportFolder());
    auto file = grabbed(document("Act"));
    const test::ArmedFault fault({.call = kUtiliaFaultRead, .error = EIO});
    EXPECT_FALSE(addReport(reportFolder(), std::move(file)));
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ReportFolderTest, AFullDiskHasRoomForAReportWhereItsLogWas) {
    constexpr std::size_t kDisk = 256u << 10;
    test::PrivateMounts mounts;
    mounts.limitSpace(home_.state().string(), kDisk);
    EXPECT_TRUE(mounts.run([this] {
        ASSERT_EQ(CEPLogInit(), 0);
        const auto log = makeLog();
        ASSERT_EQ(log->logGrab(), reportFolder());
        constexpr int kRecords = 300;
        for (int i = 0; i < kRecords; ++i) log->log("Act");
        std::ofstream filler(home_.state() / "filler", std::ios::binary);
        while (filler << 'x' << std::flush) {
        }
        ASSERT_EQ(actions().size(), std::size_t{kRecords});
        log->logGrab();
        EXPECT_TRUE(isFinished(report()));
        EXPECT_EQ(test::actionsIn(report()).size(), std::size_t{kRecords});
        EXPECT_THAT(messages_.lines(), IsEmpty());
    }));
}

TEST(FinishedDocument, EndsAfterTheLastWholeRecordWhateverWasRead) {
    // With line feeds inside of records.
    const std::string nested = "<event timestamp=\"2026-11-21 10:00:00.000\" toollocation=\"/t\" "
                               "toolversion=\"1-1\" action=\"B\">\n\t<options a=\"b\"/>\n"
                               "\t<details c=\"d\">\n\t\t<k _0=\"a\"/>\n\t</details>\n</event>\n";
    const std::vector<std::string> records{record("A"), nested, record("C"), nested};
    std::string whole(kHeader);
    for (const std::string& each : records) whole += each;
    whole += kFooter;
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        std::string expected;
        if (size >= kHeader.size()) {
            expected = kHeader;
            for (const std::string& each : records) {
                if (expected.size() + each.size() > size) break;
                expected += each;
            }
            expected += kFooter;
        }
        EXPECT_EQ(finishedDocument(std::string_view(whole).substr(0, size)), expected) << size;
    }
}

TEST_F(ReportFolderTest, EveryFailureOfTheSystemLeavesWholeReportsOrNone) {
    const auto log = makeLog();
    const std::size_t runs = test::forEachFault(
        test::storageFaults(),
        [&] {
            fs::remove_all(reportFolder());
            fs::create_directories(reportFolder());
            fs::remove(current());
            fs::remove(overflow());
            fs::remove(taken());
            // After the burst of the last time, so that no log stays open.
            std::this_thread::sleep_for(2 * EventLogFile::kBurst);
            log->log("Act");
            messages_.clear();
        },
        [&] { log->logGrab(); },
        [&](const test::FaultRun&) {
            std::size_t found = actions().size();
            for (const std::string& name : names()) {
                const std::string made = test::contentOf(fs::path(reportFolder()) / name);
                EXPECT_TRUE(isFinished(made)) << made;
                found += test::actionsIn(made).size();
            }
            found += test::actionsIn(test::contentOf(overflow())).size();
            found += test::actionsIn(test::contentOf(taken())).size();
            EXPECT_LE(found, 1u) << "never twice";
            EXPECT_EQ(found == 0, messages_.count("what was recorded is lost") == 1);
        });
    EXPECT_GT(runs, 20u);
}

}  // namespace
}  // namespace utilia
