#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"

#include <algorithm>
#include <fstream>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "Common/Foundation/Description.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

using test::PrivateMounts;
using test::TestLog;
using testing::ElementsAre;

using Identifiers = ToolSets::Identifiers;

const std::string kTimer = "com.korvane.utilia.Timer";
const std::string kMoonPhase = "com.korvane.utilia.MoonPhase";
const std::string kTrace = "The next tools are forbidden due to white-list settings: ";

std::string traceWithout(const Identifiers& allowed) {
    Identifiers forbidden = ToolSets::fullSet();
    std::erase_if(forbidden, [&](const std::string& each) {
        return std::find(allowed.begin(), allowed.end(), each) != allowed.end();
    });
    return kTrace + descriptionOfArray(forbidden);
}

struct Answer {
    bool isAllowed = false;
    bool isInSet = false;
    bool isRestricted = false;

    friend bool operator==(const Answer&, const Answer&) = default;
};

Answer ask(const ToolSets& sets, std::string_view bundleId) {
    Answer answer;
    answer.isAllowed =
        sets.isToolAllowedWithBundleId(bundleId, &answer.isInSet, &answer.isRestricted);
    EXPECT_EQ(sets.isToolAllowedWithBundleId(bundleId), answer.isAllowed);
    return answer;
}

class WhiteList : public testing::Test {
protected:
    // What becomes of a settings file: the list, and the lines that are logged meanwhile.
    void expect(const std::string& settings, const std::optional<Identifiers>& whiteList,
                const std::vector<std::string>& lines, bool isExtended = false) {
        mounts_.writeSettings(settings);
        EXPECT_TRUE(mounts_.run([&] {
            setExtendedLoggingProbe([isExtended] { return isExtended; });
            const TestLog log;
            const ToolSets sets;
            EXPECT_EQ(sets.whiteList(), whiteList);
            EXPECT_EQ(log.lines(), lines);
        })) << settings;
    }

    const PrivateMounts mounts_;
};

TEST(ToolCatalogue, HoldsFiftyToolsInTheirFixedOrder) {
    std::ifstream file(std::string(test::places::kTestData) + "/tool-catalogue.txt");
    Identifiers expected;
    for (std::string name; std::getline(file, name);)
        expected.push_back("com.korvane.utilia." + name);
    EXPECT_EQ(expected.size(), 50u);
    EXPECT_EQ(ToolSets::fullSet(), expected);
}

TEST(ToolCatalogue, NamesEachToolOnceInWhateverLetterCase) {
    std::set<std::string> lower;
    for (std::string identifier : ToolSets::fullSet()) {
        std::transform(identifier.begin(), identifier.end(), identifier.begin(), ::tolower);
        lower.insert(identifier);
    }
    EXPECT_EQ(lower.size(), 50u);
    for (const char* name : {"FreeMemory", "HideMenuIcons", "ClipboardHistory", "Timer",
                             "MoonPhase", "KeepAwake", "ScreenCapture"}) {
        EXPECT_TRUE(lower.contains([&] {
            std::string identifier = std::string("com.korvane.utilia.") + name;
            std::transform(identifier.begin(), identifier.end(), identifier.begin(), ::tolower);
            return identifier;
        }()))
            << name;
    }
}

TEST(ToolCatalogue, LeavesFourMediaToolsOutOfTheSubsetAndKeepsItsOrder) {
    Identifiers expected = ToolSets::fullSet();
    for (const char* media :
         {"ConvertVideo", "DownloadVideo", "DownloadAudio", "MakeAnimatedImages"})
        EXPECT_EQ(std::erase(expected, std::string("com.korvane.utilia.") + media), 1u) << media;
    EXPECT_EQ(expected.size(), 46u);
    EXPECT_EQ(ToolSets::businessPredefinedSet(), expected);
}

TEST(ToolLookUp, FindsTheFirstElementInItsOwnSpelling) {
    const Identifiers array{"Other", "Tool", "TOOL"};
    std::string found = "untouched";
    EXPECT_TRUE(ToolSets::isFoundCaseInsensitveString("tOOL", array, &found));
    EXPECT_EQ(found, "Tool");
    EXPECT_TRUE(ToolSets::isFoundCaseInsensitveString("TOOL", array));
    EXPECT_FALSE(ToolSets::isFoundCaseInsensitveString("Too", array, &found));
    EXPECT_FALSE(ToolSets::isFoundCaseInsensitveString("", array, &found));
    EXPECT_EQ(found, "Tool") << "left alone";
    EXPECT_FALSE(ToolSets::isFoundCaseInsensitveString("Tool", {}));
}

