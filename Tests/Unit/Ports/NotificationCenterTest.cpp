#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Common/Platform/NotificationCenter.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

TEST(NotificationCenter, CallsObserversInTheOrderOfTheirRegistration) {
    NotificationCenter center;
    std::vector<int> order;
    const Handle first = center.addObserver("n", nullptr, [&](const void*) { order.push_back(1); });
    const Handle second =
        center.addObserver("n", nullptr, [&](const void*) { order.push_back(2); });
    const Handle other = center.addObserver("m", nullptr, [&](const void*) { order.push_back(3); });
    center.post("n", nullptr);
    EXPECT_EQ(order, (std::vector{1, 2}));
}

TEST(NotificationCenter, LimitsAnObservationToItsObject) {
    NotificationCenter center;
    const int a = 0;
    const int b = 0;
    std::vector<const void*> heard;
    const Handle ofA =
        center.addObserver("n", &a, [&](const void* object) { heard.push_back(object); });
    center.post("n", &b);
    center.post("n", nullptr);
    EXPECT_TRUE(heard.empty());
    center.post("n", &a);
    EXPECT_EQ(heard, (std::vector<const void*>{&a}));
}

TEST(NotificationCenter, DoesNotCallAnObserverThatIsEndedDuringThePost) {
    NotificationCenter center;
    bool called = false;
    Handle second;
    const Handle first = center.addObserver("n", nullptr, [&](const void*) { second.reset(); });
    second = center.addObserver("n", nullptr, [&](const void*) { called = true; });
    center.post("n", nullptr);
    EXPECT_FALSE(called);
}

TEST(NotificationCenter, DoesNotCallAnObserverThatIsAddedDuringThePost) {
    NotificationCenter center;
    int called = 0;
    Handle added;
    const Handle first = center.addObserver("n", nullptr, [&](const void*) {
        if (!added) added = center.addObserver("n", nullptr, [&](const void*) { ++called; });
    });
    center.post("n", nullptr);
    EXPECT_EQ(called, 0);
    center.post("n", nullptr);
    EXPECT_EQ(called, 1);
}

TEST(NotificationCenter, LetsAnObserverEndItself) {
    NotificationCenter center;
    int called = 0;
    Handle handle;
    handle = center.addObserver("n", nullptr, [&](const void*) {
        handle.reset();
        ++called;
    });
    center.post("n", nullptr);
    center.post("n", nullptr);
    EXPECT_EQ(called, 1);
}

TEST(NotificationCenter, MayEndBeforeItsHandles) {
    Handle handle;
    {
        NotificationCenter center;
        handle = center.addObserver("n", nullptr, [](const void*) {});
    }
    handle.reset();
    EXPECT_FALSE(handle);
}

TEST(NotificationCenter, GoesOnWhenAnObserverThrows) {
    const test::TestLog log;
    NotificationCenter center;
    bool called = false;
    const Handle first =
        center.addObserver("n", nullptr, [](const void*) { throw std::runtime_error("broken"); });
    const Handle second = center.addObserver("n", nullptr, [&](const void*) { called = true; });
    center.post("n", nullptr);
    EXPECT_TRUE(called);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"An observer of n threw: broken"}));
}

TEST(NotificationCenter, TakesObserversAndPostsFromSeveralThreads) {
    NotificationCenter center;
    std::atomic<int> heard = 0;
    const Handle all = center.addObserver("n", nullptr, [&](const void*) { ++heard; });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int k = 0; k < 200; ++k) {
                const Handle own = center.addObserver("n", nullptr, [](const void*) {});
                center.post("n", nullptr);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(heard, 800);
}

}  // namespace
}  // namespace utilia::platform
