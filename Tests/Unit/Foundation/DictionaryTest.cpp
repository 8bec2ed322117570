#include <map>
#include <random>

#include <gtest/gtest.h>

#include "Common/Foundation/Value.h"

using namespace utilia;

namespace {

std::vector<std::string> keysOf(const Dictionary& dictionary) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : dictionary) keys.push_back(key);
    return keys;
}

}  // namespace

TEST(Dictionary, KeepsTheOrderInWhichKeysWereFirstSet) {
    Dictionary dictionary{{"z", 1}, {"a", 2}};
    dictionary.set("m", 3);
    dictionary.set("z", 4);

    EXPECT_EQ(keysOf(dictionary), (std::vector<std::string>{"z", "a", "m"}));
    EXPECT_EQ(*dictionary.find("z"), Value(4));
}

TEST(Dictionary, TakesTheLaterOfTwoEntriesOfOneKey) {
    const Dictionary dictionary{{"a", 1}, {"b", 2}, {"a", 3}};

    EXPECT_EQ(dictionary.size(), 2u);
    EXPECT_EQ(*dictionary.find("a"), Value(3));
}

TEST(Dictionary, FindsOnlyWhatIsThere) {
    const Dictionary empty;
    const Dictionary dictionary{{"", 1}, {"A", 2}};

    EXPECT_EQ(empty.find("a"), nullptr);
    EXPECT_EQ(dictionary.find("a"), nullptr);
    EXPECT_TRUE(dictionary.contains("A"));
    EXPECT_EQ(*dictionary.find(""), Value(1));
}

TEST(Dictionary, LooksUpByType) {
    const Dictionary dictionary{{"text", "yes"},
                                {"number", 1},
                                {"inner", Dictionary{{"a", 1}}},
                                {"list", Array{1}},
                                {"off", false}};

    EXPECT_EQ(dictionary.string("text"), "yes");
    EXPECT_EQ(dictionary.string("number"), std::nullopt);
    EXPECT_EQ(dictionary.string("none"), std::nullopt);
    EXPECT_EQ(dictionary.dictionary("inner"), (Dictionary{{"a", 1}}));
    EXPECT_EQ(dictionary.dictionary("list"), std::nullopt);
    EXPECT_EQ(dictionary.array("list"), Array{1});
    EXPECT_EQ(dictionary.array("inner"), std::nullopt);
    EXPECT_TRUE(dictionary.boolean("text"));
    EXPECT_TRUE(dictionary.boolean("number"));
    EXPECT_FALSE(dictionary.boolean("off"));
    EXPECT_FALSE(dictionary.boolean("list"));
    EXPECT_FALSE(dictionary.boolean("none"));
}

TEST(Dictionary, RemovesKeysAndKeepsTheOrderOfTheOthers) {
    Dictionary dictionary{{"a", 1}, {"b", 2}, {"c", 3}};

    EXPECT_TRUE(dictionary.remove("b"));
    EXPECT_FALSE(dictionary.remove("b"));
    EXPECT_EQ(keysOf(dictionary), (std::vector<std::string>{"a", "c"}));
    dictionary.set("b", 4);
    EXPECT_EQ(keysOf(dictionary), (std::vector<std::string>{"a", "c", "b"}));
}

TEST(Dictionary, EqualsWithTheSameEntriesInAnyOrder) {
    const Dictionary one{{"a", 1}, {"b", Dictionary{{"x", 1}, {"y", 2}}}};
    const Dictionary other{{"b", Dictionary{{"y", 2}, {"x", 1}}}, {"a", 1}};

    EXPECT_EQ(one, other);
    EXPECT_NE(one, (Dictionary{{"a", 1}}));
    EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"a", true}}));
    EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"b", 1}}));
    EXPECT_EQ(Dictionary(), Dictionary());
}

TEST(Dictionary, ChangesDoNotReachCopies) {
    const Dictionary original{{"a", 1}, {"b", 2}};
    Dictionary copy = original;
    EXPECT_EQ(original.begin(), copy.begin());

    copy.set("a", 9);
    copy.remove("b");

    EXPECT_EQ(original, (Dictionary{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(copy, (Dictionary{{"a", 9}}));
}

TEST(Dictionary, AFailedRemovalLeavesTheStorageShared) {
    const Dictionary original{{"a", 1}};
    Dictionary copy = original;

    EXPECT_FALSE(copy.remove("b"));
    EXPECT_EQ(original.begin(), copy.begin());
}

TEST(Dictionary, TakesItsOwnKeysAndValues) {
    Dictionary dictionary{{"a", "first"}};
    for (int i = 0; i < 100; ++i) dictionary.set("key " + std::to_string(i), *dictionary.find("a"));
    for (int i = 0; i < 101; ++i) dictionary.remove(dictionary.begin()->first);

    EXPECT_TRUE(dictionary.empty());
}

// Sets, replaces and removes at random around the size at which the index starts, beside a model.
TEST(Dictionary, AgreesWithAModelBelowAndAboveTheSizeOfItsIndex) {
    std::mt19937 random(20010101);
    Dictionary dictionary;
    std::map<std::string, int> model;
    std::vector<std::string> order;
    for (int step = 0; step < 20'000; ++step) {
        const bool grow =
            step / 200 % 2 == 0;  // phases that grow to about 150 keys and shrink to a few
        const std::string key = "k" + std::to_string(random() % 150);
        if (random() % 10 < (grow ? 9u : 1u)) {
            if (model.insert_or_assign(key, step).second) order.push_back(key);
            dictionary.set(key, step);
        } else {
            const bool there = model.erase(key) == 1;
            if (there) std::erase(order, key);
            ASSERT_EQ(dictionary.remove(key), there) << step;
        }
        ASSERT_EQ(dictionary.size(), model.size());
        const std::string probe = "k" + std::to_string(random() % 150);
        const auto expected = model.find(probe);
        const Value* const found = dictionary.find(probe);
        ASSERT_EQ(found != nullptr, expected != model.end()) << step << " " << probe;
        if (found) {
            ASSERT_EQ(*found, Value(expected->second)) << step << " " << probe;
        }
        if (step % 100 == 0) {
            ASSERT_EQ(keysOf(dictionary), order) << step;
        }
    }
}

// Without an index this would take hours.
TEST(Dictionary, TakesAMillionKeys) {
    constexpr int kCount = 1'000'000;
    Dictionary dictionary;
    for (int i = 0; i < kCount; ++i) dictionary.set("key " + std::to_string(i), i);
    Dictionary copy = dictionary;
    copy.set("key 5", "changed");

    ASSERT_EQ(dictionary.size(), static_cast<std::size_t>(kCount));
    for (int i = 0; i < kCount; ++i)
        ASSERT_EQ(*dictionary.find("key " + std::to_string(i)), Value(i));
    EXPECT_NE(dictionary, copy);
    for (int i = kCount; i-- > 0;) {
        if (i < kCount - 3) break;
        EXPECT_TRUE(dictionary.remove("key " + std::to_string(i)));
    }
    EXPECT_EQ(dictionary.size(), static_cast<std::size_t>(kCount) - 3);
}
