#include "Common/UtiliaCommon/ToolDataProvider/AtomicBlock.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace utilia {
namespace {

TEST(AtomicBlock, SaysWhenThereIsNothingToCall) {
    AtomicBlock block;
    EXPECT_FALSE(block.call());
    EXPECT_FALSE(block.get());
}

TEST(AtomicBlock, CallsWhatIsInstalled) {
    AtomicBlock block;
    int calls = 0;
    block.set([&] { ++calls; });
    EXPECT_TRUE(block.call());
    block.get()();
    EXPECT_EQ(calls, 2);
}

TEST(AtomicBlock, EmptyFunctionTakesTheBlockAway) {
    AtomicBlock block;
    block.set([] {});
    block.set(nullptr);
    EXPECT_FALSE(block.call());
}

TEST(AtomicBlock, MayReplaceItselfWhileItIsCalled) {
    AtomicBlock block;
    std::string said;
    block.set([&, text = std::string("the first, still alive after its replacement")] {
        block.set([&] { said += " second"; });
        said = text;
    });
    block.call();
    block.call();
    EXPECT_EQ(said, "the first, still alive after its replacement second");
}

TEST(AtomicBlock, IsInstalledByOneThreadWhileAnotherCalls) {
    AtomicBlock block;
    std::atomic<long> sum = 0;
    std::atomic<bool> done = false;
    block.set([&] { sum += 1; });
    std::thread installer([&] {
        for (long i = 1; i <= 20'000; ++i) block.set([&sum, i] { sum += i; });
        done = true;
    });
    long calls = 0;
    while (!done) calls += block.call() ? 1 : 0;
    installer.join();
    EXPECT_GE(sum, calls);
    sum = 0;
    block.call();
    EXPECT_EQ(sum, 20'000);
}

}  // namespace
}  // namespace utilia
