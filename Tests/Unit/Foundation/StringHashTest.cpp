#include "Common/Foundation/StringHash.h"

#include <gtest/gtest.h>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Foundation/Unicode.h"
#include "Tests/Support/TestVectors.h"

using namespace utilia;
using utilia::test::testVectors;

namespace {

std::u16string unitsOf(const nlohmann::json& words) {
    std::u16string units;
    for (const auto& word : words)
        units.push_back(static_cast<char16_t>(std::stoul(word.get<std::string>(), nullptr, 16)));
    return units;
}

// Units that repeat only after a long while, so that swapped windows would show.
std::u16string sampleText(std::size_t count) {
    std::u16string text;
    for (std::size_t i = 0; i < count; ++i)
        text.push_back(static_cast<char16_t>(0x21 + i * 7 % 0x5000));
    return text;
}

}  // namespace

TEST(StringHash, MatchesThePublishedVectors) {
    for (const auto& vector : testVectors("string-hash")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const std::u16string units = unitsOf(vector.at("input").at("utf16"));
        const std::uint64_t hash = stringHash(units);

        EXPECT_EQ(units.size(), vector.at("input").at("length").get<std::size_t>());
        EXPECT_EQ(std::to_string(hash), vector.at("expected").at("u64").get<std::string>());
        EXPECT_EQ(hexadecimal(hash), vector.at("expected").at("hex").get<std::string>());
    }
}

TEST(StringHash, IsTheSameForUtf8Text) {
    std::size_t compared = 0;
    for (const auto& vector : testVectors("string-hash")) {
        if (!vector.at("input").contains("text") || vector.at("input").at("text").is_null())
            continue;
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const auto text = vector.at("input").at("text").get<std::string>();
        EXPECT_EQ(hexadecimal(stringHash(text)),
                  vector.at("expected").at("hex").get<std::string>());
        ++compared;
    }
    EXPECT_GT(compared, 50u);
}

TEST(StringHash, MatchesThePathVectors) {
    for (const auto& vector : testVectors("path-hash")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        std::string path = vector.at("input").at("bundle_path");
        if (const auto& name = vector.at("input").at("canonical_name"); !name.is_null()) {
            const auto file = stringByAppendingPathExtension(name.get<std::string>(), "app");
            ASSERT_TRUE(file);
            path = stringByAppendingPathComponent(stringByDeletingLastPathComponent(path), *file);
        }
        EXPECT_EQ(path, vector.at("expected").at("path").get<std::string>());
        EXPECT_EQ(hexadecimal(stringHash(path)),
                  vector.at("expected").at("hash_hex").get<std::string>());
        EXPECT_EQ(std::to_string(stringHash(path)),
                  vector.at("expected").at("hash_u64").get<std::string>());
    }
}

TEST(StringHash, ReadsEveryUnitOfTextsUpTo96AndThreeWindowsOfLongerOnes) {
    for (std::size_t count = 1; count <= 300; ++count) {
        const std::u16string text = sampleText(count);
        const std::uint64_t hash = stringHash(text);
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t middle = count / 2 - 16;
            const bool read =
                count <= 96 || i < 32 || (i >= middle && i < middle + 32) || i >= count - 32;
            std::u16string changed = text;
            ++changed[i];
            ASSERT_EQ(stringHash(changed) != hash, read) << "unit " << i << " of " << count;
        }
    }
}

TEST(StringHash, DependsOnTheLengthEvenWhereNoUnitIsRead) {
    const std::u16string text(200, u'a');
    const std::u16string longer(264, u'a');  // same windows, same shift

    EXPECT_NE(stringHash(text), stringHash(longer));
}

TEST(StringHash, CountsIllFormedBytesAsReplacementCharacters) {
    EXPECT_EQ(stringHash(std::string_view("a\xFFz")), stringHash(std::u16string_view(u"a\uFFFDz")));
    EXPECT_EQ(stringHash(std::string_view("\xE2\x82")), stringHash(std::u16string_view(u"\uFFFD")));
    EXPECT_EQ(stringHash(std::string_view("\xED\xA0\x80")),
              stringHash(std::u16string_view(u"\uFFFD\uFFFD\uFFFD")));
}

TEST(StringHash, KeepsSpellingsApart) {
    EXPECT_NE(stringHash(std::u16string_view(u"\u00E9")),
              stringHash(std::u16string_view(u"e\u0301")));
    EXPECT_NE(stringHash(std::string_view("/A.app")), stringHash(std::string_view("/a.app")));
    EXPECT_NE(stringHash(std::string_view("/A.app")), stringHash(std::string_view("/A.app/")));
}

TEST(StringHash, WritesHexadecimalWithoutPrefixOrLeadingZeros) {
    EXPECT_EQ(hexadecimal(0), "0");
    EXPECT_EQ(hexadecimal(0xABCDEF), "abcdef");
    EXPECT_EQ(hexadecimal(UINT64_MAX), "ffffffffffffffff");
}
