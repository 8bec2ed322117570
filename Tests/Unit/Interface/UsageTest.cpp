#include "Tests/Unit/Interface/UsageFixture.h"

#include "Common/Platform/LockedFile.h"
#include "Common/Platform/Task.h"
#include "Tests/Process/UnprivilegedUser.h"
#include "Tests/Support/PrivateMounts.h"

// Whether it is true what the agent's settings say of usage reporting, and whether the preview shows what is sent.

namespace utilia::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr const char* kOff =
    "Usage reporting is off. What was recorded before is sent once more, and then nothing.";

TEST_F(UsageTest, IsSaidToBeSentWhereItIs) {
    EXPECT_THAT(page(),
                AllOf(Contains(StartsWith("Once a week a report of which tools")),
                      Contains("&Report how I use the tools"), Contains("&What Was Sent…")));
    CEPLog().log("Act");
    EXPECT_THAT(preview(), ElementsAre("What will be sent next", kDocuments,
                                       StartsWith("What no report has taken yet · ")));
}

TEST_F(UsageTest, IsNotSaidToBeSentWhileItIsOff) {
    CEPLog().log("Act");
    switchOff();
    EXPECT_THAT(page(), AllOf(Contains(StartsWith(kOff)), Not(Contains(HasSubstr("Once a week")))));
    EXPECT_THAT(preview(), ElementsAre("What is recorded", StartsWith(kOff), kDocuments,
                                       StartsWith("What no report has taken yet · ")));
}

TEST_F(UsageTest, IsNotSaidToBeSentWhereTheAdministratorHasSwitchedItOff) {
    const PrivateMounts mounts;
    mounts.writeSettings(R"({"UsageReportingDisabled": true})");
    constexpr const char* kByAdministrator = "Your administrator has switched usage reporting off.";
    EXPECT_THAT(page({.mounts = &mounts}),
                AllOf(Contains(kByAdministrator), Not(Contains(HasSubstr("Once a week")))));
    EXPECT_THAT(preview({.mounts = &mounts}),
                ElementsAre("What is recorded", kByAdministrator,
                            "Nothing is recorded at the moment.", kDocuments));
}

TEST_F(UsageTest, IsPreviewedByteForByteAsItIsThenSent) {
    std::string all;  // that may be in a document
    for (char each = ' '; each != '\x7f'; ++each) all += each;
    leaveReport("utilia_report (3).xml", "\t" + all + "\n\n  ümlaut\u00a0\u2028 \U0001F600 \n");
    leaveReport("utilia_report $.xml", "never sent, for its name");
    fs::create_symlink("utilia_report (3).xml", fs::path(reportFolder()) / "utilia_report (4).xml");
    CEPLog log({.launchTask = [](const platform::Task&) -> Result<void> { return {}; }});
    log.setCepOwner(true);
    for (int i = 0; i < 300; ++i) log.log("Act", Dictionary{{"Text", all + "\n\u00a0\u20ac"}});
    EXPECT_THAT(preview(), ElementsAre("What will be sent next", kDocuments,
                                       StartsWith("utilia_report (3).xml · "),
                                       StartsWith("What no report has taken yet · ")));
    Lines sent;
    for (const std::string& path : log.sendCEPImp(false)) {
        // The task refuses a link, and is a stub here.
        if (!fs::is_symlink(path)) sent.push_back(contentOf(path));
    }
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_GT(sent[1].size(), 30'000u);
    EXPECT_EQ(shown(), sent);
}

TEST_F(UsageTest, IsPreviewedWhenWhoCollectsHasEnded) {
    CEPLog log;
    log.log("Act");
    auto turn = platform::LockedFile::openOrCreate(CEPLog::lockFile(), 0644);
    ASSERT_TRUE(turn);
    auto role = startPreview();
    EXPECT_EQ(role.waitForLine(), "What will be sent next");
    EXPECT_EQ(role.waitForLine(), "One moment…");
    EXPECT_EQ(role.waitForLine(), kLooking);
    ASSERT_TRUE(log.logGrab());
    ASSERT_TRUE(turn->unlock());
    role.say("go on");
    EXPECT_THAT(linesOf(role), ElementsAre("What will be sent next", kDocuments,
                                           StartsWith("utilia_report.xml · ")));
}

TEST_F(UsageTest, IsSaidToBeTooLargeToBeShown) {
    leaveReport("utilia_report (1).xml", "<a/>\n");
    leaveReport("utilia_report (2).xml", "");
    fs::resize_file(fs::path(reportFolder()) / "utilia_report (2).xml", (16u << 20) + 1);
    EXPECT_THAT(preview(),
                ElementsAre("What will be sent next", kDocuments, "utilia_report (1).xml · 5 bytes",
                            "utilia_report (2).xml is too large to be shown here."));
    EXPECT_THAT(shown(),
                ElementsAre("<a/>\n", reportFolder() +
                                          "/utilia_report (2).xml is too large to be shown here."));
}

TEST_F(UsageTest, IsSaidToBeGone) {
    leaveReport("utilia_report (1).xml", "<a/>\n");
    leaveReport("utilia_report (2).xml", "<b/>\n");
    const std::string gone = reportFolder() + "/utilia_report (2).xml";
    (void)preview({}, {gone});
    EXPECT_THAT(shown(), ElementsAre("<a/>\n", gone + " is not there any more."));
}

TEST_F(UsageTest, IsSaidToBeUnreadableDocumentByDocument) {
    leaveReport("utilia_report (1).xml", "<a/>\n");
    leaveReport("utilia_report (2).xml", "<b/>\n");
    const fs::path secret = fs::path(reportFolder()) / "utilia_report (1).xml";
    const UnprivilegedUser user(home_);
    user.own(home_.state());
    user.own(shown_.path());
    fs::permissions(secret, fs::perms::none);
    EXPECT_THAT(preview({.user = user.id()}), ElementsAre("What will be sent next", kDocuments,
                                                          "utilia_report (1).xml cannot be read.",
                                                          "utilia_report (2).xml · 5 bytes"));
    EXPECT_THAT(shown(), ElementsAre(secret.string() + " cannot be read.", "<b/>\n"));
}

TEST_F(UsageTest, IsSaidToBeUnreadableAltogether) {
    fs::create_directories(fs::path(reportFolder()).parent_path());
    fs::create_symlink("KorvaneUtilia", reportFolder());  // leads to itself
    EXPECT_THAT(preview(), ElementsAre("What will be sent next",
                                       reportFolder() + " cannot be read.", kDocuments));
}

TEST_F(UsageTest, IsNotPreviewedWhereTheUploadWouldLoseIt) {
    for (std::size_t i = 0; i < kMaximumReports; ++i) leaveReport(reportName(i), "<a/>\n");
    CEPLog().log("Act");
    const Lines said = preview();
    ASSERT_EQ(said.size(), 3 + kMaximumReports);
    EXPECT_EQ(
        said[1],
        "As many reports wait as there can be. What is recorded now is lost with the next upload.");
    EXPECT_THAT(shown(), testing::Each("<a/>\n"));
}

}  // namespace
}  // namespace utilia::test