TEST_F(WhiteList, IsAbsentWithoutAFile) {
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        EXPECT_EQ(ToolSets::loadWhiteList(), std::nullopt);
        const ToolSets sets;
        EXPECT_EQ(ask(sets, kTimer), (Answer{true, true, false}));
        EXPECT_EQ(sets.currentUnrestrictedToolSet(), ToolSets::fullSet());
        EXPECT_THAT(log.lines(), ElementsAre());
        EXPECT_FALSE(std::filesystem::exists("/etc/com.korvane.utilia"));
    }));
}

TEST_F(WhiteList, IsAbsentWithoutTheKeyAndForADamagedFile) {
    expect("{}", std::nullopt, {});
    expect(R"({"UpdatesDisabled": true, "whitetoolslist": []})", std::nullopt, {});
    expect(R"({"WhiteToolsList": ["Timer")", std::nullopt, {});
    expect(R"([{"WhiteToolsList": []}])", std::nullopt, {});
    expect("", std::nullopt, {});
}

TEST_F(WhiteList, HoldsTheCataloguesSpelling) {
    expect(R"({"WhiteToolsList": ["timer", "MOONphase"]})", Identifiers{kTimer, kMoonPhase},
           {traceWithout({kTimer, kMoonPhase})});
    expect(R"({"WhiteToolsList": ["Timer", "TIMER"]})", Identifiers{kTimer, kTimer},
           {traceWithout({kTimer})});
}

TEST_F(WhiteList, StandsForTheSubsetWhateverElseItHolds) {
    const Identifiers subset = ToolSets::businessPredefinedSet();
    expect(R"({"WhiteToolsList": ["business-toolset-only"]})", subset, {traceWithout(subset)});
    expect(R"({"WhiteToolsList": ["ConvertVideo", 5, "business-toolset-only"]})", subset,
           {traceWithout(subset)}, true);
    // By its exact spelling alone.
    expect(R"({"WhiteToolsList": ["Business-Toolset-Only"]})", Identifiers(), {traceWithout({})});
}

TEST_F(WhiteList, ThatIsEmptyForbidsEveryTool) {
    expect(R"({"WhiteToolsList": []})", Identifiers(), {traceWithout({})});
    expect(R"({"WhiteToolsList": ["Nonesuch"]})", Identifiers(), {traceWithout({})});
    const std::string trace = traceWithout({});
    EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 51) << "fifty tools";
}

TEST_F(WhiteList, ThatNamesEveryToolIsTracedAllTheSame) {
    nlohmann::json names;
    for (const std::string& identifier : ToolSets::fullSet())
        names.push_back(identifier.substr(std::string("com.korvane.utilia.").size()));
    expect(nlohmann::json{{"WhiteToolsList", names}}.dump(), ToolSets::fullSet(),
           {kTrace + "(\n)"});
}

TEST_F(WhiteList, DropsEntriesThatNameNoTool) {
    const std::string settings =
        R"({"WhiteToolsList": ["Timer", " Timer", "Timer ", "", "com.korvane.utilia.Timer", 5, true,
            null, ["Timer"], {"Timer": 1}, "Tïmer", "Ti\u0000mer"]})";
    expect(settings, Identifiers{kTimer}, {traceWithout({kTimer})});
    const auto wrong = [](const std::string& entry) {
        return "Wrong toolname in white-list - '" + entry + "'. Will be ignored";
    };
    expect(settings, Identifiers{kTimer},
           {wrong(" Timer"), wrong("Timer "), wrong(""), wrong("com.korvane.utilia.Timer"),
            wrong("5"), wrong("true"), wrong("null"), wrong("[\"Timer\"]"), wrong("{\"Timer\":1}"),
            wrong("Tïmer"), wrong(std::string("Ti\0mer", 6)), traceWithout({kTimer})},
           true);
}

TEST_F(WhiteList, ThatIsNoArrayForbidsEveryToolWithOneLine) {
    const auto line = [](const std::string& type) {
        return "/etc/com.korvane.utilia/settings.conf: \"WhiteToolsList\" is " + type +
               " and no array, so that every tool is forbidden.";
    };
    const std::vector<std::pair<std::string, std::string>> table{{"\"Timer\"", "a text"},
                                                                 {"true", "a boolean"},
                                                                 {"1", "a number"},
                                                                 {"1.5", "a number"},
                                                                 {"{\"Timer\": true}", "an object"},
                                                                 {"null", "null"}};
    for (const auto& [value, type] : table)
        expect("{\"WhiteToolsList\": " + value + "}", Identifiers(),
               {line(type), traceWithout({})});
}

