#include <nlohmann/json.hpp>

#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Tests/Support/Places.h"
#include "Tests/Unit/Utiliactl/ControlProgram.h"

namespace utilia {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kVersion = "5.1.2-3456";

class DescriptionsCommandTest : public test::ControlProgramTest {
protected:
    std::string file(const std::string& content) const {
        const auto path = home_.path() / "texts.json";
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }
    static std::optional<std::string> stored() {
        return CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(IndexPath{5, 1, 2, 3456});
    }
    const std::map<std::string, std::string> english_{{"LANGUAGE", "en"}, {"LC_ALL", "C"}};
    const std::map<std::string, std::string> german_{{"LANGUAGE", "de"}, {"LC_ALL", "de_DE.UTF-8"}};
};

TEST_F(DescriptionsCommandTest, SavesTextsAndShowsTheUsersLanguage) {
    EXPECT_EQ(answer({"descriptions", "save", kVersion, "--language", "en=Faster", "--language",
                      "de=Schneller = besser"}),
              "");
    EXPECT_EQ(answer({"descriptions", "show", kVersion}, english_), "Faster\n");
    EXPECT_EQ(answer({"descriptions", "show", kVersion}, german_), "Schneller = besser\n");
    EXPECT_EQ(json::parse(answer({"descriptions", "show", kVersion, "--json"})),
              (json{{"en", "Faster"}, {"de", "Schneller = besser"}}));
}

TEST_F(DescriptionsCommandTest, OneLanguageIsShownExactly) {
    answer({"descriptions", "save", kVersion, "--language", "en=Faster"});
    EXPECT_EQ(answer({"descriptions", "show", kVersion, "--language", "en"}), "Faster\n");
    EXPECT_EQ(refusal(1, {"descriptions", "show", kVersion, "--language", "de"}),
              "utiliactl: version 5.1.2-3456 has no description in \"de\"\n");
    EXPECT_EQ(answer({"descriptions", "show", kVersion}, german_), "Faster\n");
}

TEST_F(DescriptionsCommandTest, AVersionMayBeGivenInAnyForm) {
    answer({"descriptions", "save", "5.1.2 (3456)", "--language", "en=Faster"});
    EXPECT_EQ(answer({"descriptions", "show", "5.1.2.3456"}, english_), "Faster\n");
    EXPECT_EQ(stored(), "Faster");
}

TEST_F(DescriptionsCommandTest, SavesTheTextsOfAFileAsTheyAre) {
    answer({"descriptions", "save", kVersion, "--json",
            file("{\"en\": \"Two\\nlines\", \"ja\": \"\u6708\"}")});
    EXPECT_EQ(json::parse(answer({"descriptions", "show", kVersion, "--json"})),
              (json{{"en", "Two\nlines"}, {"ja", "\u6708"}}));
}

TEST_F(DescriptionsCommandTest, SavesTheTextsOfStandardInput) {
    auto shell = test::ChildProcess::program(
        "/bin/sh", {"-c", R"(printf '{"en": "Piped"}' | "$0" descriptions save "$1" --json -)",
                    test::places::kControlProgram, kVersion});
    EXPECT_EQ(shell.waitForExit(), 0);
    EXPECT_EQ(stored(), "Piped");
}

TEST_F(DescriptionsCommandTest, SavingReplacesAllLanguagesAndRemovingAll) {
    answer({"descriptions", "save", kVersion, "--language", "en=Old", "--language", "de=Alt"});
    answer({"descriptions", "save", kVersion, "--language", "en=New"});
    EXPECT_EQ(json::parse(answer({"descriptions", "show", kVersion, "--json"})),
              (json{{"en", "New"}}));
    EXPECT_EQ(answer({"descriptions", "remove", kVersion}), "");
    EXPECT_EQ(refusal(1, {"descriptions", "show", kVersion}),
              "utiliactl: version 5.1.2-3456 has no description\n");
    EXPECT_EQ(answer({"descriptions", "remove", kVersion}), "") << "there need be none";
}

TEST_F(DescriptionsCommandTest, WithoutTheUsersLanguageAndEnglishThereIsNone) {
    answer({"descriptions", "save", kVersion, "--language", "pl=Szybciej"});
    const auto given = run({"descriptions", "show", kVersion}, german_);
    EXPECT_EQ(given.status, 1);
    EXPECT_EQ(given.err, "utiliactl: version 5.1.2-3456 has no description in your language, nor "
                         "in English\n");
}

TEST_F(DescriptionsCommandTest, FilesThatHoldNoTextsAreRefused) {
    const std::string name = file("");
    const std::pair<const char*, const char*> table[] = {
        {"", "is not JSON"},
        {"{\"en\": ", "is not JSON"},
        {"[\"en\"]", "is no object of languages and texts"},
        {"\"en\"", "is no object of languages and texts"},
        {"{\"en\": 1}", "\"en\" is no text"},
        {"{\"en\": null}", "\"en\" is no text"},
    };
    for (const auto& [content, why] : table) {
        EXPECT_EQ(refusal(1, {"descriptions", "save", kVersion, "--json", file(content)}),
                  "utiliactl: " + name + ": " + why + "\n")
            << content;
    }
    EXPECT_EQ(refusal(1, {"descriptions", "save", kVersion, "--json", "/nowhere/texts"}),
              "utiliactl: read /nowhere/texts: No such file or directory\n");
    EXPECT_THAT(refusal(1, {"descriptions", "save", kVersion, "--json", home_.path().string()}),
                StartsWith("utiliactl: "));
    EXPECT_EQ(stored(), std::nullopt);
}

TEST_F(DescriptionsCommandTest, TextThatNoStoreCanHoldIsRefused) {
    EXPECT_THAT(
        refusal(1, {"descriptions", "save", kVersion, "--json", file("{\"en\": \"a\\u0000b\"}")}),
        HasSubstr("utiliactl: the descriptions cannot be stored\n"));
    EXPECT_EQ(stored(), std::nullopt);
}

TEST_F(DescriptionsCommandTest, WrongUsageIsAnsweredWithStatus2) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"descriptions"},
          {"descriptions", "save"},
          {"descriptions", "save", kVersion},
          {"descriptions", "save", "5.1.2", "--language", "en=x"},
          {"descriptions", "save", kVersion, "--language", "en"},
          {"descriptions", "save", kVersion, "--language", "=x"},
          {"descriptions", "save", kVersion, "--language", "en=x", "--json", "file"},
          {"descriptions", "show"},
          {"descriptions", "show", "latest"},
          {"descriptions", "show", kVersion, "--language", "en", "--json"},
          {"descriptions", "show", kVersion, "--language", ""},
          {"descriptions", "remove"},
          {"descriptions", "remove", "nonsense"}}) {
        EXPECT_THAT(refusal(2, arguments), StartsWith("utiliactl: "));
    }
}

}  // namespace
}  // namespace utilia
