// What the framework makes of memory that runs out, at each place where it can: no exception leaves
// it, the answer is an empty one, what was stored stays, nothing is left behind, and the next call
// works.

#include <functional>
#include <memory>
#include <optional>

#include <gtest/gtest.h>
#include <malloc.h>

#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataLazyWriter.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataAgentProvider.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataServerProvider.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

// Texts that the operations hand over fit into a string object, so that only the framework asks for
// memory.

namespace utilia {
namespace {

using platform::Image;
using platform::PortMessage;
using platform::UserDefaults;
using test::FaultRun;

constexpr const char* kBundleId = "com.korvane.utilia.SampleTool";
constexpr const char* kFileName = "Sample Tool.app";
constexpr const char* kToolPath = "/Applications/Sample Tool.app";

// Allocated bytes at the end of each run must not go up for ever; what is made once, on the way to
// the last place, is small.
constexpr std::size_t kMadeOnce = 16u << 10;

// Runs the operation with a fault at each of its allocations in turn, and looks afterwards. Under
// sanitizers there are no such faults, and nothing is looked at but a clean run.
void forEachMissingMemory(test::TestLog& log, const std::function<void()>& prepare,
                          const std::function<void()>& operation,
                          const std::function<void(const FaultRun&)>& check) {
    // Connections to ports of this process are there before descriptors are counted.
    for (int i = 0; i < 2; ++i) {
        prepare();
        operation();
    }
    prepare();
    std::size_t first = 0;
    std::size_t last = 0;
    std::size_t told = 0;
    const std::size_t runs = test::forEachFault(
        test::memoryFaults(), prepare,
        [&] {
            try {
                operation();
            } catch (const std::exception& thrown) {
                ADD_FAILURE() << "left the library: " << thrown.what();
            }
        },
        [&](const FaultRun& run) {
            told += !log.lines().empty();
            check(run);
            log.clear();
            last = mallinfo2().uordblks;
            if (first == 0) first = last;
        });
    EXPECT_EQ(runs > 0, !test::memoryFaults().empty());
    // What is tried again, or does not matter, costs no line.
    EXPECT_GE(2 * told, runs);
    EXPECT_LE(last, first + kMadeOnce) << "memory is left behind";
}

class FrameworkMemory : public testing::Test {
protected:
    static Dictionary record(const char* bundleId, std::int64_t count) {
        return Dictionary{{"bundleid", bundleId}, {"name", "Name"}, {"count", count}};
    }
    static Array schedule() {
        Array all;
        accessAppGroupPlist(
            [&](UserDefaults& suite) { all = suite.arrayForKey(kSchedulerKey).value_or(Array()); });
        return all;
    }
    static void leaveBehind() {
        accessAppGroupPlist([](UserDefaults& suite) {
            suite.setObject(Dictionary{{std::string(kBundleId) + "_" + kFileName,
                                        Dictionary{{"Permanent", true}, {"MenuText", "stored"}}}},
                            kToolPersistentDataKey);
        });
    }

