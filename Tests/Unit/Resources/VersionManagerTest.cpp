#include "Common/UtiliaCommon/Resources/VersionManager.h"

#include <random>

#include <gtest/gtest.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestVectors.h"

namespace utilia {
namespace {

using platform::Bundle;
using test::TestBundle;

std::optional<IndexPath> parsed(std::string_view text) {
    return VersionManager::versionWithString(text);
}

IndexPath versionOf(const Dictionary& info) {
    const test::TemporaryHome home;
    const TestBundle files(home, {.info = info});
    const auto bundle = Bundle::bundleWithPath(files.path());
    return VersionManager::versionFromBundle(bundle.get());
}

Dictionary info(Value shortVersion, Value build) {
    return {{"CFBundleShortVersionString", std::move(shortVersion)},
            {"CFBundleVersion", std::move(build)}};
}

TEST(VersionManager, ReadsFourNumbersWhateverStandsBetweenThem) {
    for (const char* text :
         {"5.1.2-3456", "5.1.2 (3456)", "build 5 1 2 3456", "v5.1.2 build 3456b", "5,1,2,3456",
          "-5.-1.-2.-3456", "5\n1\n2\n3456", "0005.01.002-003456", "5\u00B21\u00BD2 3456"}) {
        EXPECT_EQ(parsed(text), (IndexPath{5, 1, 2, 3456})) << text;
    }
}

TEST(VersionManager, RefusesTextsWithMoreOrFewerNumbers) {
    for (const char* text : {"", "5", "5.1.2", "1.2.3.4.5", "5.1.2.3.4", "no digits",
                             "5.1.2-3456 7", "\u00B2\u00B2\u00B2\u00B2", "1 2 3 \u2460"}) {
        EXPECT_EQ(parsed(text), std::nullopt) << text;
    }
    EXPECT_EQ(VersionManager::versionWithString(std::nullopt), std::nullopt);
}

TEST(VersionManager, MatchesThePublishedDigitRuns) {
    for (const auto& vector : test::testVectors("digit-runs")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const auto version = parsed(vector.at("input").at("text").get<std::string>());
        const auto& integers = vector.at("expected").at("integers");
        ASSERT_EQ(version.has_value(), integers.size() == 4);
        for (std::size_t i = 0; version && i < 4; ++i) {
            EXPECT_EQ(std::to_string(version->indexAtPosition(i)),
                      integers.at(i).get<std::string>());
        }
    }
}

TEST(VersionManager, CountsDigitsOfOtherScriptsAsNumbersWithoutAValue) {
    EXPECT_EQ(parsed("\uFF11.\uFF12.\u0663.\u0664"), (IndexPath{0, 0, 0, 0}));
    EXPECT_EQ(parsed("5.1.2.\uFF13"), (IndexPath{5, 1, 2, 0}));
    EXPECT_EQ(parsed("5\uFF11.1.2.\uFF13"
                     "4"),
              (IndexPath{5, 1, 2, 0}));
}

TEST(VersionManager, SaturatesNumbersThatAreTooLarge) {
    EXPECT_EQ(parsed("9223372036854775807.9223372036854775808.99999999999999999999.1"),
              (IndexPath{kNotFound, kNotFound, kNotFound, 1}));
    EXPECT_EQ(parsed(std::string(10'000'000, '9') + ".1.2.3"), (IndexPath{kNotFound, 1, 2, 3}));
    std::string manyNumbers;
    for (int i = 0; i < 1'000'000; ++i) manyNumbers += "1 ";
    EXPECT_EQ(parsed(manyNumbers), std::nullopt);
}

TEST(VersionManager, ReadsOnAfterNulAndWhatIsNoText) {
    EXPECT_EQ(parsed(std::string_view("5\0001\0002\0003456", 10)), (IndexPath{5, 1, 2, 3456}));
    EXPECT_EQ(parsed("5\xFF"
                     "1\xC3"
                     "2\xE2\x82"
                     "3456"),
              (IndexPath{5, 1, 2, 3456}));
}

TEST(VersionManager, PrintsAsThePublishedVectorsSay) {
    std::size_t printed = 0;
    for (const auto& vector : test::testVectors("version-order")) {
        const auto& input = vector.at("input");
        if (input.at("op") != "print") continue;
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const IndexPath version(input.at("components").get<std::vector<std::uint64_t>>());
        const bool isReport = input.at("format") == "%ld.%ld.%ld-%ld";
        EXPECT_EQ(isReport ? VersionManager::versionToStringReportForm(version)
                           : VersionManager::versionToString(version),
                  vector.at("expected").get<std::string>());
        ++printed;
    }
    EXPECT_GT(printed, 0u);
}

TEST(VersionManager, PrintsNoVersionAsZerosAndMissingComponentsAsNotFound) {
    EXPECT_EQ(VersionManager::versionToString(std::nullopt), "0.0.0 (0)");
    EXPECT_EQ(VersionManager::versionToStringReportForm(std::nullopt), "0.0.0-0");
    EXPECT_EQ(VersionManager::versionToString(IndexPath{5, 1}),
              "5.1.9223372036854775807 (9223372036854775807)");
    EXPECT_EQ(VersionManager::versionToStringReportForm(IndexPath{5, 1, 2, 3, 4, 5}), "5.1.2-3");
}

TEST(VersionManager, PrintsComponentsAsSignedNumbers) {
    EXPECT_EQ(VersionManager::versionToString(
                  IndexPath{UINT64_MAX, UINT64_MAX - 4, kNotFound + 1, kNotFound}),
              "-1.-5.-9223372036854775808 (9223372036854775807)");
}

TEST(VersionManager, ReadsBackWhatItPrints) {
    std::mt19937_64 random(20261121);
    for (int i = 0; i < 10'000; ++i) {
        IndexPath version;
        // Of every size.
        for (int j = 0; j < 4; ++j) version.addIndex(random() >> (1 + random() % 63));
        ASSERT_EQ(parsed(VersionManager::versionToString(version)), version);
        ASSERT_EQ(parsed(VersionManager::versionToStringReportForm(version)), version);
    }
}

TEST(VersionManager, ComparesTextsByTheirNumbers) {
    using enum ComparisonResult;
    EXPECT_EQ(VersionManager::compareVersion("5.9", "5.10"), Ascending);
    EXPECT_EQ(VersionManager::compareVersion("5.10.0", "5.9.0"), Descending);
    EXPECT_EQ(VersionManager::compareVersion("5.1", "5.1.0"), Ascending);
    EXPECT_EQ(VersionManager::compareVersion("5.01", "5.1"), Same);
    EXPECT_EQ(VersionManager::compareVersion("", ""), Same);
    // As texts these are not the same, although they are the same version.
    EXPECT_EQ(VersionManager::compareVersion("5.1.2-3456", "5.1.2 (3456)"), Descending);
    EXPECT_EQ(parsed("5.1.2-3456"), parsed("5.1.2 (3456)"));
}

TEST(VersionManager, ReadsTheVersionOfABundle) {
    EXPECT_EQ(versionOf(info("5.1.2", "3456")), (IndexPath{5, 1, 2, 3456}));
    EXPECT_EQ(versionOf(info("1.2", "7")), (IndexPath{1, 2, 7}));
    EXPECT_EQ(versionOf(info("1.2.3.4.5", "6")), (IndexPath{1, 2, 3, 4, 5, 6}));
}

TEST(VersionManager, TakesWhatABundleDoesNotSayAsZeroOrNothing) {
    EXPECT_EQ(versionOf({{"CFBundleShortVersionString", "5.1.2"}}), (IndexPath{5, 1, 2, 0}));
    EXPECT_EQ(versionOf({{"CFBundleVersion", "3456"}}), (IndexPath{3456}));
    EXPECT_EQ(versionOf({}), (IndexPath{0}));
    EXPECT_EQ(VersionManager::versionFromBundle(nullptr), (IndexPath{0}));
}

TEST(VersionManager, TakesPartsThatAreNoNumbersAsTheirLeadingDigits) {
    EXPECT_EQ(versionOf(info("5..2b1.x.", "beta")), (IndexPath{5, 0, 2, 0, 0, 0}));
    EXPECT_EQ(versionOf(info("", "12b")), (IndexPath{0, 12}));
    EXPECT_EQ(versionOf(info(" 5 . 1 ", "\t7")), (IndexPath{5, 1, 7}));
    EXPECT_EQ(versionOf(info("\uFF15.1", "99999999999999999999")), (IndexPath{0, 1, kNotFound}));
    EXPECT_EQ(versionOf(info("-5", "- 2")), (IndexPath{UINT64_MAX - 4, UINT64_MAX - 1}));
}

TEST(VersionManager, TakesNumbersInTheInfoPlistAsFarAsTheyMakeSense) {
    EXPECT_EQ(versionOf(info("5.1", 3456)), (IndexPath{5, 1, 3456}));
    EXPECT_EQ(versionOf(info("5.1", Dictionary())), (IndexPath{5, 1, 0}));
    EXPECT_EQ(versionOf(info(5, "7")), (IndexPath{7}));
}

TEST(VersionManager, TakesAHostileInfoPlistAsFarAsItMakesSense) {
    const std::string digits(1'000'000, '9');
    EXPECT_EQ(versionOf(info(digits, digits)), (IndexPath{kNotFound, kNotFound}));
    EXPECT_EQ(versionOf(info(std::string(1'000'000, '0') + "5", "-" + digits)),
              (IndexPath{5, std::uint64_t{1} << 63}));
    const IndexPath many = versionOf(info(std::string(1'000'000, '.'), ""));
    EXPECT_EQ(many.length(), 1'000'002u);
    EXPECT_EQ(VersionManager::versionToString(many), "0.0.0 (0)");
    // Larger than any property list that is read.
    EXPECT_EQ(versionOf(info(std::string(5'000'000, '1'), "1")), IndexPath{0});
}

TEST(VersionManager, PrintsTheVersionOfABundle) {
    const test::TemporaryHome home;
    const TestBundle files(home, {.info = info("5.1.2", "3456")});
    const auto bundle = Bundle::bundleWithPath(files.path());
    EXPECT_EQ(VersionManager::stringVersionFromBundle(bundle.get()), "5.1.2 (3456)");
    EXPECT_EQ(VersionManager::stringVersionFromBundle(nullptr),
              "0.9223372036854775807.9223372036854775807 (9223372036854775807)");
}

UTILIA_CHILD_ROLE(sayMainBundleVersion) {
    self.say(VersionManager::versionToString(VersionManager::mainBundleVersion()));
    self.say(VersionManager::mainBundleVersionReportForm());
    return 0;
}

TEST(VersionManager, KnowsTheVersionOfTheMainBundle) {
    const test::TemporaryHome home;
    const TestBundle bundle(home, {.info = info("5.1.2", "3456")});
    auto tool = bundle.role("sayMainBundleVersion");
    EXPECT_EQ(tool.waitForLine(), "5.1.2 (3456)");
    EXPECT_EQ(tool.waitForLine(), "5.1.2-3456");
}

}  // namespace
}  // namespace utilia
