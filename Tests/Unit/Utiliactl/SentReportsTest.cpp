#include "Applications/Reporting/SentReports.h"

#include <chrono>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include "Common/Platform/UniqueFd.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::reporting {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Outcome = SentReport::Outcome;

constexpr Date kDate{800'000'000.25};

class SentReportsTest : public testing::Test {
protected:
    SentReportsTest() { fs::create_directories(reportFolder()); }
    static std::string pathOf(const std::string& name) { return reportFolder() + "/" + name; }
    static std::string leave(const std::string& name, const std::string& text) {
        std::ofstream(pathOf(name)) << text;
        return pathOf(name);
    }
    static Date later(double seconds) { return {kDate.secondsSinceReferenceDate + seconds}; }
    // Sent, and accepted by the server.
    void accept(const std::string& name, const std::string& text, Date date) const {
        kept_.willSend({leave(name, text)}, date);
        fs::remove(pathOf(name));
        kept_.settle();
    }
    static std::vector<Outcome> outcomes(const std::vector<SentReport>& reports) {
        std::vector<Outcome> all;
        for (const SentReport& report : reports) all.push_back(report.outcome);
        return all;
    }
    static std::size_t copies() {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator(SentReports::defaultFolder()))
            count += entry.path().extension() == ".xml";
        return count;
    }

    test::TemporaryHome home_;
    test::TestLog log_;
    SentReports kept_;
};

TEST_F(SentReportsTest, AreNoneAtFirst) {
    EXPECT_THAT(kept_.all(), IsEmpty());
    kept_.settle();
    EXPECT_FALSE(fs::exists(SentReports::defaultFolder())) << "looking makes nothing";
}

TEST_F(SentReportsTest, KeepWhatTheServerHasAccepted) {
    const std::string path = leave("utilia_report.xml", "<a/>");
    // Under way, by whichever process.
    const platform::UniqueFd task(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(task.get(), LOCK_EX), 0);
    kept_.willSend({path}, kDate);
    kept_.settle();
    ASSERT_THAT(kept_.all(), SizeIs(1));
    EXPECT_TRUE(kept_.all()[0].isUnderWay());
    fs::remove(path);
    kept_.settle();
    const SentReport report = kept_.all().at(0);
    EXPECT_EQ(report.date, (Date{800'000'000}));
    EXPECT_EQ(report.name, "utilia_report.xml");
    EXPECT_EQ(report.bytes, 4u);
    EXPECT_EQ(report.outcome, Outcome::Accepted);
    EXPECT_EQ(SentReports::documentOf(report), "<a/>");
    EXPECT_EQ(fs::status(SentReports::defaultFolder()).permissions(), fs::perms::owner_all);
}

TEST_F(SentReportsTest, ListAReportThatIsRefusedOnceAndWithoutASecondCopy) {
    const std::string path = leave("utilia_report.xml", "<a/>");
    kept_.willSend({path}, kDate);
    kept_.settle();
    EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::Refused));
    EXPECT_EQ(SentReports::documentOf(kept_.all()[0]), "<a/>") << "it is where it always was";
    EXPECT_EQ(copies(), 0u);
    kept_.willSend({path}, later(60));
    kept_.settle();
    EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::Refused));
    EXPECT_EQ(kept_.all()[0].date, (Date{800'000'060}));
    kept_.willSend({path}, later(120));
    fs::remove(path);
    kept_.settle();
    EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::Accepted));
}

// Reports are announced all at once, and then their tasks are launched one after the other.
TEST_F(SentReportsTest, DecideAgainWhenSomebodyHasLookedBeforeTheUploadBegan) {
    const std::string path = leave("utilia_report.xml", "<a/>");
    kept_.willSend({path}, kDate);
    kept_.settle(later(1));
    {
        const platform::UniqueFd task(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(flock(task.get(), LOCK_EX), 0);
        kept_.settle(later(2));
        EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::UnderWay));
        fs::remove(path);
    }
    kept_.settle(later(3));
    EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::Accepted));
    EXPECT_EQ(SentReports::documentOf(kept_.all()[0]), "<a/>");
}

TEST_F(SentReportsTest, KeepTheCopyUntilItIsCertainThatAReportWasRefused) {
    const std::string path = leave("utilia_report.xml", "<a/>");
    kept_.willSend({path}, kDate);
    kept_.settle(later(599));
    EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::Refused));
    EXPECT_EQ(copies(), 1u);
    kept_.settle(later(601));
    EXPECT_EQ(copies(), 0u);
    fs::remove(path);
    kept_.settle(later(700));
    EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::Accepted));
    EXPECT_EQ(SentReports::documentOf(kept_.all()[0]), std::nullopt);
}

