#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "Applications/Agent/AgentTextKeys.h"
#include "Common/Platform/Linux/FileInput.h"
#include "Common/Platform/Linux/MessageCatalog.h"

// The agent's catalogues, as they lie in its bundle.

namespace utilia::agent {
namespace {

using platform::MessageCatalog;

constexpr const char* kLanguages[] = {"ar", "de", "en", "es", "fr", "ja", "pl"};

MessageCatalog catalogOf(const std::string& language) {
    const std::string path = (std::filesystem::path(UTILIA_AGENT_PROGRAM) / "../../Resources" /
                              (language + ".lproj") / "Localizable.mo")
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

}  // namespace
}  // namespace utilia::agent
