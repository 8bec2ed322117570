#include "Common/UtiliaCommon/CEP/ReportUpload.h"

#include <cstdlib>

#include <sys/stat.h>

#include "Tests/Unit/Reporting/ReportingFixture.h"

namespace utilia {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace fs = std::filesystem;

class ReportUploadTest : public test::ReportingTest {
protected:
    std::unique_ptr<CEPLog> makeOwner() {
        auto log = makeLog();
        log->setCepOwner(true);
        return log;
    }
    static void leaveReport(const std::string& name) {
        test::writeFile(fs::path(reportFolder()) / name, "<a/>\n");
    }
    static std::string path(const std::string& name) { return reportFolder() + "/" + name; }
};

TEST(ReportUploadCommand, StandsCharacterForCharacter) {
    EXPECT_EQ(
        reportUploadCommand("/r/utilia_report (3).xml", "/l/out.log", "https://h/utilia/1/cep"),
        "tar -czf \"/r/utilia_report (3).xml.tar.gz\" -s /.*\\.xml/Report\\.xml/g "
        "\"/r/utilia_report (3).xml\" && curl -v -X POST  -H \"Content-Type: "
        "multipart/form-data\"  --form \"data=@/r/utilia_report (3).xml.tar.gz\" "
        "https://h/utilia/1/cep > \"/l/out.log\" && rm -f "
        "\"/r/utilia_report (3).xml.tar.gz\" && rm -f \"/r/utilia_report (3).xml\"");
}

TEST(ReportUploadCommand, TakesPathsThatLookLikePlaceholders) {
    EXPECT_THAT(reportUploadCommand("/%@.xml", "/%@.log", "https://h/%@"),
                HasSubstr("--form \"data=@/%@.xml.tar.gz\" https://h/%@ > \"/%@.log\" && "));
}

TEST(ReportUploadEndpoint, IsTheConfiguredHost) {
    EXPECT_EQ(reportUploadEndpoint(), "https://" UTILIA_REPORT_HOST "/utilia/1/cep");
    EXPECT_TRUE(isReportUploadBuilt());
}

TEST(UsableInUpload, IsEveryPathWithoutACharacterThatMeansSomethingInTheCommand) {
    for (const char* path : {"/home/a b (c)", "/home/'quoted'", "/home/j\xc3\xb6rg", "/a:b",
                             "/a*?[b]", "/a&b|c<d>e", "/a#b!c%d~e{f}", "/a\tb", "/-a", "/\xff"})
        EXPECT_TRUE(isUsableInUpload(path)) << path;
    for (const char* path :
         {"/a,b", "/a;b", "/a\"b", "/a$b", "/a`b", "/a\\b", "/a\nb", "/a\rb", "/,"})
        EXPECT_FALSE(isUsableInUpload(path)) << path;
    EXPECT_FALSE(isUsableInUpload(std::string_view("/a\0b", 4)));
}

TEST_F(ReportUploadTest, ATaskHasItsOwnProgramsConfigurationAndNothingOfTheUsersEnvironment) {
    setenv("BASH_ENV", "/nowhere", 1);
    setenv("TAR_WRITER_OPTIONS", "nonsense", 1);
    for (const char* name :
         {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
        unsetenv(name);
    setenv("https_proxy", "http://proxy.example:3128", 1);
    const auto log = makeOwner();
    unsetenv("https_proxy");
    unsetenv("TAR_WRITER_OPTIONS");
    unsetenv("BASH_ENV");
    leaveReport("utilia_report.xml");
    log->sendCEP();
    const auto tasks = tasks_.tasks();
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0].launchPath, "/bin/bash");
    const std::string output =
        (home_.state() / "korvane-utilia/Library/Logs/krv.utilia.ceplog.log").string();
    EXPECT_THAT(tasks[0].arguments,
                ElementsAre("-c", reportUploadCommand(path("utilia_report.xml"), output,
                                                      reportUploadEndpoint())));
    ASSERT_EQ(tasks[0].environment.size(), 4u);
    EXPECT_THAT(tasks[0].environment[0], StartsWith("PATH=/"));
    EXPECT_THAT(tasks[0].environment[0],
                EndsWith("/UtiliaCommon.framework/Resources/UtiliaCommon.bundle/Contents/Linux:"
                         "/usr/bin:/bin"));
    EXPECT_THAT(tasks[0].environment[1], StartsWith("CURL_HOME=/"));
    EXPECT_THAT(tasks[0].environment[1], EndsWith("/UtiliaCommon.framework/Resources/Upload"));
    EXPECT_EQ(tasks[0].environment[2], "LC_ALL=C");
    EXPECT_EQ(tasks[0].environment[3], "https_proxy=http://proxy.example:3128");
    EXPECT_EQ(tasks[0].lockedFile, path("utilia_report.xml"));
}

TEST_F(ReportUploadTest, SendsWhatEarlierUploadsHaveLeftTogetherWithWhatIsNew) {
    leaveReport("utilia_report.xml");
    leaveReport("utilia_report (7).xml");
    const auto log = makeOwner();
    log->log("Act");
    EXPECT_THAT(log->sendCEPImp(false),
                ElementsAre(path("utilia_report (1).xml"), path("utilia_report (7).xml"),
                            path("utilia_report.xml")));
    EXPECT_EQ(tasks_.count(), 3u);
}

TEST_F(ReportUploadTest, SendsEarlierReportsAlsoWithoutALog) {
    leaveReport("utilia_report.xml");
    EXPECT_THAT(makeOwner()->sendCEPImp(false), ElementsAre(path("utilia_report.xml")));
}

TEST_F(ReportUploadTest, AReportWhoseNameWouldBreakTheCommandStaysAndTheOthersGo) {
    leaveReport("utilia_report $(id).xml");
    leaveReport("utilia_report.xml");
    EXPECT_THAT(makeOwner()->sendCEPImp(false), ElementsAre(path("utilia_report.xml")));
    EXPECT_EQ(messages_.count("utilia_report $(id).xml cannot be uploaded"), 1u);
    EXPECT_TRUE(fs::exists(path("utilia_report $(id).xml")));
}

TEST_F(ReportUploadTest, WhatIsOnItsWayAlreadyOrGoneIsNoMessage) {
    leaveReport("utilia_report.xml");
    leaveReport("utilia_report (1).xml");
    CEPLog log({.clock = clock_, .launchTask = [](const platform::Task& task) -> Result<void> {
                    if (task.lockedFile.ends_with(" (1).xml"))
                        return Error::posix(ENOENT, "open", task.lockedFile);
                    return Error::utilia(UtiliaErrorCode::Busy, "busy");
                }});
    log.setCepOwner(true);
    EXPECT_THAT(log.sendCEPImp(false), IsEmpty());
    EXPECT_THAT(messages_.lines(), IsEmpty());
}

TEST_F(ReportUploadTest, ATaskThatCannotStartIsOneMessageAndTheReportStays) {
    leaveReport("utilia_report.xml");
    CEPLog log({.clock = clock_, .launchTask = [](const platform::Task& task) -> Result<void> {
                    return Error::posix(EAGAIN, "start", task.launchPath);
                }});
    log.setCepOwner(true);
    EXPECT_THAT(log.sendCEPImp(false), IsEmpty());
    EXPECT_THAT(messages_.lines(), ElementsAre(HasSubstr("start /bin/bash")));
    EXPECT_TRUE(fs::exists(path("utilia_report.xml")));
}

TEST_F(ReportUploadTest, WithoutItsConfigurationNothingIsUploaded) {
    leaveReport("utilia_report.xml");
    CEPLog log({.clock = clock_,
                .launchTask = tasks_.launcher(),
                .curlHome = (home_.path() / "missing").string()});
    log.setCepOwner(true);
    log.log("Act");
    EXPECT_THAT(log.sendCEPImp(false), IsEmpty());
    EXPECT_THAT(messages_.lines(), ElementsAre(HasSubstr("missing/.curlrc is missing")));
    EXPECT_THAT(test::actionsIn(report(1)), ElementsAre("Act")) << "collected all the same";
}

TEST_F(ReportUploadTest, TheFrameworksBundleCarriesTheProgramsAndTheConfiguration) {
    leaveReport("utilia_report.xml");
    makeOwner()->sendCEP();
    ASSERT_EQ(tasks_.count(), 1u);
    const auto task = tasks_.tasks()[0];
    const std::string search = task.environment[0].substr(5);
    const fs::path programs = search.substr(0, search.find(':'));
    EXPECT_EQ(fs::canonical(programs / "tar").filename(), "bsdtar");
    EXPECT_EQ(access((programs / "curl").c_str(), X_OK), 0);
    const std::string configuration =
        test::contentOf(fs::path(task.environment[1].substr(10)) / ".curlrc");
    for (const char* line : {"proto = \"=https\"\n", "fail\n", "location\n", "max-redirs = 0\n",
                             "connect-timeout = 30\n", "speed-limit = 1\n", "speed-time = 60\n"})
        EXPECT_THAT(configuration, HasSubstr(line));
}

// A user whose folders have such a name.
class UnusableFolder : public testing::TestWithParam<char> {};

TEST_P(UnusableFolder, IsNotUploadedFromAndNothingIsLost) {
    const test::TemporaryFolder outer;
    const fs::path within = outer.path() / (std::string("a") + GetParam() + "b");
    fs::create_directories(within);
    const test::TemporaryHome home(within);
    const test::TestLog messages;
    ASSERT_EQ(CEPLogInit(), 0);
    test::TaskRecorder tasks;
    CEPLog log({.launchTask = tasks.launcher()});
    log.setCepOwner(true);
    // More often than there are names for reports.
    constexpr std::size_t kWeeks = 101;
    for (std::size_t week = 0; week < kWeeks; ++week) {
        log.log("Act");
        EXPECT_THAT(log.sendCEPImp(week % 2 == 0), IsEmpty());
    }
    EXPECT_EQ(tasks.count(), 0u);
    EXPECT_EQ(messages.lines().size(), kWeeks);
    EXPECT_EQ(messages.count("nothing can be uploaded from "), kWeeks);
    EXPECT_EQ(test::actionsIn(test::contentOf(CEPLogPath())),
              std::vector<std::string>(kWeeks, "Act"));
}

INSTANTIATE_TEST_SUITE_P(Characters, UnusableFolder,
                         testing::Values(',', ';', '"', '$', '`', '\\', '\n'));

}  // namespace
}  // namespace utilia
