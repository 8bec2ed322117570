#include <cctype>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Tests/Process/UnprivilegedUser.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Unit/EventLog/LogSample.h"
#include "Tests/Unit/EventLog/XmlDocument.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::TestBundle;
using test::XmlDocument;

// Says what each call answers: init, an event, a nested event, a grab.
UTILIA_CHILD_ROLE(logEvents) {
    self.say(std::to_string(CEPLogEvent("early", nullptr, nullptr, nullptr)));
    self.say(std::to_string(CEPLogInit()));
    const Dictionary options{{"o", 1}};
    const Dictionary details{{"FromInstaller", true}};
    self.say(std::to_string(CEPLogEvent("Start", nullptr, nullptr, nullptr)));
    self.say(std::to_string(CEPLogEvent("CepEnabled", nullptr, &options, &details)));
    self.say(CEPLogPath());
    return 0;
}

UTILIA_CHILD_ROLE(setOwnSettings) {
    auto& own = platform::UserDefaults::standardUserDefaults();
    own.setObject(true, "disableAutomaticUpdates");
    own.setObject(true, "AppleInterfaceStyleSwitchesAutomatically");
    CommonAuxiliary::sharedInstance().addAppToLoginItems(self.arguments[0]);
    CEPLogInit();
    self.say(std::to_string(CEPLogEvent("Start", nullptr, nullptr, nullptr)));
    return 0;
}

class EventLogTest : public testing::Test {
protected:
    fs::path library() const { return home_.state() / "korvane-utilia/Library"; }
    fs::path current() const { return library() / "Logs/krv.utilia.ceplog.xml"; }
    std::string document() const {
        return test::contentOf(current()) + std::string(kEventLogFooter);
    }

    test::TemporaryHome home_;
};

TEST_F(EventLogTest, RecordsWhoLogs) {
    const TestBundle bundle(
        home_, {.info = {{"CFBundleShortVersionString", "1.2"}, {"CFBundleVersion", "34"}}});
    auto tool = bundle.role("logEvents");
    EXPECT_EQ(tool.waitForLine(), "-1051");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(tool.waitForLine(), "0");
    EXPECT_EQ(tool.waitForLine(), current().string());
    EXPECT_EQ(tool.waitForExit(), 0);
    const auto log = XmlDocument::parse(document());
    ASSERT_TRUE(log) << document();
    ASSERT_EQ(log->events().size(), 2u);
    const xmlNode* const event = log->events()[1];
    EXPECT_EQ(XmlDocument::name(event), "event");
    const std::vector<std::string> expected = {"timestamp", "tool", "toollocation", "toolversion",
                                               "action"};
    EXPECT_EQ(XmlDocument::attributeNames(event), expected);
    EXPECT_EQ(XmlDocument::attribute(event, "tool"), "com.korvane.utilia.SampleTool");
    EXPECT_EQ(XmlDocument::attribute(event, "toollocation"), bundle.path());
    EXPECT_EQ(XmlDocument::attribute(event, "toolversion"), "1.2-34");
    EXPECT_EQ(XmlDocument::attribute(event, "action"), "CepEnabled");
    EXPECT_EQ(XmlDocument::attribute(XmlDocument::child(event, "options"), "o"), "1");
    EXPECT_EQ(XmlDocument::attribute(XmlDocument::child(event, "details"), "FromInstaller"),
              "true");
    EXPECT_EQ(XmlDocument::text(XmlDocument::child(log->root(), "ClientVersion")), "1.2-34");
    EXPECT_EQ(XmlDocument::text(XmlDocument::child(log->root(), "ProductName")), "Korvane Utilia");
    EXPECT_EQ(XmlDocument::text(XmlDocument::child(log->root(), "Type")), "9");
}

TEST_F(EventLogTest, TellsTheSettingsOfTheRunningApplication) {
    const TestBundle bundle(home_);
    bundle.install("setOwnSettings");
    auto tool = bundle.role("setOwnSettings", {bundle.path()});
    EXPECT_EQ(tool.waitForLine(), "0");
    const std::string text = document();
    EXPECT_NE(text.find("<Appearance>auto</Appearance>"), std::string::npos) << text;
    EXPECT_NE(text.find("\t<StartupAtLogin enabled=\"1\">yes</StartupAtLogin>\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\t<AutomaticUpdates enabled=\"0\">no</AutomaticUpdates>\n"),
              std::string::npos)
        << text;
}

