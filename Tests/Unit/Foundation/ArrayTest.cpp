#include <gtest/gtest.h>

#include "Common/Foundation/Value.h"

using namespace utilia;

TEST(Array, KeepsItsElementsInOrder) {
    Array array;
    EXPECT_TRUE(array.empty());
    EXPECT_EQ(array.begin(), array.end());

    array.append("b");
    array.append("d");
    array.insert(0, "a");
    array.insert(2, "c");
    array.insert(4, "e");

    EXPECT_EQ(array, (Array{"a", "b", "c", "d", "e"}));
    EXPECT_EQ(*array[3].string(), "d");
}

TEST(Array, ReplacesAndRemovesElements) {
    Array array{1, 2, 3};

    array.set(1, true);
    array.removeAt(0);

    EXPECT_EQ(array, (Array{true, 3}));
}

TEST(Array, RemovesEveryEqualElementAndCountsThem) {
    Array array{"a", 1, true, "a", 1.0, "a"};

    EXPECT_EQ(array.remove("a"), 3u);
    EXPECT_EQ(array.remove("a"), 0u);
    EXPECT_EQ(array, (Array{1, true, 1.0}));
    EXPECT_EQ(array.remove(1), 1u);
    EXPECT_EQ(array, (Array{true, 1.0}));
}

TEST(Array, RemovesWhatOneOfItsOwnElementsEquals) {
    Array array{"a", "b", "a", "c"};

    EXPECT_EQ(array.remove(array[0]), 2u);
    EXPECT_EQ(array, (Array{"b", "c"}));
}

TEST(Array, TakesItsOwnElementsAndItself) {
    Array array{"a"};
    for (int i = 0; i < 100; ++i) array.append(array[0]);
    const Array before = array;
    array.append(array);

    EXPECT_EQ(array.size(), 102u);
    EXPECT_EQ(*array[101].array(), before);
}

TEST(Array, ChangesDoNotReachCopies) {
    const Array original{1, 2};
    Array copy = original;

    copy.append(3);
    copy.set(0, "x");

    EXPECT_EQ(original, (Array{1, 2}));
    EXPECT_EQ(copy, (Array{"x", 2, 3}));
}

TEST(Array, SharesItsElementsUntilItChanges) {
    const Array original{"text", 2};
    const Array copy = original;

    EXPECT_EQ(original.begin(), copy.begin());
}

TEST(Array, IsEmptyAfterItWasMovedFrom) {
    Array array{1};
    const Array taken = std::move(array);

    array = Array();
    array.append(2);

    EXPECT_EQ(taken, Array{1});
    EXPECT_EQ(array, Array{2});
}

TEST(Array, DiffersByLengthOrderAndType) {
    EXPECT_EQ(Array(), Array());
    EXPECT_NE((Array{1}), Array());
    EXPECT_NE((Array{1, 2}), (Array{2, 1}));
    EXPECT_NE((Array{1}), (Array{true}));
}
