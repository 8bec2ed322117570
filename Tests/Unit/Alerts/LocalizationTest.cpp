#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <sys/stat.h>

#include "Common/Platform/Bundle.h"
#include "Common/Platform/Linux/FileInput.h"
#include "Common/Platform/Linux/MessageCatalog.h"
#include "Common/UtiliaCommon/LocalizedTexts.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using platform::Bundle;
using platform::MessageCatalog;
using test::TemporaryFolder;
using test::TestLog;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Variables = std::map<std::string, std::string>;

constexpr const char* kVariables[] = {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};

// These languages for as long as it lives, and no others.
class UserLanguages final {
public:
    explicit UserLanguages(const Variables& wanted) {
        for (const char* name : kVariables) {
            if (const char* const value = getenv(name)) before_[name] = value;
            unsetenv(name);
        }
        for (const auto& [name, value] : wanted) setenv(name.c_str(), value.c_str(), 1);
    }
    ~UserLanguages() {
        for (const char* name : kVariables) unsetenv(name);
        for (const auto& [name, value] : before_) setenv(name.c_str(), value.c_str(), 1);
    }
    UserLanguages(const UserLanguages&) = delete;
    UserLanguages& operator=(const UserLanguages&) = delete;

private:
    std::map<std::string, std::string> before_;
};

// The framework's bundle, with a choice of its own.
std::unique_ptr<Bundle> framework() {
    return Bundle::bundleWithPath(Bundle::frameworkBundle()->bundlePath());
}

std::vector<std::string> languages() {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(framework()->bundlePath() + "/Resources")) {
        if (entry.path().extension() == ".lproj") found.push_back(entry.path().stem());
    }
    std::sort(found.begin(), found.end());
    return found;
}

MessageCatalog catalogOf(const std::string& language) {
    const std::string path =
        framework()->bundlePath() + "/Resources/" + language + ".lproj/Localizable.mo";
    auto bytes = platform::FileInput::contents(path, platform::kMessageCatalogMaximumSize);
    auto catalog = bytes ? MessageCatalog::parse(*std::move(bytes)) : bytes.error();
    if (!catalog) throw std::runtime_error(catalog.error().description);
    return *std::move(catalog);
}

TEST(Catalogues, AreThereForEveryLanguageThatIsPromised) {
    EXPECT_THAT(languages(), ElementsAre("ar", "de", "en", "es", "fr", "ja", "pl"));
}

TEST(Catalogues, HoldEveryTextOfTheFrameworkAndNoOther) {
    for (const std::string& language : languages()) {
        const MessageCatalog catalog = catalogOf(language);
        EXPECT_EQ(catalog.size(), kLocalizedTexts.size()) << language;
        for (const std::string_view key : kLocalizedTexts) {
            EXPECT_TRUE(catalog.find(key).has_value()) << language << ": " << key;
        }
    }
}

TEST(Catalogues, NameTheirOwnLanguage) {
    for (const std::string& language : languages()) {
        EXPECT_EQ(catalogOf(language).find("en"), language);
    }
}

TEST(Catalogues, KeepThePlaceOfTheNameAndTheNameOfTheProduct) {
    for (const std::string& language : languages()) {
        const MessageCatalog catalog = catalogOf(language);
        const auto text = catalog.find(kAgentRequiredText);
        ASSERT_TRUE(text) << language;
        const std::string filled = textWithName(*text, kAgentRequiredText, "Timer");
        EXPECT_THAT(filled, HasSubstr("Timer")) << language;
        EXPECT_THAT(filled, HasSubstr("Korvane Utilia")) << language;
        EXPECT_THAT(filled, testing::Not(HasSubstr("%"))) << language;
    }
}

TEST(Catalogues, AreEnglishInEnglish) {
    const MessageCatalog english = catalogOf("en");
    for (const std::string_view key : kLocalizedTexts) EXPECT_EQ(english.find(key), key);
}

TEST(Catalogues, AreTranslatedElsewhere) {
    for (const std::string& language : languages()) {
        if (language == "en") continue;
        const MessageCatalog catalog = catalogOf(language);
        for (const std::string_view key :
             {kAgentRequiredText, kLaunchAgentText, kQuitText, kRestrictedText}) {
            EXPECT_NE(catalog.find(key), key) << language;
        }
    }
}