TEST_F(EventLogTest, NeverTellsTheComputersIdentity) {
    const std::string identity = "4d7e2f0a9b1c4e5f8a6b3c2d1e0f9a8b";
    const test::PrivateMounts mounts;
    fs::remove(mounts.etc() / "machine-id");
    test::writeTo(mounts.etc() / "machine-id", identity + "\n");
    EXPECT_TRUE(mounts.run([] {
        EXPECT_EQ(CEPLogInit(), 0);
        EXPECT_EQ(CEPLogEvent("Start", nullptr, nullptr, nullptr), 0);
    }));
    const auto log = XmlDocument::parse(document());
    ASSERT_TRUE(log);
    const std::string uuid = XmlDocument::text(XmlDocument::child(log->root(), "HardwareUUID"));
    EXPECT_EQ(uuid.size(), 36u);
    std::string text;
    for (const char c : document()) {
        if (c != '-') text += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    EXPECT_EQ(text.find(identity), std::string::npos);
}

TEST_F(EventLogTest, LogsWithoutABundle) {
    ASSERT_EQ(CEPLogInit(), 0);
    EXPECT_EQ(CEPLogEvent("Start", nullptr, nullptr, nullptr), 0);
    EXPECT_NE(document().find("\" toollocation=\"\" toolversion=\"\" action=\"Start\"/>\n"),
              std::string::npos);
}

TEST_F(EventLogTest, FindsAUsableFolder) {
    ASSERT_EQ(CEPLogInit(), 0);
    struct stat found {};
    for (const fs::path& folder : {library(), library() / "Logs"}) {
        ASSERT_EQ(stat(folder.c_str(), &found), 0);
        EXPECT_EQ(found.st_mode & 0777, 0700u) << folder;
    }
    EXPECT_EQ(CEPLogPath(), current().string());
}

TEST_F(EventLogTest, IsUsableForAnUnprivilegedUser) {
    const TestBundle bundle(home_);
    const test::UnprivilegedUser user(home_);
    auto tool = bundle.role("logEvents", {}, {.user = user.id()});
    EXPECT_EQ(tool.waitForLine(), "-1051");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(tool.waitForLine(), "0");
    EXPECT_EQ(tool.waitForExit(), 0);
    EXPECT_TRUE(XmlDocument::parse(document()));
}

TEST_F(EventLogTest, IsRefusedWhereNoFolderCanBe) {
    fs::create_directories(library());
    test::writeTo(library() / "Logs", "a file");
    EXPECT_EQ(CEPLogInit(), -336);
    fs::remove_all(library());
    test::writeTo(library(), "a file");
    EXPECT_EQ(CEPLogInit(), -336);
    fs::remove(library());
    fs::remove_all(home_.state());
    test::writeTo(home_.state(), "a file");
    EXPECT_EQ(CEPLogInit(), -336);
}

TEST_F(EventLogTest, HandsItsLogOver) {
    ASSERT_EQ(CEPLogInit(), 0);
    int isMore = 7;
    EXPECT_EQ(CEPLogGrab(&isMore), -1);
    EXPECT_EQ(isMore, 0);
    EXPECT_EQ(CEPLogGrab(nullptr), -1);
    EXPECT_EQ(CEPLogEvent("Start", nullptr, nullptr, nullptr), 0);
    const std::string expected = document();
    EXPECT_EQ(CEPLogDocuments(), std::vector<std::string>{expected});
    const int descriptor = CEPLogGrab(&isMore);
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(isMore, 0);
    std::string text(expected.size() + 1, '\0');
    const ssize_t size = read(descriptor, text.data(), text.size());
    text.resize(static_cast<std::size_t>(size));
    EXPECT_EQ(text, expected);
    close(descriptor);
    EXPECT_TRUE(CEPLogDocuments().empty());
}

TEST_F(EventLogTest, EndsAtMostWithACodeWhereMemoryRunsOut) {
    ASSERT_EQ(CEPLogInit(), 0);
    const Dictionary details{{"long", std::string(10'000, 'x')}, {"odd name", 1}};
    int code = 0;
    const std::size_t runs = test::forEachFault(
        test::memoryFaults(),
        // After the burst of the last time, so that no log stays open.
        [] { std::this_thread::sleep_for(2 * EventLogFile::kBurst); },
        [&] { code = CEPLogEvent("Start", nullptr, nullptr, &details); },
        [&](const test::FaultRun&) {
            EXPECT_TRUE(code == 0 || code == -1051) << code;
            EXPECT_EQ(CEPLogEvent("Start", nullptr, nullptr, nullptr), 0);
        });
    EXPECT_EQ(runs > 0, !test::memoryFaults().empty());
    EXPECT_TRUE(XmlDocument::parse(document()));
    const std::size_t more = test::forEachFault(
        test::memoryFaults(), [&] { CEPLogEvent("Start", nullptr, nullptr, nullptr); },
        [&] {
            code = CEPLogGrab(nullptr);
            if (code >= 0) close(code);
        },
        [&](const test::FaultRun&) { EXPECT_TRUE(code >= 0 || code == -748) << code; });
    EXPECT_EQ(more > 0, !test::memoryFaults().empty());
    const std::size_t inits = test::forEachFault(
        test::memoryFaults(), [&] { code = CEPLogInit(); },
        [&](const test::FaultRun&) { EXPECT_TRUE(code == 0 || code == -336) << code; });
    EXPECT_EQ(inits > 0, !test::memoryFaults().empty());
}

}  // namespace
}  // namespace utilia
