#include <functional>
#include <random>

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/file.h>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"
#include "Tests/Support/NginxServer.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/PrivateNetwork.h"
#include "Tests/Unit/Utiliactl/ControlProgram.h"

namespace utilia {
namespace {

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

constexpr const char* kEndpoint = "https://" UTILIA_REPORT_HOST "/utilia/1/cep";
constexpr const char* kEnd = "</CepCustomData>\n</KorvaneProblemReport>\n";

class ReportingCommandTest : public test::ControlProgramTest {
protected:
    void SetUp() override { ASSERT_EQ(CEPLogInit(), 0); }

    static std::unique_ptr<platform::UserDefaults> preferences() {
        return platform::UserDefaults::initWithDomain("com.korvane.utilia");
    }
    json status() { return json::parse(answer({"reporting", "status", "--json"})); }
    static void leaveReport(const std::string& name, const std::string& content) {
        fs::create_directories(reportFolder());
        std::ofstream(fs::path(reportFolder()) / name) << content;
    }
    static std::string path(const std::string& name) { return reportFolder() + "/" + name; }
};

TEST_F(ReportingCommandTest, TellsThatItIsOnAndWhereEverythingLies) {
    EXPECT_EQ(status(), (json{{"enabled", true},
                              {"disabledByUser", false},
                              {"disabledByAdministrator", false},
                              {"lastUploadPending", false},
                              {"nextUpload", nullptr},
                              {"endpoint", kEndpoint},
                              {"log", CEPLogPath()},
                              {"reports", reportFolder()}}));
    EXPECT_THAT(answer({"reporting", "status"}), StartsWith("Usage reporting is on.\nSent to:"));
}

TEST_F(ReportingCommandTest, TellsWhenTheNextUploadIs) {
    preferences()->setObject(Date{700'000'000}, kCEPSyncDateKey);
    EXPECT_EQ(status()["nextUpload"], "2023-03-08T20:26:40.000Z");
    EXPECT_THAT(answer({"reporting", "status"}),
                HasSubstr("Next upload:  2023-03-08T20:26:40.000Z\n"));
    preferences()->removeObjectForKey(kCEPSyncDateKey);
    EXPECT_THAT(answer({"reporting", "status"}),
                HasSubstr("Next upload:  a week after the agent's first start\n"));
    answer({"reporting", "off"});
    EXPECT_THAT(answer({"reporting", "status"}),
                HasSubstr("Next upload:  none while usage reporting is off\n"));
}

TEST_F(ReportingCommandTest, SwitchesOffAndOnWithRecordsOfIt) {
    EXPECT_EQ(answer({"reporting", "off"}),
              "Usage reporting is off. What was recorded until then is sent once more when the "
              "agent next starts.\n");
    EXPECT_TRUE(preferences()->boolForKey(kCEPDisabledKey));
    EXPECT_EQ(status()["enabled"], false);
    EXPECT_EQ(status()["lastUploadPending"], true);
    EXPECT_THAT(contentOf(CEPLogPath()),
                HasSubstr("action=\"CepDisabled\">\n\t<details FromInstaller=\"true\"/>"));
    EXPECT_EQ(answer({"reporting", "on"}), "Usage reporting is on.\n");
    EXPECT_THAT(contentOf(CEPLogPath()),
                HasSubstr("action=\"CepEnabled\">\n\t<details FromInstaller=\"true\"/>"));
    EXPECT_EQ(status()["enabled"], true);
}

TEST_F(ReportingCommandTest, SwitchingOffAgainAsksForNoOtherLastUpload) {
    preferences()->setObject(true, kCEPDisabledKey);
    preferences()->setObject(true, kDisabledCEPSentKey);
    EXPECT_EQ(answer({"reporting", "off"}), "Usage reporting is off.\n");
    EXPECT_EQ(status()["lastUploadPending"], false);
}

TEST_F(ReportingCommandTest, SaysThatTheSwitchCannotBeStored) {
    fs::create_directories(home_.config() / "korvane-utilia/com.korvane.utilia.plist.new/in use");
    EXPECT_THAT(refusal(1, {"reporting", "off"}),
                EndsWith("utiliactl: the switch cannot be stored\n"));
}

TEST_F(ReportingCommandTest, PreviewsWhatWaitsAndWhatWouldBeCollectedAndTakesNothingAway) {
    leaveReport("utilia_report.xml", "<a/>\n");
    CEPLog().log("Act");
    const std::string log = contentOf(CEPLogPath());
    const json expected{{{"report", path("utilia_report.xml")}, {"document", "<a/>\n"}},
                        {{"report", nullptr}, {"document", log + kEnd}}};
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(json::parse(answer({"reporting", "preview", "--json"})), expected);
    EXPECT_EQ(answer({"reporting", "preview"}), "==> " + path("utilia_report.xml") +
                                                    " <==\n<a/>\n"
                                                    "==> collected by the next upload <==\n" +
                                                    log + kEnd);
    EXPECT_EQ(contentOf(CEPLogPath()), log);
}

TEST_F(ReportingCommandTest, ThePreviewIsWhatIsThenSentByteForByte) {
    CEPLog log({.launchTask = [](const platform::Task&) -> Result<void> { return {}; }});
    log.setCepOwner(true);
    log.log("Act");
    const json previewed = json::parse(answer({"reporting", "preview", "--json"}));
    const auto sent = log.sendCEPImp(false);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(previewed.at(0).at("document"), contentOf(sent[0]));
}

TEST_F(ReportingCommandTest, ThereMayBeNothingToPreviewListOrSend) {
    EXPECT_EQ(answer({"reporting", "preview"}), "There is nothing to send.\n");
    EXPECT_EQ(json::parse(answer({"reporting", "preview", "--json"})), json::array());
    EXPECT_EQ(answer({"reports", "list"}), "No report waits.\n");
    EXPECT_EQ(json::parse(answer({"reports", "list", "--json"})), json::array());
    EXPECT_EQ(answer({"reports", "send"}), "There is nothing to send.\n");
    EXPECT_EQ(json::parse(answer({"reports", "send", "--json"})), json::array());
    EXPECT_EQ(answer({"reports", "sent"}), "Nothing has been sent yet.\n");
    EXPECT_EQ(json::parse(answer({"reports", "sent", "--json"})), json::array());
}

TEST_F(ReportingCommandTest, APreviewOfBytesThatAreNoUtf8ShowsReplacements) {
    leaveReport("utilia_report.xml", "a\xff");
    EXPECT_EQ(json::parse(answer({"reporting", "preview", "--json"}))[0]["document"],
              "a\xef\xbf\xbd");
}

TEST_F(ReportingCommandTest, APreviewLeavesOutWhatIsNoReportDocument) {
    leaveReport("utilia_report (1).xml", "<a/>\n");
    fs::create_directories(path("utilia_report (2).xml"));
    fs::create_symlink("missing", path("utilia_report (3).xml"));
    leaveReport("utilia_report $.xml", "never sent, for its name");
    EXPECT_EQ(answer({"reporting", "preview"}),
              "==> " + path("utilia_report (1).xml") + " <==\n<a/>\n");
}

TEST_F(ReportingCommandTest, APreviewLeavesOutWhatTheUploadWouldLose) {
    for (std::size_t i = 0; i < kMaximumReports; ++i) leaveReport(reportName(i), "<a/>\n");
    CEPLog().log("Act");
    EXPECT_EQ(json::parse(answer({"reporting", "preview", "--json"})).size(), kMaximumReports);
    EXPECT_THAT(answer({"reporting", "preview"}),
                StartsWith("As many reports wait as there can be: the next upload throws away what "
                           "is recorded now.\n==> "));
}

TEST_F(ReportingCommandTest, ListsWhatWaits) {
    leaveReport("utilia_report.xml", "12345");
    leaveReport("utilia_report (1).xml", "1");
    EXPECT_EQ(json::parse(answer({"reports", "list", "--json"})),
              (json{{{"report", path("utilia_report (1).xml")}, {"bytes", 1}},
                    {{"report", path("utilia_report.xml")}, {"bytes", 5}}}));
    EXPECT_THAT(answer({"reports", "list"}), HasSubstr("utilia_report.xml      5\n"));
}

TEST_F(ReportingCommandTest, SendsNothingWhileItIsOff) {
    leaveReport("utilia_report.xml", "<a/>");
    preferences()->setObject(true, kCEPDisabledKey);
    EXPECT_EQ(refusal(1, {"reports", "send"}),
              "utiliactl: usage reporting is off, so that nothing is sent\n");
    EXPECT_THAT(answer({"reporting", "preview"}), StartsWith("Usage reporting is off."));
}

TEST_F(ReportingCommandTest, RefusesTimesThatAreNone) {
    EXPECT_EQ(run({"reports", "send", "--wait", "-1"}).status, 2);
    EXPECT_EQ(run({"reports", "send", "--wait", "soon"}).status, 2);
}

TEST_F(ReportingCommandTest, WaitsNoLongerThanItIsTold) {
    leaveReport("utilia_report.xml", "<a/>");
    // On its way, by somebody else.
    const int report = open(path("utilia_report.xml").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(report, LOCK_EX), 0);
    const auto given = run({"reports", "send", "--wait", "0.05", "--json"});
    const auto forPeople = run({"reports", "send", "--wait", "0.05"});
    close(report);
    EXPECT_EQ(forPeople.status, 1);
    EXPECT_THAT(forPeople.out, HasSubstr("not accepted, and kept\n\nReports go to https://"));
    EXPECT_THAT(forPeople.out, HasSubstr("\"utiliactl fetch https://"));
    EXPECT_EQ(given.status, 1);
    EXPECT_EQ(json::parse(given.out),
              (json{{{"report", path("utilia_report.xml")}, {"removed", false}}}));
}

TEST_F(ReportingCommandTest, TheAdministratorsSwitchIsKnownToEveryCommand) {
    const test::PrivateMounts mounts;
    EXPECT_TRUE(mounts.run([this] {
        EXPECT_EQ(run({"admin", "set", "UsageReportingDisabled", "1"}).err,
                  "utiliactl: UsageReportingDisabled takes true or false\n"
                  "Run \"utiliactl admin set --help\" for more.\n");
        answer({"admin", "set", "UsageReportingDisabled", "true"});
        EXPECT_THAT(answer({"admin", "check"}), EndsWith("is in order.\n"));
        EXPECT_EQ(status()["enabled"], false);
        EXPECT_EQ(status()["disabledByAdministrator"], true);
        EXPECT_EQ(status()["disabledByUser"], false);
        EXPECT_THAT(answer({"reporting", "on"}),
                    HasSubstr("the administrator has switched usage reporting off"));
        leaveReport("utilia_report.xml", "<a/>");
        EXPECT_THAT(refusal(1, {"reports", "send"}), HasSubstr("the administrator has switched"));
    }));
}

TEST_F(ReportingCommandTest, TheCheckOfTheSettingsKnowsTheKey) {
    const test::PrivateMounts mounts;
    mounts.writeSettings(R"({"UsageReportingDisabled": "on", "usagereportingdisabled": true})");
    EXPECT_TRUE(mounts.run([this] {
        const auto given = run({"admin", "check", "--json"});
        EXPECT_EQ(given.status, 1);
        const json findings = json::parse(given.out).at("findings");
        ASSERT_EQ(findings.size(), 2u);
        EXPECT_EQ(findings[0]["severity"], "error");
        EXPECT_EQ(findings[0]["message"],
                  "\"UsageReportingDisabled\" is neither true nor false, so "
                  "that usage reporting is off: \"on\"");
        EXPECT_EQ(findings[1]["severity"], "warning");
        EXPECT_EQ(findings[1]["message"],
                  "the key \"usagereportingdisabled\" has no effect: letter case counts, and it is "
                  "spelled \"UsageReportingDisabled\"");
    }));
}

// The product as it is, with the host that it was built for: in a network and with certificates of
// the test's own. `directives` are the server's for an upload.
void withServerOfTheProduct(const std::string& directives,
                            const std::function<void(const test::NginxServer&)>& body) {
    const test::PrivateMounts mounts;
    const test::PrivateNetwork network;
    network.run("ip link set lo up");
    EXPECT_TRUE(mounts.run([&] {
        ASSERT_TRUE(network.enter());
        const test::NginxServer server("location = /utilia/1/cep { " + directives + " }",
                                       {.certificateNames = {UTILIA_REPORT_HOST, "localhost"}});
        // nginx chooses its port; the product's is 443.
        const test::NginxServer front(
            "", {.outside = "server { listen 127.0.0.1:443 ssl; ssl_certificate " +
                            server.certificate().string() + "; ssl_certificate_key " +
                            server.key().string() + "; location / { proxy_pass " + server.url("/") +
                            "; } }"});
        fs::remove(mounts.etc() / "hosts");
        std::ofstream(mounts.etc() / "hosts") << "127.0.0.1 localhost " UTILIA_REPORT_HOST "\n";
        fs::remove(mounts.etc() / "ssl");
        fs::create_directories(mounts.etc() / "ssl/certs");
        fs::copy_file(server.certificate(), mounts.etc() / "ssl/certs/ca-certificates.crt");
        body(server);
    }));
}

TEST_F(ReportingCommandTest, SendsToTheServerOfTheProductAndSaysWhatItAccepted) {
    preferences()->setObject(Date{700'000'000}, kCEPSyncDateKey);
    CEPLog().log("Act");
    leaveReport("utilia_report (5).xml", "<a/>\n");
    withServerOfTheProduct(test::kKeepBody, [&](const test::NginxServer& server) {
        const json sent = json::parse(answer({"reports", "send", "--json"}));
        EXPECT_EQ(sent, (json{{{"report", path("utilia_report (5).xml")}, {"removed", true}},
                              {{"report", path("utilia_report.xml")}, {"removed", true}}}));
        EXPECT_EQ(server.waitForRequests(2).size(), 2u);
        EXPECT_EQ(preferences()->objectForKey(kCEPSyncDateKey), Value(Date{700'000'000}))
            << "the date of the weekly upload stays";
        EXPECT_EQ(answer({"reports", "send"}), "There is nothing to send.\n");
        const json kept = json::parse(answer({"reports", "sent", "--json"}));
        ASSERT_EQ(kept.size(), 2u);
        for (const json& one : kept) EXPECT_EQ(one.at("outcome"), "accepted");
        EXPECT_EQ(kept[1].at("report"), "utilia_report (5).xml");
        EXPECT_EQ(kept[1].at("bytes"), 5);
        std::ifstream copy(kept[1].at("document").get<std::string>());
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(copy), {}), "<a/>\n");
        EXPECT_THAT(answer({"reports", "sent"}), HasSubstr("utilia_report.xml "));
    });
}

TEST_F(ReportingCommandTest, TellsOfEachReportWhetherTheServerAcceptedIt) {
    leaveReport("utilia_report.xml", "<a/>\n");
    std::string noise(50'000, '\0');  // which an archive does not make smaller
    std::minstd_rand random(1);
    for (char& each : noise) each = static_cast<char>(random() >> 8);
    leaveReport("utilia_report (1).xml", noise);
    const std::string refusingLong = "if ($content_length ~ \"^[0-9]{5,}$\") { return 503; } ";
    withServerOfTheProduct(refusingLong + test::kKeepBody, [&](const test::NginxServer&) {
        const auto given = run({"reports", "send", "--json"});
        EXPECT_EQ(given.status, 1) << "one is left";
        EXPECT_EQ(json::parse(given.out),
                  (json{{{"report", path("utilia_report (1).xml")}, {"removed", false}},
                        {{"report", path("utilia_report.xml")}, {"removed", true}}}));
        EXPECT_TRUE(fs::exists(path("utilia_report (1).xml")));
        EXPECT_FALSE(fs::exists(path("utilia_report.xml")));
    });
}

}  // namespace
}  // namespace utilia
