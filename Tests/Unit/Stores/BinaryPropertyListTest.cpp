#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Platform/Linux/BinaryPropertyListReader.h"
#include "Common/Platform/PropertyListSerialization.h"

// Binary files put together by hand: what is allowed though nobody here writes it, and what is not.

namespace utilia::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A file of these objects, with one-byte offsets and references; the first object is the top.
Data file(const std::vector<Bytes>& objects) {
    Data bytes{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    Bytes offsets;
    for (const Bytes& object : objects) {
        offsets.push_back(static_cast<std::uint8_t>(bytes.size()));
        bytes.insert(bytes.end(), object.begin(), object.end());
    }
    const auto table = static_cast<std::uint8_t>(bytes.size());
    bytes.insert(bytes.end(), offsets.begin(), offsets.end());
    Data trailer(32);
    trailer[6] = 1;
    trailer[7] = 1;
    trailer[15] = static_cast<std::uint8_t>(objects.size());
    trailer[31] = table;
    bytes.insert(bytes.end(), trailer.begin(), trailer.end());
    return bytes;
}

std::string refusalOf(const Data& bytes) {
    const auto value = propertyListFromData(bytes);
    if (value) return "accepted";
    EXPECT_EQ(value.error().code, 3840);
    return value.error().description;
}

TEST(BinaryPropertyList, AcceptsWhatOtherWritersMake) {
    struct Case {
        const char* what;
        std::vector<Bytes> objects;
        Value value;
    };
    const Case cases[] = {
        {"a float", {{0x22, 0x3F, 0x80, 0, 0}}, 1.0},
        {"an integer wider than it need be", {{0x13, 0, 0, 0, 0, 0, 0, 0, 1}}, 1},
        {"a small number in 16 bytes", {{0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7}}, 7},
        {"a negative number in 16 bytes",
         {{0x14, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255}},
         -1},
        {"a length that would fit the marker", {{0x5F, 0x10, 1, 'a'}}, "a"},
        {"ASCII as UTF-16", {{0x61, 0, 'a'}}, "a"},
        {"objects that nobody refers to", {{0x09}, {0x08}, {0x50}}, true},
        {"one object from two places", {{0xA2, 1, 1}, {0x51, 'x'}}, Array{"x", "x"}},
        {"a shared container", {{0xA2, 1, 1}, {0xA1, 2}, {0x09}}, Array{Array{true}, Array{true}}},
        {"a key twice",
         {{0xD2, 1, 1, 2, 3}, {0x51, 'k'}, {0x10, 1}, {0x10, 2}},
         Dictionary{{"k", 2}}},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        const auto value = propertyListFromData(file(one.objects));
        ASSERT_TRUE(value) << value.error().description;
        EXPECT_TRUE(*value == one.value);
    }
}

TEST(BinaryPropertyList, OneKeyIsFoundWithoutTheOthers) {
    const auto look = [](const std::vector<Bytes>& objects, std::string_view key) {
        const auto found = readBinaryPropertyListKey(file(objects), key);
        return found ? *found : std::optional<Value>("refused: " + found.error().description);
    };
    const std::vector<Bytes> sample = {{0xD3, 1, 2, 3, 4, 5, 6},
                                       {0x51, 'a'},
                                       {0x52, 'a', 'b'},
                                       {0x61, 0x20, 0xAC},
                                       {0x09},
                                       {0xA1, 4},
                                       {0xF0}};
    EXPECT_TRUE(look(sample, "a") == Value(true)) << "whatever else the list holds";
    EXPECT_TRUE(look(sample, "ab") == Value(Array{true}));
    EXPECT_FALSE(look(sample, "b"));
    EXPECT_FALSE(look(sample, ""));
    EXPECT_FALSE(look(sample, "A"));
    EXPECT_TRUE(look(sample, "\u20ac") ==
                Value("refused: binary property list: an object of an unknown type"));
    EXPECT_TRUE(look({{0xD2, 1, 1, 2, 3}, {0x51, 'k'}, {0x10, 1}, {0x10, 2}}, "k") == Value(2))
        << "the last value of a key that stands twice";
    EXPECT_FALSE(look({{0xD0}}, "k"));
}

// A fetch from memory that fails from the given call on, and counts.
struct Fetching {
    const Data& bytes;
    int failsAt = -1;
    int calls = 0;
    std::size_t longest = 0;

    BinaryPropertyListFetch function() {
        return [this](std::size_t offset, std::span<std::uint8_t> into) {
            longest = std::max(longest, into.size());
            if (calls++ == failsAt || offset > bytes.size() || into.size() > bytes.size() - offset)
                return false;
            std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), into.size(),
                        into.begin());
            return true;
        };
    }
};

