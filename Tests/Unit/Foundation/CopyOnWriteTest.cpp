#include <thread>

#include <gtest/gtest.h>

#include "Common/Foundation/Value.h"

using namespace utilia;

// Meant for ThreadSanitizer, which sees the order of reads and writes; elsewhere it checks the
// values.
TEST(CopyOnWrite, ObjectsThatShareStorageMayBeUsedOnDifferentThreads) {
    constexpr int kRounds = 300;
    Dictionary shared;
    for (int i = 0; i < 50; ++i) shared.set(std::to_string(i), Array{i});

    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (std::size_t thread = 0; thread < failures.size(); ++thread) {
        threads.emplace_back([copy = shared, &failed = failures[thread]] {
            for (int round = 0; round < kRounds; ++round) {
                Dictionary mine = copy;
                const Value before = *mine.find("7");
                mine.set("7", round);
                mine.remove("3");
                if (before != Value(Array{7}) || *mine.find("7") != Value(round) ||
                    *copy.find("3") != Value(Array{3})) {
                    ++failed;
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(failures, std::vector<int>(4, 0));
    EXPECT_EQ(shared.size(), 50u);
}

// The owner writes in place as soon as the reader has let go, which only the reference count tells
// it.
TEST(CopyOnWrite, TheLastOwnerMayWriteAfterAnotherThreadHasRead) {
    for (int round = 0; round < 300; ++round) {
        Array array{round, "text"};
        std::thread reader([copy = array, round]() mutable {
            if (copy[0] != Value(round)) std::terminate();
            copy = Array();
        });
        for (int i = 0; i < 20; ++i) array.set(0, i);
        reader.join();
        ASSERT_EQ(array[0], Value(19));
    }
}