    const test::TemporaryHome home_{test::folderInMemory()};
    test::TestLog log_;
};

TEST_F(FrameworkMemory, AnAccessChangesAllOrNothing) {
    accessAppGroupPlist([](UserDefaults& suite) { suite.setObject("kept", "other"); });
    std::int64_t attempted = 0;
    std::int64_t before = 0;
    int calls = 0;
    const AccessBlock block = [&](UserDefaults& suite) {
        ++calls;
        suite.setObject(++attempted, "number");
    };
    forEachMissingMemory(
        log_,
        [&] {
            calls = 0;
            before = attempted;
        },
        [&] { accessAppGroupPlist(block); },
        [&](const FaultRun&) {
            EXPECT_LE(calls, 1);
            accessAppGroupPlist([&](UserDefaults& suite) {
                EXPECT_EQ(suite.stringForKey("other"), "kept");
                const std::int64_t stored = suite.integerForKey("number");
                EXPECT_TRUE(stored == attempted || stored == before) << stored;
                suite.setObject(++attempted, "number");
                EXPECT_TRUE(suite.synchronize()) << "the next call works";
            });
        });
}

TEST_F(FrameworkMemory, AnUpdateLosesNoRecord) {
    updateSchedulerPlist("other", "Name", [](Dictionary& found) { found.set("count", 7); });
    std::int64_t attempted = 0;
    std::int64_t before = 0;
    int calls = 0;
    const UpdateBlock block = [&](Dictionary& found) {
        ++calls;
        ++attempted;
        // The block's own memory is its own affair.
        try {
            found.set("count", attempted);
        } catch (const std::bad_alloc&) {
            --attempted;
        }
    };
    forEachMissingMemory(
        log_,
        [&] {
            calls = 0;
            before = attempted;
            updateSchedulerPlist(kBundleId, "Name", block);
            calls = 0;
            before = attempted;
        },
        [&] { updateSchedulerPlist(kBundleId, "Name", block); },
        [&](const FaultRun&) {
            EXPECT_LE(calls, 1);
            const Array stored = schedule();
            EXPECT_TRUE(stored == (Array{record("other", 7), record(kBundleId, attempted)}) ||
                        stored == (Array{record("other", 7), record(kBundleId, before)}))
                << stored.size() << " records";
            updateSchedulerPlist(kBundleId, "Name", block);
            EXPECT_EQ(schedule(), (Array{record("other", 7), record(kBundleId, attempted)}))
                << "the next call works";
        });
}

TEST_F(FrameworkMemory, WhatABlockThrowsIsStillItsCallersAffair) {
    EXPECT_THROW(accessAppGroupPlist([](UserDefaults&) { throw std::bad_alloc(); }),
                 std::bad_alloc);
    EXPECT_THROW(updateSchedulerPlist("a", "Name", [](Dictionary&) { throw std::bad_alloc(); }),
                 std::bad_alloc);
    EXPECT_EQ(log_.lines(), std::vector<std::string>());
    EXPECT_EQ(schedule(), Array());
}

TEST_F(FrameworkMemory, AReadFindsTheRecordOrIsNotMade) {
    updateSchedulerPlist(kBundleId, "Name", [](Dictionary& found) { found.set("count", 7); });
    int found = 0;
    int others = 0;
    const ReadBlock block = [&](const Dictionary& read) {
        (read.find("count") && read.find("count")->longLongValue() == 7 ? found : others)++;
    };
    const auto read = [&] { readSchedulerPlist(kBundleId, "Name", block); };
    forEachMissingMemory(
        log_, [&] { found = 0; }, read,
        [&](const FaultRun&) {
            EXPECT_LE(found, 1);
            EXPECT_EQ(others, 0);
            found = 0;
            read();
            EXPECT_EQ(found, 1);
        });
}

TEST_F(FrameworkMemory, SchedulingChangesTheRecordOrNothing) {
    const Date date = Date::now();
    int found = 0;
    const EnumerateToolsBlock count = [&](const auto&, const auto&, const auto&) { ++found; };
    const auto scheduled = [&] {
        found = 0;
        AgentScheduler::enumerateTools(count);
        return found;
    };
    forEachMissingMemory(
        log_, [&] { AgentScheduler::cancelScheduleByName("Name", kBundleId); },
        [&] { AgentScheduler::scheduleToolAtDate(date, kBundleId, "Name"); },
        [&](const FaultRun&) {
            EXPECT_LE(scheduled(), 1);
            AgentScheduler::scheduleToolAtDate(date, kBundleId, "Name");
            EXPECT_EQ(scheduled(), 1) << "the next call works";
            EXPECT_EQ(schedule().size(), 1u);
        });
}

TEST_F(FrameworkMemory, SchedulesAreListedAsAWholeOrNotAtAll) {
    for (const char* id : {"a", "b"}) AgentScheduler::scheduleToolAtDate(Date::now(), id, "Name");
    int found = 0;
    const EnumerateToolsBlock count = [&](const auto&, const auto&, const auto&) { ++found; };
    forEachMissingMemory(
        log_, [&] { found = 0; }, [&] { AgentScheduler::enumerateTools(count); },
        [&](const FaultRun&) {
            EXPECT_TRUE(found == 0 || found == 2) << found;
            found = 0;
            AgentScheduler::enumerateTools(count);
            EXPECT_EQ(found, 2) << "the next call works";
        });
}

TEST_F(FrameworkMemory, APauseOfSuggestionsIsStoredOrNot) {
    CommonAuxiliary& auxiliary = CommonAuxiliary::sharedInstance();
    auxiliary.pauseToolsSuggestions(true, "other");
    const auto paused = [] {
        std::size_t count = 0;
        accessAppGroupPlist([&](UserDefaults& suite) {
            count = suite.arrayForKey(kToolsSuggestionsPausedByKey).value_or(Array()).size();
        });
        return count;
    };
    forEachMissingMemory(
        log_, [&] { auxiliary.pauseToolsSuggestions(false, "tool"); },
        [&] { auxiliary.pauseToolsSuggestions(true, "tool"); },
        [&](const FaultRun&) {
            EXPECT_GE(paused(), 1u);
            auxiliary.pauseToolsSuggestions(true, "tool");
            EXPECT_EQ(paused(), 2u) << "the next call works";
        });
}

TEST_F(FrameworkMemory, AnUpdateDescriptionIsStoredOrNot) {
    // As the functions take them: making an argument is its caller's affair.
    const std::optional<IndexPath> version(IndexPath{5, 1, 2, 3456});
    const std::optional<Dictionary> before(Dictionary{{"en", "before"}});
    const std::optional<Dictionary> after(Dictionary{{"en", "after"}});
    const auto text = [&] {
        return CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(version);
    };
    forEachMissingMemory(
        log_, [&] { CommonAuxiliary::saveUpdateDescription(before, version); },
        [&] { CommonAuxiliary::saveUpdateDescription(after, version); },
        [&](const FaultRun&) {
            const auto stored = text();
            EXPECT_TRUE(stored == "before" || stored == "after") << stored.value_or("none");
            CommonAuxiliary::saveUpdateDescription(after, version);
            EXPECT_EQ(text(), "after") << "the next call works";
        });
}

TEST_F(FrameworkMemory, ReadersAnswerWhatIsStoredOrNothing) {
    leaveBehind();
    bool isPermanent = false;
    std::optional<std::string> text;
    const auto read = [&] {
        const ToolPersistentDataReader reader(kFileName, kBundleId);
        isPermanent = reader.isPermanent();
        text = reader.menuText();
        static_cast<void>(reader.toolIcon());
        static_cast<void>(reader.menuIcon());
    };
    forEachMissingMemory(
        log_, [] {}, read,
        [&](const FaultRun&) {
            EXPECT_TRUE(!text || text == "stored");
            read();
            EXPECT_TRUE(isPermanent);
            EXPECT_EQ(text, "stored");
        });
}

// Whatever has ended is noticed in one of these turns.
void serveLoop() {
    for (int turn = 0; turn < 20; ++turn)
        platform::RunLoop::currentRunLoop().runFor(std::chrono::nanoseconds(0));
}

// The expectations of a role count for nobody until it is asked.
int saysWhetherAllHeld(const test::ChildRole& self) {
    const bool failed = testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
    self.say(failed ? "failed" : "held every time");
    return failed ? 1 : 0;
}

UTILIA_CHILD_ROLE(flushWithoutMemory) {
    test::TestLog log;
    const Dictionary other{{"Permanent", true}};
    accessAppGroupPlist([&](UserDefaults& suite) {
        suite.setObject(Dictionary{{"other", other}}, kToolPersistentDataKey);
    });
    const auto icon = Image::initWithBitmap({1, 1, Data{1, 2, 3, 0xff}});
    const auto flush = [&] {
        ToolPersistentDataLazyWriter writer;
        writer.setIsPermanent(true);
        writer.setMenuText("text");
        writer.setToolIcon(icon);
        writer.setMenuIcon(icon);
        writer.appWillExit();
    };
    const auto expectOther = [&] {
        accessAppGroupPlist([&](UserDefaults& suite) {
            const auto all = suite.dictionaryForKey(kToolPersistentDataKey);
            ASSERT_TRUE(all);
            EXPECT_EQ(all->dictionary("other"), other) << "another tool's record is lost";
        });
    };
    forEachMissingMemory(
        log, [] {}, flush,
        [&](const FaultRun&) {
            expectOther();
            flush();
            expectOther();
            const ToolPersistentDataReader reader(kFileName, kBundleId);
            EXPECT_TRUE(reader.isPermanent());
            EXPECT_EQ(reader.menuText(), "text");
            EXPECT_TRUE(reader.toolIcon() && reader.menuIcon());
        });
    return saysWhetherAllHeld(self);
}

UTILIA_CHILD_ROLE(talkToTheAgentWithoutMemory) {
    test::TestLog log;
    test::RecordingPort agent(kAgentPortName);
    const auto icon = Image::initWithBitmap({1, 1, Data{1, 2, 3, 0xff}});
    const auto flag = encodeFlag(true);
    const PortMessage wish(102, {flag});
    const PortMessage malformed(102, {flag, flag});
    const PortMessage request(100, {});
    int fired = 0;
    const std::function<void()> block = [&fired] { ++fired; };
    const auto talk = [&] {
        ToolDataClientProvider client;
        client.setDateScheduleBlock(block);
        client.handlePortMessage(wish);
        client.handlePortMessage(malformed);
        client.setToolIcon(icon);
        client.setMenuIcon(icon);
        client.setMenuText("text");
        client.setToolStatus(1);
        client.handlePortMessage(request);
        client.updateResources();
        client.sendToolIcon();
        static_cast<void>(client.dateScheduleBlock());
        static_cast<void>(client.requestAccessToDirectory("/", ""));
        static_cast<void>(
            client.getToolSpecialDirectory(ToolSpecialDirectory::ToolDesktopDirectory));
        static_cast<void>(ToolDataClientProvider::portNameHashFromBundle(nullptr));
    };
    const auto drain = [&] {
        serveLoop();
        agent.clear();
    };
    forEachMissingMemory(log, drain, talk, [&](const FaultRun&) {
        drain();
        ToolDataClientProvider client;
        EXPECT_TRUE(client.servicePort() && client.servicePort()->isValid());
        client.setMenuText("again");
        client.sendMenuText();
        EXPECT_TRUE(client.isAgentConnected());
        EXPECT_TRUE(test::eventually([&] {
            return !agent.messages().empty() &&
                   agent.messages().back() ==
                       (test::RecordedMessage{
                           108,
                           {std::string(client.toolId().begin(), client.toolId().end()), "again"}});
        })) << "the next one works";
    });
    return saysWhetherAllHeld(self);
}

void expectRoleToHold(const test::TestBundle& bundle, const std::string& role) {
    auto tool = bundle.role(role);
    EXPECT_EQ(tool.waitForLine(std::chrono::seconds(240)), "held every time");
    EXPECT_EQ(tool.waitForExit(), 0);
}

TEST_F(FrameworkMemory, AFlushSpoilsNobodysRecord) {
    expectRoleToHold(test::TestBundle(home_), "flushWithoutMemory");
}

TEST_F(FrameworkMemory, AToolTalksToItsAgentAgain) {
    expectRoleToHold(test::TestBundle(home_), "talkToTheAgentWithoutMemory");
}

TEST_F(FrameworkMemory, AnAgentKeepsToItsTools) {
    leaveBehind();
    test::RecordingPort toolPort(toolPortName(kToolPath));
    ToolDataServerProvider& server = ToolDataServerProvider::sharedInstance();
    const auto status = encodeStatus(1);
    const auto path = encodeText(kToolPath);
    const Data tiff = *Image::initWithBitmap({1, 1, Data{1, 2, 3, 0xff}})->TIFFRepresentation();
    const PortMessage messages[] = {
        PortMessage(100, {path, status}), PortMessage(101, {path, tiff}),
        PortMessage(102, {path, tiff}),   PortMessage(108, {path, encodeText("text")}),
        PortMessage(101, {path, path}),   PortMessage(100, {}),
    };
    std::shared_ptr<ToolDataAgentProvider> tool;
    int told = 0;
    const ToolDataAgentProvider::Observer observer = [&told](auto) { ++told; };
    const auto use = [&] {
        tool->setupWithToolURL(kToolPath, kBundleId, std::nullopt);
        const Handle handle = tool->observe(observer);
        tool->setMenuIconNeeded(true);
        tool->requestStatus();
        for (const PortMessage& message : messages) server.handlePortMessage(message);
        tool->setPermanentIcons();
        static_cast<void>(server.tools());
        server.removeTool(tool);
    };
    const auto renew = [&] {
        tool = nullptr;
        serveLoop();
        toolPort.clear();
        tool = std::make_shared<ToolDataAgentProvider>();
        told = 0;
    };
    forEachMissingMemory(log_, renew, use, [&](const FaultRun&) {
        EXPECT_TRUE(server.tools().empty());
        const int toldUnderTheFault = told;
        EXPECT_TRUE(!tool->menuText() || tool->menuText() == "text" || tool->menuText() == "stored")
            << testing::PrintToString(tool->menuText());
        tool->setMenuText("x");
        EXPECT_EQ(told, toldUnderTheFault) << "an observer is left behind";
        renew();
        use();
        EXPECT_EQ(tool->status(), 1u);
        EXPECT_EQ(tool->menuText(), "stored");
        EXPECT_TRUE(tool->menuIcon());
        EXPECT_GT(told, 5);
        EXPECT_TRUE(test::eventually([&] { return toolPort.messages().size() >= 3; }));
    });
}

}  // namespace
}  // namespace utilia