TEST_F(SentReportsTest, WriteNothingWhereNothingHasChanged) {
    kept_.willSend({leave("utilia_report.xml", "<a/>")}, kDate);
    kept_.settle();
    const fs::path list = fs::path(SentReports::defaultFolder()) / "sent.plist";
    const auto written = fs::last_write_time(list) - std::chrono::hours(1);
    fs::last_write_time(list, written);
    kept_.settle();
    EXPECT_EQ(fs::last_write_time(list), written);
}

TEST_F(SentReportsTest, DecideNothingAboutWhatCannotBeLookedAt) {
    kept_.willSend({leave("utilia_report.xml", "<a/>")}, kDate);
    const fs::path folder = reportFolder();
    const fs::path elsewhere = folder.string() + " elsewhere";
    fs::rename(folder, elsewhere);
    fs::create_symlink(folder.filename(), folder);  // leads to itself
    kept_.settle();
    EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::UnderWay));
    fs::remove(folder);
    fs::rename(elsewhere, folder);
    kept_.settle();
    EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::Refused));
    fs::remove_all(folder);
    std::ofstream(folder) << "no folder";
    kept_.settle();
    EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::Accepted));
}

TEST_F(SentReportsTest, AreNotTakenForAnotherReportOfTheSameName) {
    const std::string path = leave("utilia_report.xml", "<a/>");
    kept_.willSend({path}, kDate);
    leave("utilia_report.xml", "<b/>");  // accepted, removed, and the next one made
    kept_.willSend({path}, later(60));
    EXPECT_THAT(outcomes(kept_.all()), ElementsAre(Outcome::UnderWay, Outcome::Accepted));
    EXPECT_EQ(SentReports::documentOf(kept_.all()[1]), "<a/>");
}

TEST_F(SentReportsTest, AreTheLastTen) {
    for (int i = 0; i < 13; ++i) accept("utilia_report.xml", std::to_string(i), later(i));
    const auto all = kept_.all();
    ASSERT_THAT(all, SizeIs(SentReports::kMaximumReports));
    EXPECT_EQ(SentReports::documentOf(all.front()), "12");
    EXPECT_EQ(SentReports::documentOf(all.back()), "3");
    EXPECT_EQ(copies(), SentReports::kMaximumReports);
}

TEST_F(SentReportsTest, KeepNoMoreCopiesThanTheirSizeAllows) {
    const std::string half(SentReports::kMaximumSize / 2, 'x');
    for (int i = 0; i < 3; ++i) accept("utilia_report.xml", half, later(i));
    EXPECT_EQ(copies(), 2u);
    EXPECT_EQ(SentReports::documentOf(kept_.all().back()), std::nullopt);
    accept("utilia_report.xml", half + half + "x", later(9));
    EXPECT_EQ(SentReports::documentOf(kept_.all().front()), std::nullopt);
    EXPECT_THAT(kept_.all(), SizeIs(4)) << "that it was sent is known all the same";
}

TEST_F(SentReportsTest, DoNotTrustTheirFile) {
    accept("utilia_report.xml", "<a/>", kDate);
    const fs::path list = fs::path(SentReports::defaultFolder()) / "sent.plist";
    std::ifstream file(list);
    std::string text(std::istreambuf_iterator<char>(file), {});
    const std::size_t place = text.find("<string>report-");
    ASSERT_NE(place, std::string::npos);
    text.insert(place + 8, "../../../");
    std::ofstream(list) << text;
    EXPECT_EQ(SentReports::documentOf(kept_.all().at(0)), std::nullopt);
    std::ofstream(list) << "no property list";
    EXPECT_THAT(kept_.all(), IsEmpty());
    accept("utilia_report.xml", "<b/>", later(60));
    EXPECT_THAT(kept_.all(), SizeIs(1));
}

TEST_F(SentReportsTest, KeepNobodyFromSendingWhereNothingCanBeKept) {
    std::ofstream(home_.path() / "file") << "in the way";
    const SentReports nowhere(home_.path() / "file/folder");
    nowhere.willSend({leave("utilia_report.xml", "<a/>")}, kDate);
    EXPECT_THAT(nowhere.all(), IsEmpty());
    EXPECT_THAT(log_.lines(), testing::Contains(HasSubstr("Sent reports: ")));
}

}  // namespace
}  // namespace utilia::reporting