TEST(BinaryPropertyList, OneKeyIsFoundThroughWindows) {
    Dictionary list;
    for (int i = 0; i < 300; ++i) {
        list.set("key " + std::to_string(i), i);
        list.set("text " + std::to_string(i), std::string(200, 'x') + std::to_string(i));
    }
    list.set("long", std::string(kBinaryPropertyListWindow + 1, 'x'));
    list.set("euro", "\u20ac");
    list.set("parts", Array{1, Dictionary{{"a", 2.5}}, true});
    const Data bytes = *dataFromPropertyList(list, PropertyListFormat::Binary);
    for (const auto& [key, held] : list) {
        Fetching fetching{bytes};
        const auto found = readBinaryPropertyListKey(bytes.size(), fetching.function(), key);
        if (fetching.longest <= kBinaryPropertyListWindow && key == "long") {
            EXPECT_FALSE(found) << "more than a window";
            continue;
        }
        ASSERT_TRUE(found) << key << ": " << found.error().description;
        ASSERT_TRUE(*found) << key;
        EXPECT_TRUE(**found == held) << key;
    }
    Fetching fetching{bytes};
    const auto absent = readBinaryPropertyListKey(bytes.size(), fetching.function(), "none");
    ASSERT_TRUE(absent);
    EXPECT_FALSE(*absent);
}

