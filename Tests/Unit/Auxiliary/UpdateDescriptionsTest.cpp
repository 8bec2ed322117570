#include <cstdlib>

#include <gtest/gtest.h>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia {
namespace {

using platform::UserDefaults;
using test::ScriptedChild;
using test::TestBundle;
using testing::IsEmpty;

const IndexPath kVersion{5, 1, 2, 3456};
constexpr const char* kKey = "5.1.2-3456";

class UpdateDescriptions : public testing::Test {
protected:
    static Dictionary stored() {
        return UserDefaults::initWithDomain("com.korvane.utilia")
            ->dictionaryForKey("UpdateDescriptions")
            .value_or(Dictionary{{"nothing", "is stored"}});
    }
    static void store(Value descriptions) {
        UserDefaults::initWithDomain("com.korvane.utilia")
            ->setObject(std::move(descriptions), "UpdateDescriptions");
    }
    // What an application answers whose user reads that language.
    std::string descriptionIn(const char* language, const TestBundle& application) const {
        ScriptedChild child(application.role(
            "auxiliary", {}, {.environment = {{"LANGUAGE", language}, {"LC_ALL", "en_US.UTF-8"}}}));
        return child.ask("description", {kKey});
    }

    test::TemporaryHome home_;
    test::TestLog log_;
    TestBundle agent_{home_, {.name = "Korvane Utilia", .bundleIdentifier = "com.korvane.utilia"}};
    TestBundle tool_{home_};
};

TEST_F(UpdateDescriptions, AreKeptUnderTheReportFormOfTheVersion) {
    CommonAuxiliary::saveUpdateDescription(Dictionary{{"en", "Faster"}, {"de", "Schneller"}},
                                           kVersion);
    EXPECT_EQ(stored(), (Dictionary{{kKey, Dictionary{{"en", "Faster"}, {"de", "Schneller"}}}}));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(UpdateDescriptions, OneVersionIsReplacedAndTheOthersStay) {
    CommonAuxiliary::saveUpdateDescription(Dictionary{{"en", "Old"}, {"de", "Alt"}}, kVersion);
    CommonAuxiliary::saveUpdateDescription(Dictionary{{"en", "Next"}}, IndexPath{5, 2, 0, 1});
    CommonAuxiliary::saveUpdateDescription(Dictionary{{"en", "New"}}, kVersion);
    EXPECT_EQ(stored(), (Dictionary{{kKey, Dictionary{{"en", "New"}}},
                                    {"5.2.0-1", Dictionary{{"en", "Next"}}}}))
        << "replaced, and not merged";
}

TEST_F(UpdateDescriptions, NothingInTheirPlaceRemovesThem) {
    CommonAuxiliary::saveUpdateDescription(Dictionary{{"en", "Next"}}, IndexPath{5, 2, 0, 1});
    CommonAuxiliary::saveUpdateDescription(Dictionary{{"en", "Faster"}}, kVersion);
    CommonAuxiliary::saveUpdateDescription(std::nullopt, kVersion);
    EXPECT_EQ(stored(), (Dictionary{{"5.2.0-1", Dictionary{{"en", "Next"}}}}));
    CommonAuxiliary::saveUpdateDescription(std::nullopt, IndexPath{5, 2, 0, 1});
    EXPECT_EQ(stored(), Dictionary()) << "the key stays";
}

TEST_F(UpdateDescriptions, RemovingWhatIsNotThereStoresNone) {
    CommonAuxiliary::saveUpdateDescription(std::nullopt, kVersion);
    EXPECT_EQ(stored(), Dictionary());
}

TEST_F(UpdateDescriptions, WithoutAnyThereIsNone) {
    EXPECT_EQ(CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(kVersion), std::nullopt);
    CommonAuxiliary::saveUpdateDescription(Dictionary{{"en", "Next"}}, IndexPath{5, 2, 0, 1});
    EXPECT_EQ(CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(kVersion), std::nullopt);
}

TEST_F(UpdateDescriptions, AnEmptyTextIsAText) {
    CommonAuxiliary::saveUpdateDescription(Dictionary{{"en", ""}}, kVersion);
    EXPECT_EQ(CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(kVersion), "");
}

TEST_F(UpdateDescriptions, NoVersionHasTheKeyOfFourZeros) {
    CommonAuxiliary::saveUpdateDescription(Dictionary{{"en", "Zero"}}, std::nullopt);
    EXPECT_EQ(stored(), (Dictionary{{"0.0.0-0", Dictionary{{"en", "Zero"}}}}));
    EXPECT_EQ(CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(std::nullopt), "Zero");
}

TEST_F(UpdateDescriptions, DamageIsRead) {
    for (const Value& damaged : {Value("text"), Value(Array{1}), Value(Dictionary{{kKey, "text"}}),
                                 Value(Dictionary{{kKey, Dictionary{{"en", 1}}}}),
                                 Value(Dictionary{{kKey, Dictionary()}})}) {
        store(damaged);
        EXPECT_EQ(CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(kVersion), std::nullopt);
        CommonAuxiliary::saveUpdateDescription(Dictionary{{"en", "Faster"}}, kVersion);
        EXPECT_EQ(stored(), (Dictionary{{kKey, Dictionary{{"en", "Faster"}}}}));
    }
}

TEST_F(UpdateDescriptions, TheUsersLanguageIsAnsweredElseEnglishElseNone) {
    const Dictionary both{{"en", "Faster"}, {"de", "Schneller"}};
    const Dictionary english{{"en", "Faster"}};
    const Dictionary polish{{"pl", "Szybciej"}};
    const Dictionary notText{{"en", "Faster"}, {"de", 1}};
    const struct {
        const Dictionary& texts;
        const char* language;
        const char* answer;
    } table[] = {
        {both, "de", "Schneller"},  {both, "en", "Faster"},       {both, "fr", "Faster"},
        {both, "tlh", "Faster"},    {both, "de_AT", "Schneller"}, {english, "de", "Faster"},
        {polish, "pl", "Szybciej"}, {polish, "de", "nil"},        {polish, "en", "nil"},
        {notText, "de", "Faster"},
    };
    for (const auto& [texts, language, answer] : table) {
        CommonAuxiliary::saveUpdateDescription(texts, kVersion);
        EXPECT_EQ(descriptionIn(language, tool_), answer) << language;
    }
}

TEST_F(UpdateDescriptions, TheAgentWritesThemToItsOwnPreferencesAndToolsReadThem) {
    ScriptedChild agent(agent_.role("auxiliary"));
    agent.ask("save", {kKey, "en", "Faster"});
    EXPECT_EQ(stored(), (Dictionary{{kKey, Dictionary{{"en", "Faster"}}}}));
    EXPECT_EQ(descriptionIn("en", tool_), "Faster");
    EXPECT_EQ(agent.ask("description", {kKey}), "Faster");
    EXPECT_FALSE(std::filesystem::exists(home_.config() / "korvane-utilia" /
                                         "com.korvane.utilia.SampleTool.plist"));
}

}  // namespace
}  // namespace utilia
