#include <random>

#include <unistd.h>

#include "Tests/Process/Reporting/UploadFixture.h"
#include "Tests/Support/ListeningPort.h"
#include "Tests/Support/Places.h"

// The command with the real bash, bsdtar and curl, and a real server.

namespace utilia {
namespace {

using test::kEndpointPath;
using test::ListeningPort;
using test::NginxServer;
using test::SentForm;
using test::UploadTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace fs = std::filesystem;

std::string answering(const std::string& directives) {
    return std::string("location = ") + kEndpointPath + " { " + directives + " }";
}

TEST_F(UploadTest, WhatArrivesIsTheReportInAnArchiveInAForm) {
    const NginxServer server(answering(test::kKeepBody),
                             {.headers = {"Content-Type", "User-Agent"}});
    useServer(server);
    const auto log = makeUploader(server);
    log->log("Act", Dictionary{{"text", "a < b"}});
    // What is in the report is known from a log of which a copy is made under another name.
    const std::string recorded = logText();
    const auto begun = log->sendCEPImp(false);
    ASSERT_THAT(begun, ElementsAre(pathOf("utilia_report.xml")));
    ASSERT_TRUE(waitForTasks(begun));

    const auto requests = server.waitForRequests(1);
    ASSERT_EQ(requests.size(), 1u) << server.errors();
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, "/utilia/1/cep");
    EXPECT_TRUE(requests[0].isSecure);
    EXPECT_THAT(requests[0].headers.at("Content-Type"),
                StartsWith("multipart/form-data; boundary="));
    const SentForm form = SentForm::parse(requests[0]);
    EXPECT_EQ(form.field, "data");
    EXPECT_EQ(form.fileName, "utilia_report.xml.tar.gz");
    const fs::path archive = home_.path() / "arrived.tar.gz";
    test::writeFile(archive, form.content);
    EXPECT_EQ(test::outputOf("/usr/bin/bsdtar", {"-tzf", archive}, home_.path()), "Report.xml\n");
    EXPECT_EQ(test::outputOf("/usr/bin/bsdtar", {"-xzOf", archive, "Report.xml"}, home_.path()),
              recorded + "</CepCustomData>\n</KorvaneProblemReport>\n");
    EXPECT_THAT(filesInFolder(), IsEmpty()) << "accepted";
}

TEST_F(UploadTest, ASingleMemberIsReadByGnuTarToo) {
    const NginxServer server(answering(test::kKeepBody));
    useServer(server);
    const auto log = makeUploader(server);
    log->log("Act");
    ASSERT_TRUE(waitForTasks(log->sendCEPImp(false)));
    const auto requests = server.waitForRequests(1);
    ASSERT_EQ(requests.size(), 1u);
    const fs::path archive = home_.path() / "arrived.tar.gz";
    test::writeFile(archive, SentForm::parse(requests[0]).content);
    EXPECT_EQ(test::outputOf("/bin/tar", {"-tzf", archive}, home_.path()), "Report.xml\n");
}

TEST_F(UploadTest, TheServersWordIsKeptInTheLogFolderAndOverwrittenByTheNext) {
    const NginxServer server(answering("return 200 \"$request_method taken\";"));
    useServer(server);
    const auto log = makeUploader(server);
    test::writeFile(reportUploadOutput(), std::string(1000, 'x'));
    log->log("Act");
    ASSERT_TRUE(waitForTasks(log->sendCEPImp(false)));
    EXPECT_EQ(test::contentOf(reportUploadOutput()), "POST taken");
}

struct Answer {
    const char* name;
    const char* directives;
    bool isAccepted;
};

void PrintTo(const Answer& answer, std::ostream* out) { *out << answer.name; }

class UploadAnswer : public UploadTest, public testing::WithParamInterface<Answer> {};

TEST_P(UploadAnswer, DecidesWhetherTheReportIsRemoved) {
    const NginxServer server(answering(GetParam().directives) +
                             "location /elsewhere { return 200 elsewhere; }");
    useServer(server);
    const auto log = makeUploader(server);
    log->log("Act");
    const auto begun = log->sendCEPImp(false);
    ASSERT_EQ(begun.size(), 1u);
    ASSERT_TRUE(waitForTasks(begun));
    if (GetParam().isAccepted) {
        EXPECT_THAT(filesInFolder(), IsEmpty());
    } else {
        EXPECT_THAT(filesInFolder(), ElementsAre("utilia_report.xml", "utilia_report.xml.tar.gz"));
        EXPECT_THAT(test::actionsIn(report()), ElementsAre("Act"));
    }
    ASSERT_EQ(server.waitForRequests(1).size(), 1u) << server.errors();
    for (const auto& request : server.requests())
        EXPECT_EQ(request.target, kEndpointPath) << "nobody is sent elsewhere";
}

INSTANTIATE_TEST_SUITE_P(
    Answers, UploadAnswer,
    testing::Values(Answer{"200", "return 200 ok;", true}, Answer{"201", "return 201 ok;", true},
                    Answer{"204", "return 204;", true}, Answer{"299", "return 299 ok;", true},
                    Answer{"300", "return 300 ok;", false},
                    Answer{"301", "return 301 /elsewhere;", false},
                    Answer{"302", "return 302 /elsewhere;", false},
                    Answer{"302WithoutAPlace", "return 302;", false},
                    Answer{"303", "return 303 /elsewhere;", false},
                    Answer{"304", "return 304;", false},
                    Answer{"307", "return 307 /elsewhere;", false},
                    Answer{"308", "return 308 /elsewhere;", false},
                    Answer{"400", "return 400;", false}, Answer{"401", "return 401;", false},
                    Answer{"404", "return 404;", false}, Answer{"413", "return 413;", false},
                    Answer{"429", "return 429;", false}, Answer{"500", "return 500;", false},
                    Answer{"502", "return 502;", false}, Answer{"503", "return 503;", false},
                    // The connection ends without an answer.
                    Answer{"Closed", "return 444;", false},
                    Answer{"OfAGateway", "proxy_pass http://127.0.0.1:1;", false}),
    [](const auto& each) { return "Answer" + std::string(each.param.name); });

// These answer without having looked at the report, and end the connection at once.
class HastyAnswer : public UploadTest, public testing::WithParamInterface<Answer> {};

TEST_P(HastyAnswer, CountsEachTime) {
    const NginxServer server("lingering_close off;" + answering(GetParam().directives));
    useServer(server);
    constexpr std::size_t kReports = 50;
    for (std::size_t number = 0; number < kReports; ++number)
        test::writeFile(pathOf(reportName(number)), "<a/>\n");
    const auto begun = makeUploader(server)->sendCEPImp(false);
    EXPECT_EQ(begun.size(), kReports);
    ASSERT_TRUE(waitForTasks(begun));
    EXPECT_EQ(filesInFolder().size(), GetParam().isAccepted ? 0 : 2 * kReports);
    EXPECT_EQ(server.waitForRequests(kReports).size(), kReports);
}

INSTANTIATE_TEST_SUITE_P(Answers, HastyAnswer,
                         testing::Values(Answer{"200", "return 200 ok;", true},
                                         Answer{"204", "return 204;", true},
                                         Answer{"500", "return 500;", false}),
                         [](const auto& each) { return "Answer" + std::string(each.param.name); });

TEST_F(UploadTest, AServerThatWillNotBeAskedFirstIsNotTriedAgainAndTheReportStays) {
    const NginxServer server(answering("if ($http_expect) { return 417; } return 200 ok;"));
    useServer(server);
    const auto log = makeUploader(server);
    log->log("Act");
    const auto begun = log->sendCEPImp(false);
    ASSERT_EQ(begun.size(), 1u);
    ASSERT_TRUE(waitForTasks(begun));
    EXPECT_THAT(filesInFolder(), ElementsAre("utilia_report.xml", "utilia_report.xml.tar.gz"));
    EXPECT_THAT(test::actionsIn(report()), ElementsAre("Act"));
    const auto requests = server.waitForRequests(1);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].status, 417);
}