TEST(BinaryPropertyList, ASmallValueOfAFewKeysIsFoundWithoutFetchingTheWhole) {
    const Data bytes = *dataFromPropertyList(
        Dictionary{{"long", std::string(100'000, 'x')}, {"small", 7}}, PropertyListFormat::Binary);
    Fetching fetching{bytes};
    const auto found = readBinaryPropertyListKey(bytes.size(), fetching.function(), "small");
    ASSERT_TRUE(found && *found && **found == Value(7));
    EXPECT_LE(fetching.longest, kBinaryPropertyListWindow);
    EXPECT_LE(fetching.calls, 10);
    EXPECT_FALSE(readBinaryPropertyListKey(bytes.size(), fetching.function(), "long"))
        << "more than a window";
}

TEST(BinaryPropertyList, ALargeValueIsFetchedAsAWholeAfterAFewWindows) {
    Array records;
    for (int i = 0; i < 1000; ++i)
        records.append(Dictionary{{"number", i}, {"text", "record " + std::to_string(i)}});
    const Value list = Dictionary{{"records", records}};
    const Data bytes = *dataFromPropertyList(list, PropertyListFormat::Binary);
    Fetching fetching{bytes};
    const auto found = readBinaryPropertyListKey(bytes.size(), fetching.function(), "records");
    ASSERT_TRUE(found && *found && **found == Value(records));
    EXPECT_EQ(fetching.longest, bytes.size());
    EXPECT_LE(fetching.calls, 34);
    for (int i = 0; i < fetching.calls; ++i) {
        Fetching failing{bytes, i};
        EXPECT_FALSE(
            readBinaryPropertyListKey(bytes.size(), failing.function(), "records").has_value())
            << i;
    }
}

TEST(BinaryPropertyList, OneKeyIsRefusedWhenAWindowCannotBeHad) {
    Dictionary list;
    for (int i = 0; i < 40; ++i)
        list.set(std::string(100, 'k') + std::to_string(i), std::to_string(i));
    list.set("number", 0x7000'0000'0000);
    const Data bytes = *dataFromPropertyList(list, PropertyListFormat::Binary);
    Fetching whole{bytes};
    ASSERT_TRUE(readBinaryPropertyListKey(bytes.size(), whole.function(), "number"));
    ASSERT_GT(whole.calls, 3);
    for (int i = 0; i < whole.calls; ++i) {
        Fetching failing{bytes, i};
        const auto found = readBinaryPropertyListKey(bytes.size(), failing.function(), "number");
        EXPECT_FALSE(found) << i;
    }
}

TEST(BinaryPropertyList, OneKeyIsRefusedWhereItCannotBeTold) {
    struct Case {
        const char* what;
        std::vector<Bytes> objects;
    };
    const Case cases[] = {
        {"no dictionary", {{0xA1, 1}, {0x51, 'k'}}},
        {"a key that is not text", {{0xD2, 1, 2, 2, 2}, {0x51, 'k'}, {0x09}}},
        {"a key of half a surrogate pair", {{0xD1, 1, 2}, {0x61, 0xD8, 0}, {0x09}}},
        {"a key that is outside", {{0xD1, 9, 1}, {0x09}}},
        {"a value that is outside", {{0xD1, 1, 9}, {0x51, 'k'}}},
        {"a value that holds itself", {{0xD1, 1, 0}, {0x51, 'k'}}},
        {"more keys than the file has room for", {{0xDF, 0x12, 0x7F, 0, 0, 0}}},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        const auto found = readBinaryPropertyListKey(file(one.objects), "k");
        ASSERT_FALSE(found);
        EXPECT_EQ(found.error().code, 3840);
    }
    EXPECT_FALSE(readBinaryPropertyListKey({}, "k"));
    Data whole = file({{0xD1, 1, 2}, {0x51, 'k'}, {0x09}});
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(readBinaryPropertyListKey({whole.data(), size}, "k")) << size;
    // Every flipped byte: whatever is answered, the whole list does not say otherwise.
    for (std::size_t i = 0; i < whole.size(); ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            Data flipped = whole;
            flipped[i] = static_cast<std::uint8_t>(flipped[i] ^ (1 << bit));
            const auto all = propertyListFromData(flipped);
            const auto one = readBinaryPropertyListKey(flipped, "k");
            if (!all || !all->dictionary()) continue;
            ASSERT_TRUE(one) << i << ' ' << bit;
            const Value* const held = all->dictionary()->find("k");
            EXPECT_EQ(one->has_value(), held != nullptr) << i << ' ' << bit;
            if (held && *one) {
                EXPECT_TRUE(**one == *held) << i << ' ' << bit;
            }
        }
    }
}

TEST(BinaryPropertyList, WritesEqualLeavesOnceAndEachBooleanAnew) {
    const auto bytes = dataFromPropertyList(Array{"x", true, true, "x", 1, 1.0, 1, false, true},
                                            PropertyListFormat::Binary);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(*bytes, file({{0xA9, 1, 2, 2, 1, 4, 5, 4, 6, 2},
                            {0x51, 'x'},
                            {0x09},
                            {0x09},
                            {0x10, 1},
                            {0x23, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0},
                            {0x08},
                            {0x09}}));
}

TEST(BinaryPropertyList, RefusesObjectsThatAreNotInOrder) {
    struct Case {
        const char* what;
        std::vector<Bytes> objects;
    };
    const Case cases[] = {
        {"null", {{0x00}}},
        {"a fill byte", {{0x0F}}},
        {"an integer of 32 bytes", {{0x15}}},
        {"an integer beyond 64 bits", {{0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}}},
        {"a real of two bytes", {{0x21, 0, 0}}},
        {"a date of four bytes", {{0x32, 0, 0, 0, 0}}},
        {"a date that is not finite", {{0x33, 0x7F, 0xF0, 0, 0, 0, 0, 0, 0}}},
        {"an archive's reference", {{0x80, 1}}},
        {"a set", {{0xC1, 1}, {0x09}}},
        {"a length by a text", {{0x5F, 0x51, 'a'}}},
        {"NUL in ASCII", {{0x52, 'a', 0}}},
        {"a byte that is not ASCII", {{0x51, 0xC4}}},
        {"NUL in UTF-16", {{0x61, 0, 0}}},
        {"a high surrogate alone", {{0x61, 0xD8, 0x3D}}},
        {"a low surrogate alone", {{0x61, 0xDE, 0x00}}},
        {"surrogates the wrong way round", {{0x62, 0xDE, 0, 0xD8, 0x3D}}},
        {"a reference to nothing", {{0xA1, 9}}},
        {"a key that is no text", {{0xD1, 1, 1}, {0x09}}},
        {"an array of itself", {{0xA1, 0}}},
        {"a cycle over two", {{0xA1, 1}, {0xD1, 2, 0}, {0x51, 'k'}}},
        {"a text that goes on into the table", {{0x53, 'a', 'b'}}},
        {"an integer that goes on into the table", {{0x13, 0}}},
        {"data longer than every file",
         {{0x4F, 0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}},
        {"an array longer than every file",
         {{0xAF, 0x13, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}},
        {"a dictionary without room for its values", {{0xD1, 1}}},
    };
    for (const Case& one : cases) EXPECT_NE(refusalOf(file(one.objects)), "accepted") << one.what;
}

TEST(BinaryPropertyList, RefusesTrailersThatPointOutside) {
    const Data good = file({{0xA1, 1}, {0x09}});
    ASSERT_TRUE(propertyListFromData(good));
    const std::size_t trailer = good.size() - 32;
    struct Case {
        std::size_t field;
        std::uint8_t value;
    };
    for (const Case one :
         {Case{6, 0}, Case{6, 9}, Case{7, 0}, Case{7, 9}, Case{15, 0}, Case{15, 200}, Case{8, 255},
          Case{23, 2}, Case{16, 255}, Case{31, 0}, Case{31, 255}, Case{24, 255}}) {
        Data bad = good;
        bad[trailer + one.field] = one.value;
        EXPECT_NE(refusalOf(bad), "accepted")
            << "trailer byte " << one.field << " is " << int{one.value};
    }
}

TEST(BinaryPropertyList, RefusesATreeThatDoublesWithEachObject) {
    std::vector<Bytes> objects;
    for (std::uint8_t i = 1; i < 60; ++i) objects.push_back({0xA2, i, i});
    objects.push_back({0x09});
    EXPECT_EQ(refusalOf(file(objects)), "binary property list: too much shared content");
}

TEST(BinaryPropertyList, EachCutOfAFileIsRefused) {
    const Data whole = file({{0xD2, 1, 2, 3, 4},
                             {0x51, 'a'},
                             {0x51, 'b'},
                             {0xA1, 1},
                             {0x33, 0x41, 0xC2, 0xF8, 0xF9, 0xDF, 0x80, 0, 0}});
    ASSERT_TRUE(propertyListFromData(whole));
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_NE(
            refusalOf(Data(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length))),
            "accepted")
            << length;
    }
}

TEST(BinaryPropertyList, EachFlippedBitIsReadOrRefused) {
    const Data whole = file({{0xD2, 1, 2, 3, 4},
                             {0x51, 'a'},
                             {0x51, 'b'},
                             {0xA1, 1},
                             {0x33, 0x41, 0xC2, 0xF8, 0xF9, 0xDF, 0x80, 0, 0}});
    for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
        Data flipped = whole;
        flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ 1u << bit % 8);
        const auto value = propertyListFromData(flipped);
        if (!value) continue;
        // What is accepted can be written, and reads back as the same.
        const auto again = dataFromPropertyList(*value, PropertyListFormat::Binary);
        ASSERT_TRUE(again);
        EXPECT_TRUE(*propertyListFromData(*again) == *value);
    }
}

}  // namespace
}  // namespace utilia::platform