TEST_F(WhiteList, TakesTheLastOfTwoLists) {
    expect(R"({"WhiteToolsList": ["Timer"], "WhiteToolsList": ["MoonPhase"]})",
           Identifiers{kMoonPhase}, {traceWithout({kMoonPhase})});
}

TEST_F(WhiteList, KeepsNobodyWaitingAtAPipe) {
    EXPECT_TRUE(mounts_.run([] {
        std::filesystem::create_directory("/etc/com.korvane.utilia");
        ASSERT_EQ(mkfifo("/etc/com.korvane.utilia/settings.conf", 0666), 0);
        const TestLog log;
        EXPECT_EQ(ToolSets::loadWhiteList(), std::nullopt);
        EXPECT_THAT(log.lines(), ElementsAre());
    }));
}

TEST_F(WhiteList, DecidesTogetherWithTheCatalogue) {
    mounts_.writeSettings(R"({"WhiteToolsList": ["timer"]})");
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        const ToolSets sets;
        EXPECT_EQ(ask(sets, kTimer), (Answer{true, true, false}));
        EXPECT_EQ(ask(sets, kMoonPhase), (Answer{false, true, true}));
        EXPECT_EQ(ask(sets, "com.korvane.utilia.timer"), (Answer{false, false, true}))
            << "compared exactly";
        EXPECT_EQ(ask(sets, "com.example.other"), (Answer{false, false, true}));
        EXPECT_EQ(ask(sets, "com.korvane.utilia"), (Answer{false, false, true}));
    }));
    mounts_.writeSettings("{}");
    EXPECT_TRUE(mounts_.run([] {
        const ToolSets sets;
        EXPECT_EQ(ask(sets, "com.example.other"), (Answer{false, false, false}));
    }));
}

TEST_F(WhiteList, AnswersForABundle) {
    const test::TemporaryHome home;
    test::TestBundleOptions options;
    const auto bundleOf = [&](const std::string& identifier) {
        options.name = "Tool " + std::to_string(identifier.size());
        options.bundleIdentifier = identifier;
        return platform::Bundle::bundleWithPath(test::TestBundle(home, options).path());
    };
    const auto timer = bundleOf(kTimer);
    const auto moonPhase = bundleOf(kMoonPhase);
    const auto nameless = bundleOf("");
    mounts_.writeSettings(R"({"WhiteToolsList": ["Timer"]})");
    EXPECT_TRUE(mounts_.run([&] {
        const TestLog log;
        const ToolSets sets;
        Answer answer;
        EXPECT_TRUE(sets.isToolAllowed(*timer));
        EXPECT_FALSE(sets.isToolAllowed(*moonPhase));
        answer.isAllowed = sets.isToolAllowed(*moonPhase, &answer.isInSet, &answer.isRestricted);
        EXPECT_EQ(answer, (Answer{false, true, true}));
        answer.isAllowed = sets.isToolAllowed(*nameless, &answer.isInSet, &answer.isRestricted);
        EXPECT_EQ(answer, (Answer{false, false, true}));
    }));
}

TEST_F(WhiteList, IsReadAgainOnlyWhenTheSharedInstanceIsCreatedAgain) {
    mounts_.writeSettings(R"({"WhiteToolsList": ["Timer"]})");
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        EXPECT_EQ(ToolSets::sharedInstance(), nullptr);
        const auto first = ToolSets::createSharedInstance();
        EXPECT_EQ(ToolSets::sharedInstance(), first);
        std::ofstream("/etc/com.korvane.utilia/settings.conf") << "{}";
        EXPECT_EQ(ask(*ToolSets::sharedInstance(), kMoonPhase), (Answer{false, true, true}));
        const auto second = ToolSets::createSharedInstance();
        EXPECT_NE(first, second);
        EXPECT_EQ(ToolSets::sharedInstance(), second);
        EXPECT_EQ(ask(*second, kMoonPhase), (Answer{true, true, false}));
        EXPECT_EQ(log.lines().size(), 1u);
    }));
}

}  // namespace
}  // namespace utilia
