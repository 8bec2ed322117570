#include <cctype>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "Applications/Agent/AgentTextKeys.h"
#include "Common/Platform/Linux/FileInput.h"
#include "Common/Platform/Linux/MessageCatalog.h"
#include "Tests/Support/Places.h"

// The agent's catalogues, as they lie in its bundle.

namespace utilia::agent {
namespace {

using platform::MessageCatalog;

constexpr const char* kLanguages[] = {"ar", "de", "en", "es", "fr", "ja", "pl"};

MessageCatalog catalogOf(const std::string& language) {
    const std::string path = (std::filesystem::path(test::places::kAgentProgram) /
                              "../../Resources" / (language + ".lproj") / "Localizable.mo")
                                 .lexically_normal();
    auto bytes = platform::FileInput::contents(path, platform::kMessageCatalogMaximumSize);
    auto catalog = bytes ? MessageCatalog::parse(*std::move(bytes)) : bytes.error();
    if (!catalog) throw std::runtime_error(catalog.error().description);
    return *std::move(catalog);
}

TEST(AgentTexts, AreInEveryLanguageAndKeepThePlaceOfTheName) {
    for (const char* language : kLanguages) {
        const MessageCatalog catalog = catalogOf(language);
        EXPECT_EQ(catalog.size(), kAgentTexts.size()) << language;
        for (const std::string_view key : kAgentTexts) {
            const auto text = catalog.find(key);
            ASSERT_TRUE(text && !text->empty()) << language << ": " << key;
            for (const std::string_view part : {"%@", "Korvane Utilia"}) {
                const bool isNeeded = key.find(part) != key.npos;
                EXPECT_TRUE(!isNeeded || text->find(part) != text->npos) << language << ": " << key;
            }
            EXPECT_TRUE(language != std::string_view("en") || *text == key) << key;
        }
    }
}

// What is on one page at the same time: the controls of the window, and those of each page.
const std::vector<std::string_view> kPages[] = {
    {kToolsText, kSettingsText, kStartText, kQuitToolText, kStartToolAtLoginText, kTryText,
     kNotNowText},
    {kToolsText, kSettingsText, kClickText, kQuitToolText, kStartToolAtLoginText, kTryText,
     kNotNowText},
    {kToolsText, kSettingsText, kOpenAtLoginText, kSuggestToolsText, kShareUsageText, kPreviewText,
     kSentText},
    {kToolsText, kSettingsText, kOpenAtLoginText, kSuggestToolsText, kRecordUsageText, kPreviewText,
     kSentText},
    {kCloseText},
};

// The letter after the "&", in UTF-8; empty for none.
std::string keyOf(const std::string& text) {
    const std::size_t place = text.find('&');
    if (place == text.npos || text.find('&', place + 1) != text.npos) return {};
    std::size_t end = place + 2;
    while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) ++end;
    std::string letter = text.substr(place + 1, end - place - 1);
    if (letter.size() == 1) letter[0] = static_cast<char>(std::toupper(letter[0]));
    return letter == " " ? std::string() : letter;
}

TEST(AgentTexts, HaveALetterForAltThatStandsForOneControlOfAPage) {
    for (const char* language : kLanguages) {
        const MessageCatalog catalog = catalogOf(language);
        std::set<std::string_view> checked;
        for (const auto& page : kPages) {
            std::map<std::string, std::string_view> letters;
            for (const std::string_view key : page) {
                const std::string letter = keyOf(std::string(catalog.find(key).value_or("")));
                EXPECT_FALSE(letter.empty()) << language << ": " << key;
                const auto [other, isNew] = letters.emplace(letter, key);
                EXPECT_TRUE(isNew)
                    << language << ": " << letter << " is " << key << " and " << other->second;
                checked.insert(key);
            }
        }
        for (const std::string_view key : kAgentTexts) {
            const bool hasLetter = catalog.find(key).value_or("").find('&') != key.npos;
            EXPECT_EQ(hasLetter, checked.contains(key)) << language << ": " << key;
        }
    }
}

// An underline between joined letters tears the word apart.
TEST(AgentTexts, HaveTheLetterForAltBehindWordsWhoseLettersAreJoined) {
    for (const char* language : {"ar", "ja"}) {
        const MessageCatalog catalog = catalogOf(language);
        for (const std::string_view key : kAgentTexts) {
            const auto text = catalog.find(key).value_or("");
            const std::size_t place = text.find('&');
            EXPECT_TRUE(place == text.npos || (place > 0 && text[place - 1] == '('))
                << language << ": " << text;
        }
    }
}

}  // namespace
}  // namespace utilia::agent
