#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "Tests/Process/StartUp/StartUpFixture.h"
#include "Tests/Support/Places.h"

// The library loaded at other moments and places than before main on the main thread.

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kRestrictedLine =
    "Tool with bundleId com.korvane.utilia.Timer is restricted.";

class StartUpPlaces : public StartUpFixture {
protected:
    StartUpPlaces() {
        markAsMigrated();
        fs::remove(timer_.program());
        fs::create_hard_link(test::places::kLateLoader, timer_.program());
    }

    Course load(const std::string& where) {
        return courseOf(timer_, {where, (prefix() / "lib" / UTILIA_LIBRARY_SONAME).string()});
    }

    const TestBundle timer_ = tool("Timer", kListed);
};

TEST_F(StartUpPlaces, ChecksAToolThatLoadsTheLibraryLate) {
    for (const char* where : {"main thread", "other thread"}) {
        SCOPED_TRACE(where);
        const Course course = load(where);
        EXPECT_THAT(course.lines, ElementsAre("main", "loaded", "end"));
        EXPECT_EQ(course.status, 6);
    }
    EXPECT_TRUE(wasEverListed(kListed));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StartUpPlaces, EndsARestrictedToolWhereverItLoadsTheLibrary) {
    allowOnly({"MoonPhase"});
    std::size_t times = 0;
    for (const char* where : {"main thread", "other thread"}) {
        SCOPED_TRACE(where);
        const Course course = load(where);
        EXPECT_THAT(course.lines, ElementsAre("main"));
        EXPECT_EQ(course.status, 0);
        EXPECT_EQ(countInLog(kRestrictedLine), ++times);
    }
    EXPECT_FALSE(wasEverListed(kListed));
}

TEST_F(StartUpPlaces, ChecksOnceHoweverOftenItIsLoaded) {
    allowOnly({"Timer"});
    EXPECT_THAT(load("twice").lines, ElementsAre("main", "loaded", "loaded", "end"));
    EXPECT_EQ(log().size(), 1u);
    EXPECT_THAT(load("two threads").lines, ElementsAre("main", "loaded", "loaded", "end"));
    EXPECT_EQ(log().size(), 2u);
}

TEST_F(StartUpPlaces, ChecksAForkedChildThatLoadsTheLibraryAsAProcessOfItsOwn) {
    EXPECT_THAT(load("forked child").lines, ElementsAre("main", "loaded", "child 5", "end"));
    allowOnly({"MoonPhase"});
    EXPECT_THAT(load("forked child").lines, ElementsAre("main", "child 0", "end"))
        << "it ends, and the process that forked it goes on";
}

TEST_F(StartUpPlaces, ChecksNoChildThatIsForkedLater) {
    allowOnly({"Timer"});
    EXPECT_THAT(load("before a fork").lines,
                ElementsAre("main", "loaded", "in the child", "child 5", "end"));
    EXPECT_EQ(log().size(), 1u);
}

}  // namespace
}  // namespace utilia::test
