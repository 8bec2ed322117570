#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Common/Platform/UniqueFd.h"
#include "Tests/Process/Soak/Growth.h"
#include "Tests/Process/Soak/HeapCount.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"

namespace {

using namespace utilia;
using test::ChildProcess;
using test::HeapCount;
using test::Sample;

constexpr std::size_t kSize = 1000;
constexpr int kBlocks = 100;

// Makes blocks in every way that there is, tells how many bytes they have, and frees them when it is asked to.
UTILIA_CHILD_ROLE(allocate) {
    std::vector<void*> blocks;
    blocks.reserve(6 * kBlocks);
    self.say(std::getenv("LD_PRELOAD") || std::getenv(test::kHeapCountVariable) ? "set" : "unset");
    self.waitForLine();
    for (int i = 0; i < kBlocks; ++i) {
        blocks.push_back(std::malloc(kSize));
        blocks.push_back(std::calloc(kSize, 2));
        blocks.push_back(std::realloc(std::malloc(kSize), 3 * kSize));
        blocks.push_back(std::realloc(std::calloc(kSize, 3), kSize));
        blocks.push_back(std::aligned_alloc(64, 64 * kSize));
        void* aligned = nullptr;
        if (posix_memalign(&aligned, 4096, kSize) == 0) blocks.push_back(aligned);
    }
    std::size_t bytes = 0;
    for (void* const block : blocks) bytes += malloc_usable_size(block);
    self.say(std::to_string(bytes));
    self.waitForLine();
    for (void* const block : blocks) std::free(block);
    self.say("freed");
    self.waitForLine();
    return 0;
}

TEST(HeapCountTest, CountsWhatIsInUse) {
    const test::TemporaryHome home;
    const std::string path = home.path() / "heap";
    const platform::UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(ftruncate(file.get(), sizeof(HeapCount)), 0);
    void* const memory = mmap(nullptr, sizeof(HeapCount), PROT_READ, MAP_SHARED, file.get(), 0);
    ASSERT_NE(memory, MAP_FAILED);
    const auto& count = *static_cast<const HeapCount*>(memory);

    test::ChildProcessOptions options;
    options.environment = {{"LD_PRELOAD", test::places::kHeapCountLibrary},
                           {test::kHeapCountVariable, path}};
    auto child = ChildProcess::role("allocate", {}, options);
    ASSERT_EQ(child.waitForLine(), "unset");
    const std::int64_t before = count.bytes;
    EXPECT_GT(before, 0);
    child.say("allocate");
    const auto line = child.waitForLine();
    ASSERT_TRUE(line);
    const std::int64_t bytes = std::stoll(*line);
    EXPECT_GE(bytes, std::int64_t{72} * kSize * kBlocks);
    // The lines that the two say are strings on the heap as well.
    constexpr std::int64_t kLines = 4096;
    EXPECT_NEAR(static_cast<double>(count.bytes - before), static_cast<double>(bytes), kLines);
    child.say("free");
    ASSERT_EQ(child.waitForLine(), "freed");
    EXPECT_NEAR(static_cast<double>(count.bytes), static_cast<double>(before), kLines);
    child.say("end");
    EXPECT_EQ(child.waitForExit(), 0);
    munmap(memory, sizeof(HeapCount));
}

// A sample every two seconds, of what the function says.
std::vector<Sample> samplesOf(double seconds, double (*heapAt)(double)) {
    std::vector<Sample> samples;
    for (double now = 0; now <= seconds; now += 2)
        samples.push_back({.seconds = now, .heap = heapAt(now)});
    return samples;
}

TEST(GrowthTest, IsWhatComesOnTopInAnHour) {
    const auto samples = samplesOf(1800, [](double now) { return 4000 + now / 100; });
    const auto trend = test::trend(samples, &Sample::heap, 900);
    EXPECT_NEAR(trend.growth, 13.5, 0.1);
    EXPECT_NEAR(trend.perHour, 36, 0.1);
    EXPECT_NEAR(trend.last, 4018, 0.1);
    EXPECT_TRUE(trend.isLong);
    EXPECT_FALSE(trend.isWithin({.kibibytes = 32, .kibibytesPerHour = 32}));
    EXPECT_TRUE(trend.isWithin({.kibibytes = 32, .kibibytesPerHour = 37}));
    EXPECT_FALSE(trend.isWithin({.kibibytes = 13, .kibibytesPerHour = 37}));
}

TEST(GrowthTest, IsNotWhatIsThereForAMoment) {
    const auto samples = samplesOf(1800, [](double now) {
        return now > 1700 && static_cast<int>(now) % 10 == 0 ? 5000.0 : 4000.0;
    });
    EXPECT_EQ(test::trend(samples, &Sample::heap, 900).growth, 0);
}

TEST(GrowthTest, OfAnHourIsNotToldFromSeconds) {
    const auto samples = samplesOf(20, [](double now) { return 4000 + now / 2; });
    const auto trend = test::trend(samples, &Sample::heap, 900);
    EXPECT_FALSE(trend.isLong);
    EXPECT_TRUE(trend.isWithin({.kibibytes = 32, .kibibytesPerHour = 32}));
    EXPECT_FALSE(trend.isWithin({.kibibytes = 5, .kibibytesPerHour = 32}));
    const std::vector<Sample> two{{.seconds = 0, .heap = 1}, {.seconds = 2, .heap = 2}};
    EXPECT_EQ(test::trend(two, &Sample::heap, 900).growth, 1);
}

}  // namespace
