#include "Common/Platform/Linux/MessageCatalog.h"

#include <string>

#include <gtest/gtest.h>

#include "Common/Foundation/Unicode.h"

namespace utilia::platform {
namespace {

using Texts = std::vector<std::pair<std::string, std::string>>;

enum class ByteOrder { Little, Big };

void append(Data& bytes, std::uint32_t value, ByteOrder order) {
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(
            static_cast<std::uint8_t>(value >> (order == ByteOrder::Big ? 24 - 8 * i : 8 * i)));
    }
}

// Written by hand from the format's description, entries in the order given.
Data catalogue(const Texts& texts, ByteOrder order = ByteOrder::Little) {
    const auto count = static_cast<std::uint32_t>(texts.size());
    Data bytes;
    for (const std::uint32_t value :
         {0x950412deu, 0u, count, 28u, 28u + 8 * count, 0u, 28u + 16 * count}) {
        append(bytes, value, order);
    }
    std::string pool;
    Data tables[2];
    for (const bool isText : {false, true}) {
        for (const auto& [key, text] : texts) {
            const std::string& entry = isText ? text : key;
            append(tables[isText], static_cast<std::uint32_t>(entry.size()), order);
            append(tables[isText], static_cast<std::uint32_t>(28 + 16 * count + pool.size()),
                   order);
            pool += entry + '\0';
        }
    }
    for (const Data& table : tables) bytes.insert(bytes.end(), table.begin(), table.end());
    bytes.insert(bytes.end(), pool.begin(), pool.end());
    return bytes;
}

const Texts kTexts{{"", "Content-Type: text/plain; charset=UTF-8\n"},
                   {"Quit", "Beenden"},
                   {"OK", "In Ordnung"},
                   {"Not translated", ""},
                   {std::string("one\0many", 8), std::string("eins\0viele", 10)}};

TEST(MessageCatalog, FindsTextsInBothByteOrdersAndAnyOrder) {
    for (const ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
        const auto catalog = MessageCatalog::parse(catalogue(kTexts, order));
        ASSERT_TRUE(catalog) << catalog.error().description;
        EXPECT_EQ(catalog->find("Quit"), "Beenden");
        EXPECT_EQ(catalog->find("OK"), "In Ordnung");
        EXPECT_EQ(catalog->size(), 2u);
    }
}

TEST(MessageCatalog, HasNothingForWhatIsNotTranslated) {
    const auto catalog = MessageCatalog::parse(catalogue(kTexts));
    ASSERT_TRUE(catalog);
    for (const char* key : {"", "quit", "Qui", "Quit ", "Not translated", "one", "zzz"}) {
        EXPECT_EQ(catalog->find(key), std::nullopt) << key;
    }
}

TEST(MessageCatalog, KeepsItsTextsWhenItIsMoved) {
    auto catalog = MessageCatalog::parse(catalogue({{"a", "b"}}));
    ASSERT_TRUE(catalog);
    const MessageCatalog moved = *std::move(catalog);
    EXPECT_EQ(moved.find("a"), "b");
}

TEST(MessageCatalog, MayBeEmpty) {
    const auto catalog = MessageCatalog::parse(catalogue({}));
    ASSERT_TRUE(catalog);
    EXPECT_EQ(catalog->find("a"), std::nullopt);
}

TEST(MessageCatalog, IsRefusedWhenOneTextIsNotUtf8) {
    EXPECT_FALSE(MessageCatalog::parse(catalogue({{"a", "\xff"}})));
    EXPECT_FALSE(MessageCatalog::parse(catalogue({{"\xff", "a"}})));
}

TEST(MessageCatalog, IsRefusedWhenItIsCutAnywhere) {
    const Data whole = catalogue(kTexts);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(MessageCatalog::parse(
            Data(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))))
            << size;
    }
}

TEST(MessageCatalog, StandsEveryChangedByte) {
    const Data whole = catalogue(kTexts);
    for (std::size_t place = 0; place < whole.size(); ++place) {
        for (const int change : {0x01, 0x80, 0xff}) {
            Data damaged = whole;
            damaged[place] = static_cast<std::uint8_t>(damaged[place] ^ change);
            const auto catalog = MessageCatalog::parse(damaged);
            const auto found = catalog ? catalog->find("Quit") : std::nullopt;
            EXPECT_TRUE(!found || (isValidUtf8(*found) && found->size() < whole.size())) << place;
        }
    }
}

TEST(MessageCatalog, IsRefusedForSizesThatOverflow) {
    for (const std::uint32_t number : {0x7fffffffu, 0x80000000u, 0xffffffffu, 0x20000000u}) {
        for (const std::size_t field : {8u, 12u, 16u, 28u, 32u}) {
            Data bytes = catalogue({{"a", "b"}});
            Data value;
            append(value, number, ByteOrder::Little);
            std::copy(value.begin(), value.end(),
                      bytes.begin() + static_cast<std::ptrdiff_t>(field));
            EXPECT_FALSE(MessageCatalog::parse(bytes)) << field << " " << number;
        }
    }
}

TEST(MessageCatalog, IsRefusedWhenItIsSomethingElse) {
    for (const std::string& text : {std::string(), std::string(100, '\0'), std::string(100, 'x'),
                                    std::string("\xde\x12\x04\x95")}) {
        EXPECT_FALSE(MessageCatalog::parse(Data(text.begin(), text.end())));
    }
    Data newer = catalogue(kTexts);
    newer[6] = 2;
    EXPECT_FALSE(MessageCatalog::parse(newer));
}

}  // namespace
}  // namespace utilia::platform