// More than anybody speaks; looking for all of them would take its time.
std::string manyLanguages() {
    std::string names;
    for (int i = 0; i < 10'000; ++i) names += "x" + std::to_string(i) + ":";
    return names;
}

TEST(Localization, FollowsTheVariablesInTheirOrder) {
    const std::pair<Variables, const char*> cases[] = {
        {{}, "en"},
        {{{"LANG", "de_AT.UTF-8"}}, "de"},
        {{{"LANG", "de"}}, "de"},
        {{{"LANG", "de_DE@euro"}}, "de"},
        {{{"LANG", "de_DE.UTF-8"}, {"LC_MESSAGES", "fr_FR.UTF-8"}}, "fr"},
        {{{"LC_MESSAGES", "fr_FR.UTF-8"}, {"LC_ALL", "pl_PL"}}, "pl"},
        {{{"LC_ALL", "pl_PL"}, {"LANGUAGE", "ja"}}, "ja"},
        {{{"LANGUAGE", "tlh:ar_EG:de"}}, "ar"},
        {{{"LANGUAGE", "tlh:xx"}}, "en"},
        {{{"LANGUAGE", "en_GB:de"}}, "en"},
        {{{"LANGUAGE", "tlh:en:de"}}, "en"},
        {{{"LANG", "C"}}, "en"},
        {{{"LANG", "POSIX"}}, "en"},
        {{{"LANG", "C.UTF-8"}}, "en"},
        {{{"LANG", ""}}, "en"},
        {{{"LANGUAGE", ":::"}}, "en"},
        {{{"LANGUAGE", "../de:/etc:.:..:xx.lproj/../de"}}, "en"},
        {{{"LANGUAGE", std::string(100'000, ':') + "de"}}, "en"},
        {{{"LANGUAGE", manyLanguages() + "de"}}, "en"},
        {{{"LANGUAGE", std::string(100'000, 'x')}}, "en"},
    };
    for (const auto& [variables, expected] : cases) {
        const UserLanguages user(variables);
        const TestLog log;
        const auto bundle = framework();
        EXPECT_EQ(bundle->localizedStringForKey("en", ""), expected);
        EXPECT_EQ(bundle->preferredLocalization(), expected);
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST(Localization, DoesNotDependOnTheLocaleOfTheHost) {
    const UserLanguages user(Variables{{"LANG", "de_DE.UTF-8"}});
    ASSERT_NE(setlocale(LC_ALL, "C"), nullptr);
    const auto bundle = framework();
    EXPECT_EQ(bundle->localizedStringForKey("Quit"), "Beenden");
    EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C") << "and leaves it as it is";
}

// A host that never calls setlocale(), on a system that has generated no locale: nothing but C is
// there, and the languages come from the variables alone.
UTILIA_CHILD_ROLE(tellQuit) {
    self.say(setlocale(LC_ALL, nullptr));
    self.say(newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr) ? "has German" : "has no German");
    self.say(framework()->localizedStringForKey("Quit"));
    self.say(setlocale(LC_ALL, nullptr));
    return 0;
}

TEST(Localization, NeedsNoLocaleOfTheSystem) {
    test::PrivateMounts mounts;
    constexpr std::size_t kEmpty = 4096;
    mounts.limitSpace("/usr/lib/locale", kEmpty);
    auto host = test::ChildProcess::role(
        "tellQuit", {},
        {.environment = {{"LANG", "de_DE.UTF-8"}, {"LANGUAGE", "\x01"}, {"LC_ALL", "\x01"}},
         .mounts = &mounts});
    EXPECT_EQ(host.waitForLine(), "C");
    EXPECT_EQ(host.waitForLine(), "has no German");
    EXPECT_EQ(host.waitForLine(), "Beenden");
    EXPECT_EQ(host.waitForLine(), "C");
}

TEST(Localization, StaysWithTheFirstChoice) {
    const UserLanguages user(Variables{{"LANGUAGE", "de"}});
    const auto bundle = framework();
    EXPECT_EQ(bundle->localizedStringForKey("Quit"), "Beenden");
    setenv("LANGUAGE", "fr", 1);
    EXPECT_EQ(bundle->localizedStringForKey("Quit"), "Beenden");
    EXPECT_EQ(framework()->localizedStringForKey("Quit"), "Quitter");
}

TEST(Localization, AnswersValueOrKeyForATextThatNobodyHasTranslated) {
    const UserLanguages user(Variables{{"LANGUAGE", "de"}});
    const auto bundle = framework();
    EXPECT_EQ(bundle->localizedStringForKey("Never heard of"), "Never heard of");
    EXPECT_EQ(bundle->localizedStringForKey("Never heard of", ""), "Never heard of");
    EXPECT_EQ(bundle->localizedStringForKey("Never heard of", "a value"), "a value");
    EXPECT_EQ(bundle->localizedStringForKey("Quit", "a value"), "Beenden");
    EXPECT_EQ(bundle->localizedStringForKey("", "a value"), "a value");
    EXPECT_EQ(bundle->localizedStringForKey(""), "");
}

TEST(Localization, OfABundleWithoutCataloguesIsEnglish) {
    const UserLanguages user(Variables{{"LANGUAGE", "de"}});
    const TemporaryFolder folder;
    const TestLog log;
    const auto bundle = Bundle::bundleWithPath(folder.path().string());
    EXPECT_EQ(bundle->localizedStringForKey("Quit"), "Quit");
    EXPECT_EQ(bundle->preferredLocalization(), "en");
    EXPECT_THAT(log.lines(), IsEmpty());
}

// An application with one German catalogue of these bytes.
class BundleWithCatalogue final {
public:
    explicit BundleWithCatalogue(const std::string& bytes) {
        const fs::path language = folder_.path() / "Contents/Resources/de.lproj";
        fs::create_directories(language);
        path_ = language / "Localizable.mo";
        std::ofstream(path_, std::ios::binary) << bytes;
    }
    std::unique_ptr<Bundle> open() const { return Bundle::bundleWithPath(folder_.path().string()); }
    const fs::path& path() const { return path_; }

private:
    TemporaryFolder folder_;
    fs::path path_;
};

std::string germanCatalogue() {
    std::ifstream file(framework()->bundlePath() + "/Resources/de.lproj/Localizable.mo",
                       std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Localization, OfAnApplicationLiesInItsContents) {
    const UserLanguages user(Variables{{"LANGUAGE", "de"}});
    EXPECT_EQ(BundleWithCatalogue(germanCatalogue()).open()->localizedStringForKey("Quit"),
              "Beenden");
}

TEST(Localization, IsEnglishWithOneLogLineWhenItsCatalogueIsDamaged) {
    const UserLanguages user(Variables{{"LANGUAGE", "de:fr"}});
    const std::string whole = germanCatalogue();
    for (const std::string& damaged :
         {std::string(), whole.substr(0, whole.size() / 2), std::string(2'000'000, 'x'),
          std::string("msgid \"Quit\"\n")}) {
        const BundleWithCatalogue files(damaged);
        const TestLog log;
        const auto bundle = files.open();
        EXPECT_EQ(bundle->localizedStringForKey("Quit"), "Quit");
        EXPECT_EQ(bundle->localizedStringForKey("OK", "value"), "value");
        EXPECT_EQ(bundle->preferredLocalization(), "en");
        EXPECT_THAT(
            log.lines(),
            ElementsAre(HasSubstr("de.lproj/Localizable.mo cannot be used, texts stay English: ")));
    }
}

TEST(Localization, DoesNotWaitForACatalogueThatIsAPipe) {
    const UserLanguages user(Variables{{"LANGUAGE", "de"}});
    const BundleWithCatalogue files("");
    fs::remove(files.path());
    ASSERT_EQ(mkfifo(files.path().c_str(), 0600), 0);
    const TestLog log;
    EXPECT_EQ(files.open()->localizedStringForKey("Quit"), "Quit");
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Localization, IsChosenOnceForAllThreads) {
    const UserLanguages user(Variables{{"LANGUAGE", "de"}});
    const BundleWithCatalogue files("damaged");
    const TestLog log;
    const auto bundle = files.open();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back(
            [&bundle] { EXPECT_EQ(bundle->localizedStringForKey("Quit"), "Quit"); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(log.lines().size(), 1u);
}

}  // namespace
}  // namespace utilia
