#include <chrono>
#include <thread>

#include "Tests/Support/PrivateMounts.h"
#include "Tests/Unit/Reporting/ReportingFixture.h"

namespace utilia {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr auto kWeek = 604'800s;

class CEPLogTest : public test::ReportingTest {};

TEST_F(CEPLogTest, SpellsItsKeysAsTheyAreStored) {
    EXPECT_EQ(kCEPDisabledKey, "CEPDisabled");
    EXPECT_EQ(kDisabledCEPSentKey, "DisabledCEPSent");
    EXPECT_EQ(kCEPSyncDateKey, "CEPSyncDate");
    EXPECT_EQ(kCEPInterval, kWeek);
}

TEST_F(CEPLogTest, IsOnAndNoOwnerAtFirst) {
    const auto log = makeLog();
    EXPECT_FALSE(log->isCEPDisabled());
    EXPECT_FALSE(log->isDisabledByAdministrator());
    EXPECT_FALSE(log->getCEPSentAfterDisabling());
    EXPECT_FALSE(log->cepOwner());
    EXPECT_FALSE(log->timer());
    EXPECT_FALSE(log->permanentStartTimer());
    EXPECT_EQ(log->logPath(), std::nullopt);
}

TEST_F(CEPLogTest, KeepsItsSwitchesInTheAgentsPreferences) {
    const auto log = makeLog();
    log->setCEPDisabled(true);
    log->setCEPSentAfterDisabling(true);
    EXPECT_EQ(agentPreferences()->objectForKey("CEPDisabled"), Value(true));
    EXPECT_EQ(agentPreferences()->objectForKey("DisabledCEPSent"), Value(true));
    EXPECT_TRUE(makeLog()->isCEPDisabled());
    EXPECT_TRUE(makeLog()->getCEPSentAfterDisabling());
    agentPreferences()->setObject(false, "CEPDisabled");
    EXPECT_FALSE(log->isCEPDisabled()) << "another process's change is seen";
}

TEST_F(CEPLogTest, RecordsAnActionWithSettingsAndDetails) {
    makeLog()->log("Act", Dictionary{{"colour", "red"}}, Dictionary{{"count", 3}});
    EXPECT_THAT(logText(), HasSubstr(" action=\"Act\">\n\t<options colour=\"red\"/>\n"
                                     "\t<details count=\"3\"/>\n</event>\n"));
}

TEST_F(CEPLogTest, RecordsAnActionAlone) {
    makeLog()->log("Act");
    EXPECT_THAT(logText(), HasSubstr(" action=\"Act\"/>\n"));
}

TEST_F(CEPLogTest, RecordsNothingWhileItIsOff) {
    const auto log = makeLog();
    log->setCEPDisabled(true);
    log->log("Act");
    log->log("StartPermanent");
    EXPECT_FALSE(std::filesystem::exists(current()));
    EXPECT_FALSE(log->permanentStartTimer()) << "not even the timer begins";
}

TEST_F(CEPLogTest, APermanentStartIsRecordedAsAStartAndEachWeekAgain) {
    const auto log = makeLog();
    log->log("StartPermanent", {}, Dictionary{{"by", "user"}});
    EXPECT_TRUE(log->permanentStartTimer());
    EXPECT_THAT(actions(), ElementsAre("Start"));
    clock_->run(kWeek - 1s);
    EXPECT_THAT(actions(), ElementsAre("Start"));
    clock_->run(1s);
    EXPECT_THAT(actions(), ElementsAre("Start", "Start"));
    EXPECT_THAT(logText(), HasSubstr(" action=\"Start\">\n\t<details Permanent=\"true\"/>\n"));
    clock_->run(2 * kWeek);
    EXPECT_EQ(actions().size(), 4u);
}

TEST_F(CEPLogTest, ASecondPermanentStartReplacesTheTimerOfTheFirst) {
    const auto log = makeLog();
    log->log("StartPermanent");
    clock_->run(kWeek / 2);
    log->log("StartPermanent");
    clock_->run(kWeek - 1s);
    EXPECT_THAT(actions(), ElementsAre("Start", "Start")) << "the first timer is over";
    clock_->run(1s);
    EXPECT_THAT(actions(), ElementsAre("Start", "Start", "Start"));
}

class EndingAction : public CEPLogTest, public testing::WithParamInterface<const char*> {};

TEST_P(EndingAction, EndsThePermanentStart) {
    const auto log = makeLog();
    EXPECT_EQ(log->handlePermanentStart("StartPermanent"), "Start");
    EXPECT_EQ(log->handlePermanentStart("Other"), "Other");
    EXPECT_TRUE(log->permanentStartTimer());
    EXPECT_EQ(log->handlePermanentStart(GetParam()), GetParam());
    EXPECT_FALSE(log->permanentStartTimer());
    clock_->run(2 * kWeek);
    EXPECT_FALSE(std::filesystem::exists(current()));
}

INSTANTIATE_TEST_SUITE_P(Actions, EndingAction, testing::Values("Start", "Stop", "Quit", "Launch"));

TEST_F(CEPLogTest, APermanentStartEndsOnlyThroughWhatIsRecorded) {
    const auto log = makeLog();
    log->log("StartPermanent");
    log->setCEPDisabled(true);
    log->log("Stop");
    EXPECT_TRUE(log->permanentStartTimer()) << "while it is off nothing is looked at";
    clock_->run(kWeek);
    EXPECT_THAT(actions(), ElementsAre("Start", "Start")) << "the weekly record is not gated";
}

TEST_F(CEPLogTest, ThePermanentTimerCanBeStoppedAndReplaced) {
    const auto log = makeLog();
    log->handlePermanentStart("StartPermanent");
    log->stopPermanentStartTimer();
    EXPECT_FALSE(log->permanentStartTimer());
    bool isEnded = false;
    log->setPermanentStartTimer(Handle([&] { isEnded = true; }));
    log->stopPermanentStartTimer();
    EXPECT_TRUE(isEnded);
}

TEST_F(CEPLogTest, SleepCountsForThePermanentTimerAndTheWallClockDoesNot) {
    const auto log = makeLog();
    log->log("StartPermanent");
    clock_->setWallClock(Date{kNow.secondsSinceReferenceDate + 86'400.0 * 3650});
    clock_->run(1s);
    EXPECT_THAT(actions(), ElementsAre("Start")) << "ten years forward";
    clock_->setWallClock(Date{0});
    clock_->sleep(3 * kWeek);
    EXPECT_THAT(actions(), ElementsAre("Start", "Start")) << "three weeks of sleep, one record";
}

TEST_F(CEPLogTest, SwitchingOffIsRecordedBeforeItHolds) {
    const auto log = makeLog();
    log->disableCEP();
    EXPECT_TRUE(log->isCEPDisabled());
    EXPECT_THAT(actions(), ElementsAre("CepDisabled"));
    EXPECT_THAT(logText(), HasSubstr("\t<details FromInstaller=\"true\"/>\n"));
    log->disableCEP();
    EXPECT_THAT(actions(), ElementsAre("CepDisabled")) << "off already";
}

TEST_F(CEPLogTest, AToolLeavesTheLastUploadToTheOwner) {
    const auto log = makeLog();
    log->setCEPSentAfterDisabling(true);
    log->disableCEP();
    EXPECT_FALSE(log->getCEPSentAfterDisabling());
    EXPECT_EQ(tasks_.count(), 0u);
}

TEST_F(CEPLogTest, TheOwnerMakesTheLastUploadAtOnceAndOnlyOnce) {
    auto log = makeLog();
    log->setCepOwner(true);
    log->disableCEP();
    EXPECT_TRUE(log->getCEPSentAfterDisabling());
    log->disableCEP();
    log.reset();  // the uploads have ended
    EXPECT_EQ(tasks_.count(), 1u);
    EXPECT_THAT(test::actionsIn(report()), ElementsAre("CepDisabled"));
    EXPECT_THAT(report(), HasSubstr("\t<details FromInstaller=\"false\"/>\n"));
}

TEST_F(CEPLogTest, SwitchingOnIsRecordedAndForgetsTheLastUpload) {
    const auto log = makeLog();
    log->setCEPDisabled(true);
    log->setCEPSentAfterDisabling(true);
    log->enableCEP();
    EXPECT_FALSE(log->isCEPDisabled());
    EXPECT_FALSE(log->getCEPSentAfterDisabling());
    EXPECT_THAT(actions(), ElementsAre("CepEnabled"));
    EXPECT_THAT(logText(), HasSubstr("\t<details FromInstaller=\"true\"/>\n"));
    log->setCepOwner(true);
    log->enableCEP();
    EXPECT_THAT(logText(), HasSubstr("\t<details FromInstaller=\"false\"/>\n"));
}

TEST_F(CEPLogTest, TheLockFileLiesInTheRuntimeFolder) {
    EXPECT_EQ(CEPLog::lockFile(),
              (home_.runtime() / "com.korvane.utilia" / "krv.utilia.ceplog.lock").string());
    makeLog()->initGrab();
    EXPECT_EQ(std::filesystem::status(CEPLog::lockFile()).permissions(),
              std::filesystem::perms(0644));
}

TEST_F(CEPLogTest, WithoutARuntimeFolderThereIsNoLockFileAndTheOwnerStartsAllTheSame) {
    std::filesystem::create_directories(home_.runtime() / "com.korvane.utilia");
    std::filesystem::permissions(home_.runtime() / "com.korvane.utilia",
                                 std::filesystem::perms(0777));
    EXPECT_EQ(CEPLog::lockFile(), "");
    const auto log = makeLog();
    log->initGrab();
    EXPECT_TRUE(log->timer());
    EXPECT_FALSE(std::filesystem::exists("/krv.utilia.ceplog.lock"));
}

TEST_F(CEPLogTest, TheVeryFirstStartUploadsAfterAWeek) {
    auto log = makeLog();
    log->log("Act");
    log->initGrab();
    EXPECT_TRUE(log->cepOwner());
    EXPECT_TRUE(log->timer());
    EXPECT_EQ(syncDate(), (Date{kNow.secondsSinceReferenceDate + 604'800}));
    clock_->run(kWeek - 1s);
    ASSERT_TRUE(log->waitForUploads(60s));
    EXPECT_FALSE(std::filesystem::exists(reportFolder()));
    clock_->run(1s);
    log.reset();
    EXPECT_EQ(tasks_.count(), 1u);
    EXPECT_EQ(syncDate(), (Date{kNow.secondsSinceReferenceDate + 604'800}))
        << "the date stays while the owner runs";
}

TEST_F(CEPLogTest, AnOwnerThatStartsBeforeItsDateUploadsAtIt) {
    const Date due{kNow.secondsSinceReferenceDate + 100};
    agentPreferences()->setObject(due, "CEPSyncDate");
    auto log = makeLog();
    log->log("Act");
    log->initGrab();
    EXPECT_EQ(syncDate(), due);
    clock_->run(99s);
    ASSERT_TRUE(log->waitForUploads(60s));
    EXPECT_FALSE(std::filesystem::exists(reportFolder()));
    clock_->run(1s);
    log.reset();
    EXPECT_EQ(tasks_.count(), 1u);
    EXPECT_EQ(syncDate(), due);
}

TEST_F(CEPLogTest, ADateThatIsThisVeryMomentHasNotPassed) {
    agentPreferences()->setObject(kNow, "CEPSyncDate");
    auto log = makeLog();
    log->log("Act");
    log->initGrab();
    EXPECT_EQ(syncDate(), kNow);
    clock_->run(0s);
    log.reset();
    EXPECT_EQ(tasks_.count(), 1u);
}

TEST_F(CEPLogTest, AnOverdueOwnerUploadsAtOnceAndMovesTheDate) {
    agentPreferences()->setObject(Date{kNow.secondsSinceReferenceDate - 30 * 604'800.0},
                                  "CEPSyncDate");
    auto log = makeLog();
    log->log("Act");
    log->initGrab();
    EXPECT_EQ(syncDate(), (Date{kNow.secondsSinceReferenceDate + 604'800}));
    log.reset();
    EXPECT_EQ(tasks_.count(), 1u) << "thirty weeks late, one upload";
}

TEST_F(CEPLogTest, AnOverdueOwnerUploadsAgainAWeekLater) {
    agentPreferences()->setObject(Date{0}, "CEPSyncDate");
    auto log = makeLog();
    log->log("First");
    log->initGrab();
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (tasks_.count() == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    log->log("Second");
    clock_->run(kWeek - 1s);
    ASSERT_TRUE(log->waitForUploads(60s));
    EXPECT_THAT(actions(), ElementsAre("Second"));
    clock_->run(1s);
    log.reset();
    EXPECT_THAT(test::actionsIn(report(1)), ElementsAre("Second"));
    EXPECT_EQ(tasks_.count(), 3u) << "the first one, which nobody has accepted, again";
}

TEST_F(CEPLogTest, TheFirstDelayIsAtMostAWeek) {
    // Written while the clock was ten years ahead.
    const Date wrong{kNow.secondsSinceReferenceDate + 86'400.0 * 3650};
    agentPreferences()->setObject(wrong, "CEPSyncDate");
    auto log = makeLog();
    log->log("Act");
    log->initGrab();
    clock_->run(kWeek);
    log.reset();
    EXPECT_EQ(tasks_.count(), 1u);
    EXPECT_EQ(syncDate(), wrong);
}

TEST_F(CEPLogTest, TheFirstDelayIsComputedOnceWhateverTheWallClockDoes) {
    agentPreferences()->setObject(Date{kNow.secondsSinceReferenceDate + 3600}, "CEPSyncDate");
    auto log = makeLog();
    log->log("Act");
    log->initGrab();
    clock_->setWallClock(Date{kNow.secondsSinceReferenceDate + 86'400});
    clock_->run(3599s);
    clock_->setWallClock(Date{0});
    ASSERT_TRUE(log->waitForUploads(60s));
    EXPECT_FALSE(std::filesystem::exists(reportFolder()));
    clock_->run(1s);
    log.reset();
    EXPECT_EQ(tasks_.count(), 1u);
}

TEST_F(CEPLogTest, SleepCountsForTheWeeklyTimerAndAfterALongOneItUploadsOnce) {
    auto log = makeLog();
    log->log("Act");
    log->initGrab();
    const auto awake = clock_->monotonicTime();
    clock_->sleep(5 * kWeek);
    EXPECT_EQ(clock_->monotonicTime(), awake);
    log.reset();
    EXPECT_EQ(tasks_.count(), 1u);
}

TEST_F(CEPLogTest, ADateOfAnotherTypeIsNone) {
    agentPreferences()->setObject("soon", "CEPSyncDate");
    auto log = makeLog();
    log->log("Act");
    log->initGrab();
    EXPECT_EQ(syncDate(), (Date{kNow.secondsSinceReferenceDate + 604'800}));
    log.reset();
    EXPECT_EQ(tasks_.count(), 0u);
}

TEST_F(CEPLogTest, SwitchesOfAnotherTypeMeanWhatTheirNumberOrTextMeans) {
    const auto log = makeLog();
    for (const Value& on : {Value(1), Value(0.5), Value("yes"), Value("true"), Value("1")}) {
        agentPreferences()->setObject(on, "CEPDisabled");
        agentPreferences()->setObject(on, "DisabledCEPSent");
        EXPECT_TRUE(log->isCEPDisabled());
        EXPECT_TRUE(log->getCEPSentAfterDisabling());
    }
    for (const Value& off :
         {Value(0), Value("no"), Value("soon"), Value(kNow), Value(Array{true})}) {
        agentPreferences()->setObject(off, "CEPDisabled");
        agentPreferences()->setObject(off, "DisabledCEPSent");
        EXPECT_FALSE(log->isCEPDisabled());
        EXPECT_FALSE(log->getCEPSentAfterDisabling());
    }
}

TEST_F(CEPLogTest, AnOwnerMakesUpForTheLastUploadOnce) {
    makeLog()->log("Act");
    agentPreferences()->setObject(true, "CEPDisabled");
    for (int start = 0; start < 2; ++start) {
        const auto log = makeLog();
        log->initGrab();
        EXPECT_TRUE(log->getCEPSentAfterDisabling());
    }
    EXPECT_EQ(tasks_.count(), 1u);
    EXPECT_THAT(test::actionsIn(report()), ElementsAre("Act"));
}

TEST_F(CEPLogTest, WhileItIsOffTheWeeklyUploadDoesNothing) {
    makeLog()->log("Act");
    auto log = makeLog();
    log->initGrab();
    log->setCEPDisabled(true);
    log->setCEPSentAfterDisabling(true);
    clock_->run(3 * kWeek);
    log.reset();
    EXPECT_EQ(tasks_.count(), 0u);
    EXPECT_FALSE(std::filesystem::exists(reportFolder())) << "nothing is collected either";
}

TEST_F(CEPLogTest, OnlyTheOwnerUploads) {
    const auto log = makeLog();
    log->log("Act");
    log->sendCEP();
    log->sendCEPForcibly();
    EXPECT_EQ(tasks_.count(), 0u);
    ASSERT_TRUE(log->waitForUploads(60s));
    EXPECT_FALSE(std::filesystem::exists(reportFolder()));
    log->setCepOwner(true);
    log->sendCEP();
    EXPECT_EQ(tasks_.count(), 1u);
}

TEST_F(CEPLogTest, AForcedUploadHappensAlsoWhileItIsOff) {
    const auto log = makeLog();
    log->log("Act");
    log->setCEPDisabled(true);
    log->setCepOwner(true);
    log->sendCEP();
    EXPECT_EQ(tasks_.count(), 0u);
    log->sendCEPForcibly();
    EXPECT_EQ(tasks_.count(), 1u);
}

TEST_F(CEPLogTest, ItsEndIsTheEndOfItsTimers) {
    auto log = makeLog();
    log->log("StartPermanent");
    log->initGrab();
    log.reset();
    clock_->run(2 * kWeek);
    EXPECT_THAT(actions(), ElementsAre("Start"));
    EXPECT_EQ(tasks_.count(), 0u);
}

TEST_F(CEPLogTest, TheSharedInstanceIsOneAndReadyToRecordOnAnyThread) {
    std::vector<CEPLog*> seen(8);
    std::vector<std::thread> threads;
    for (CEPLog*& each : seen) {
        threads.emplace_back([&each] {
            each = &CEPLog::sharedInstance();
            each->log("Act");
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const CEPLog* each : seen) EXPECT_EQ(each, seen[0]);
    EXPECT_EQ(actions(), std::vector<std::string>(8, "Act"));
}

TEST_F(CEPLogTest, ALockFileThatCannotBeOpenedDoesNotKeepTheOwnerFromStarting) {
    std::filesystem::create_directories(std::filesystem::path(CEPLog::lockFile()).parent_path());
    std::filesystem::create_symlink("elsewhere", CEPLog::lockFile());
    const auto log = makeLog();
    log->initGrab();
    EXPECT_TRUE(log->timer());
    EXPECT_EQ(messages_.count("krv.utilia.ceplog.lock"), 1u);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(CEPLog::lockFile()).parent_path() /
                                         "elsewhere"))
        << "links are not followed";
}

// What the administrator's settings say, and whether usage reporting is off by them.
struct Setting {
    const char* text;
    bool isOff;
};

class AdministratorsSwitch : public CEPLogTest, public testing::WithParamInterface<Setting> {};

TEST_P(AdministratorsSwitch, IsReadWhenTheObjectIsMade) {
    const test::PrivateMounts mounts;
    if (GetParam().text) mounts.writeSettings(GetParam().text);
    EXPECT_TRUE(mounts.run([this] {
        const auto log = makeLog();
        EXPECT_EQ(log->isCEPDisabled(), GetParam().isOff);
        EXPECT_EQ(log->isDisabledByAdministrator(), GetParam().isOff);
    }));
}

INSTANTIATE_TEST_SUITE_P(Settings, AdministratorsSwitch,
                         testing::Values(Setting{nullptr, false}, Setting{"{}", false},
                                         Setting{R"({"UsageReportingDisabled": false})", false},
                                         Setting{R"({"UsageReportingDisabled": true})", true},
                                         Setting{R"({"usagereportingdisabled": true})", false},
                                         // Somebody wanted it off, and slipped.
                                         Setting{R"({"UsageReportingDisabled": "on"})", true},
                                         Setting{R"({"UsageReportingDisabled": 1})", true},
                                         Setting{R"({"UsageReportingDisabled": null})", true},
                                         // As for all settings: a damaged file restricts nothing.
                                         Setting{R"({"UsageReportingDisabled": true)", false}));

TEST_F(CEPLogTest, WhereTheAdministratorSwitchedItOffNothingIsRecordedOrUploaded) {
    makeLog()->log("Before");
    const test::PrivateMounts mounts;
    mounts.writeSettings(R"({"UsageReportingDisabled": true})");
    EXPECT_TRUE(mounts.run([this] {
        auto log = makeLog();
        log->log("StartPermanent");
        EXPECT_EQ(log->handlePermanentStart("StartPermanent"), "Start");
        EXPECT_FALSE(log->permanentStartTimer());
        log->firePermanentTimer();
        log->initGrab();
        log->sendCEP();
        log->sendCEPForcibly();
        log->disableCEP();
        EXPECT_FALSE(log->getCEPSentAfterDisabling()) << "the last upload is still to come";
        log->initGrab();
        clock_->run(3 * kWeek);
        log->enableCEP();
        EXPECT_TRUE(log->isCEPDisabled());
        log.reset();
        EXPECT_EQ(tasks_.count(), 0u);
        EXPECT_THAT(actions(), ElementsAre("Before"));
        EXPECT_FALSE(std::filesystem::exists(reportFolder()));
    }));
}

TEST_F(CEPLogTest, WhenTheAdministratorTakesItBackTheUsersSwitchIsAsItWas) {
    const test::PrivateMounts mounts;
    mounts.writeSettings(R"({"UsageReportingDisabled": true})");
    EXPECT_TRUE(mounts.run([this] { makeLog()->setCEPDisabled(false); }));
    EXPECT_FALSE(makeLog()->isCEPDisabled());
}

}  // namespace
}  // namespace utilia