// These answer while the report is on its way, and take no more of it.
class DeafServer : public UploadTest, public testing::WithParamInterface<Answer> {};

TEST_P(DeafServer, IsBelievedWhenItsAnswerIsWhole) {
    const NginxServer identity;
    // Time enough for curl to begin with a report that nobody asks for.
    useServer(identity, {{"max-time = 900", "max-time = 12"}});
    auto server = test::ChildProcess::program(
        "/usr/bin/python3", {test::places::kDeafServer, identity.certificate(), identity.key(),
                             std::string("HTTP/1.1 ") + GetParam().directives});
    const auto port = server.waitForLine();
    ASSERT_TRUE(port);
    // More than what the kernel keeps for a reader who does not read; and archives save nothing.
    std::string noise(24 << 20, '\0');
    std::mt19937 random(20261121);
    for (char& each : noise) each = static_cast<char>(random());
    test::writeFile(pathOf("utilia_report.xml"), noise);
    const auto begun =
        makeUploader("https://localhost:" + *port + kEndpointPath)->sendCEPImp(false);
    ASSERT_EQ(begun.size(), 1u);
    ASSERT_TRUE(waitForTasks(begun));
    EXPECT_EQ(filesInFolder().size(), GetParam().isAccepted ? 0u : 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, DeafServer,
    testing::Values(Answer{"204", "204 No Content\r\n\r\n", true},
                    Answer{"Whole", "200 OK\r\nContent-Length: 5\r\n\r\ntaken", true},
                    Answer{"Cut", "200 OK\r\nContent-Length: 5\r\n\r\ntake", false},
                    Answer{"OfUnknownLength", "200 OK\r\n\r\ntaken", false},
                    Answer{"500", "500 Broken\r\nContent-Length: 0\r\n\r\n", false}),
    [](const auto& each) { return "Answer" + std::string(each.param.name); });

TEST_F(UploadTest, AServerThatNobodyTrustsGetsNothing) {
    const NginxServer server(answering(test::kKeepBody));
    const NginxServer other;
    useServer(other);
    const auto log = makeUploader(server);
    log->log("Act");
    ASSERT_TRUE(waitForTasks(log->sendCEPImp(false)));
    EXPECT_THAT(server.requests(), IsEmpty());
    EXPECT_THAT(filesInFolder(), ElementsAre("utilia_report.xml", "utilia_report.xml.tar.gz"));
}

TEST_F(UploadTest, WithoutTLSNothingIsSent) {
    const NginxServer server(answering(test::kKeepBody));
    useServer(server);
    const auto log = makeUploader(server.url(kEndpointPath));
    log->log("Act");
    ASSERT_TRUE(waitForTasks(log->sendCEPImp(false)));
    EXPECT_THAT(server.requests(), IsEmpty());
    EXPECT_TRUE(fs::exists(pathOf("utilia_report.xml")));
}

TEST_F(UploadTest, WhereNobodyListensTheReportStays) {
    const NginxServer server;
    useServer(server);
    const ListeningPort nobody(false);
    const auto log = makeUploader("https://127.0.0.1:" + nobody.number() + kEndpointPath);
    log->log("Act");
    ASSERT_TRUE(waitForTasks(log->sendCEPImp(false)));
    EXPECT_THAT(filesInFolder(), ElementsAre("utilia_report.xml", "utilia_report.xml.tar.gz"));
}

TEST_F(UploadTest, AServerThatTakesConnectionsAndSaysNothingIsGivenUp) {
    const NginxServer server;
    useServer(server, {{"connect-timeout = 30", "connect-timeout = 1"}});
    const ListeningPort silent(true);
    const auto log = makeUploader("https://127.0.0.1:" + silent.number() + kEndpointPath);
    log->log("Act");
    ASSERT_TRUE(waitForTasks(log->sendCEPImp(false)));
    EXPECT_THAT(filesInFolder(), ElementsAre("utilia_report.xml", "utilia_report.xml.tar.gz"));
    EXPECT_TRUE(silent.wasConnectedTo());
}

TEST_F(UploadTest, AServerThatTakesTheReportAndNeverAnswersIsGivenUp) {
    const ListeningPort silent(true);
    const NginxServer server(answering("proxy_pass http://127.0.0.1:" + silent.number() + ";"));
    useServer(server, {{"speed-time = 60", "speed-time = 5"}});
    const auto log = makeUploader(server);
    log->log("Act");
    ASSERT_TRUE(waitForTasks(log->sendCEPImp(false)));
    EXPECT_THAT(filesInFolder(), ElementsAre("utilia_report.xml", "utilia_report.xml.tar.gz"));
    EXPECT_TRUE(silent.wasConnectedTo());
}

TEST_F(UploadTest, AnAnswerThatTricklesForeverIsGivenUp) {
    const std::string words(3000, 'x');
    const NginxServer server(answering("limit_rate 100; return 200 " + words + ";"));
    useServer(server, {{"max-time = 900", "max-time = 6"}});
    const auto log = makeUploader(server);
    log->log("Act");
    ASSERT_TRUE(waitForTasks(log->sendCEPImp(false)));
    EXPECT_TRUE(fs::exists(pathOf("utilia_report.xml")));
    const std::string heard = test::contentOf(reportUploadOutput());
    EXPECT_GT(heard.size(), 0u);
    EXPECT_LT(heard.size(), words.size());
}

TEST_F(UploadTest, AReportThatIsOnItsWayIsNotSentASecondTimeBesideItself) {
    NginxServer server(answering(test::kKeepBody));
    useServer(server);
    const auto log = makeUploader(server);
    log->log("Act");
    server.stop();
    const auto begun = log->sendCEPImp(false);
    ASSERT_EQ(begun.size(), 1u);
    EXPECT_THAT(log->sendCEPImp(false), IsEmpty());
    EXPECT_THAT(makeUploader(server)->sendCEPImp(true), IsEmpty()) << "by another object";
    server.resume();
    ASSERT_TRUE(waitForTasks(begun));
    EXPECT_THAT(filesInFolder(), IsEmpty());
    EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(UploadTest, WhatWasRefusedIsSentAgainTheNextTime) {
    {
        const NginxServer refusing(answering("return 503;"));
        useServer(refusing);
        const auto log = makeUploader(refusing);
        log->log("First");
        ASSERT_TRUE(waitForTasks(log->sendCEPImp(false)));
    }
    const NginxServer server(answering(test::kKeepBody));
    useServer(server);
    const auto log = makeUploader(server);
    log->log("Second");
    const auto begun = log->sendCEPImp(false);
    EXPECT_EQ(begun.size(), 2u);
    ASSERT_TRUE(waitForTasks(begun));
    EXPECT_THAT(filesInFolder(), IsEmpty());
    EXPECT_EQ(server.waitForRequests(2).size(), 2u);
}

TEST_F(UploadTest, AHundredReportsGoSideBySide) {
    const NginxServer server(answering("return 200 ok;"));
    useServer(server);
    for (std::size_t number = 0; number < 100; ++number)
        test::writeFile(pathOf(reportName(number)), "<a/>\n");
    const auto begun = makeUploader(server)->sendCEPImp(false);
    EXPECT_EQ(begun.size(), 100u);
    ASSERT_TRUE(waitForTasks(begun));
    EXPECT_THAT(filesInFolder(), IsEmpty());
    EXPECT_EQ(server.waitForRequests(100).size(), 100u);
}

TEST_F(UploadTest, TheUsersOwnConfigurationAndEnvironmentDoNotApply) {
    const NginxServer server(answering("return 500;"));
    useServer(server);
    // Under these the report would be removed without having been accepted.
    for (const char* folder : {"", "config"})
        test::writeFile(home_.path() / folder / ".curlrc", "no-fail\nurl = file:///dev/null\n");
    test::writeFile(home_.path() / "env.sh", "curl() { return 0; }\n");
    setenv("BASH_ENV", (home_.path() / "env.sh").c_str(), 1);
    setenv("BASH_FUNC_curl%%", "() { return 0; }", 1);
    setenv("CURL_HOME", home_.path().c_str(), 1);
    const auto log = makeUploader(server);
    log->log("Act");
    const bool haveEnded = waitForTasks(log->sendCEPImp(false));
    unsetenv("CURL_HOME");
    unsetenv("BASH_FUNC_curl%%");
    unsetenv("BASH_ENV");
    ASSERT_TRUE(haveEnded);
    EXPECT_TRUE(fs::exists(pathOf("utilia_report.xml")));
    EXPECT_EQ(server.waitForRequests(1).size(), 1u);
}

// Users whose folders have unusual names.
class UnusualFolder : public testing::TestWithParam<const char*> {};

TEST_P(UnusualFolder, IsUploadedFrom) {
    const test::TemporaryFolder outer;
    const fs::path within = outer.path() / GetParam();
    fs::create_directories(within);
    const test::TemporaryHome home(within);
    ASSERT_EQ(CEPLogInit(), 0);
    const NginxServer server(answering(test::kKeepBody));
    const std::string own =
        test::contentOf(platform::Bundle::frameworkBundle()->resourcePath() + "/Upload/.curlrc");
    test::writeFile(home.path() / "curl/.curlrc",
                    own + "cacert = \"" + server.certificate().string() + "\"\n");
    CEPLog log(
        {.endpoint = server.secureURL(kEndpointPath), .curlHome = (home.path() / "curl").string()});
    log.setCepOwner(true);
    log.log("Act");
    const auto begun = log.sendCEPImp(false);
    ASSERT_EQ(begun.size(), 1u);
    EXPECT_THAT(begun[0], HasSubstr(GetParam()));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (platform::Task::isLocked(begun[0]) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_FALSE(fs::exists(begun[0]));
    const auto requests = server.waitForRequests(1);
    ASSERT_EQ(requests.size(), 1u) << server.errors();
    const fs::path archive = outer.path() / "arrived.tar.gz";
    test::writeFile(archive, SentForm::parse(requests[0]).content);
    EXPECT_EQ(test::outputOf("/usr/bin/bsdtar", {"-tzf", archive}, outer.path()), "Report.xml\n");
}

INSTANTIATE_TEST_SUITE_P(Names, UnusualFolder,
                         testing::Values("a b", "(a)", "a  b (1)", "it's", "j\xc3\xb6rg",
                                         "\xe6\x97\xa5\xe6\x9c\xac", "\xff\xfe", "a&b|c<d>e", "#a!",
                                         "*?[a]{b}", "~", "%@%s", "a:b", "-rf", "tab\there",
                                         "x.xml"));

}  // namespace
}  // namespace utilia
