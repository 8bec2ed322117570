#include <gtest/gtest.h>

#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

constexpr std::string_view kGroup = "7QK2M9ZD4R.com.korvane.utilia";

TEST(UserDefaults, KeepsWhatWasSetInTheDomainsFile) {
    const test::TemporaryHome home;
    UserDefaults::initWithDomain("com.example.tool")->setObject("value", "key");
    EXPECT_EQ(UserDefaults::initWithDomain("com.example.tool")->stringForKey("key"), "value");
    EXPECT_TRUE(
        std::filesystem::exists(home.config() / "korvane-utilia" / "com.example.tool.plist"));
}

TEST(UserDefaults, KeepsASuiteInsideTheGroupsContainer) {
    const test::TemporaryHome home;
    const auto suite = UserDefaults::initWithSuiteName(kGroup);
    ASSERT_TRUE(suite);
    EXPECT_EQ(suite->path(),
              (home.groupContainer() / "Library/Preferences" / (std::string(kGroup) + ".plist"))
                  .string());
}

TEST(UserDefaults, GathersTheSetsOfASuiteUntilSynchronize) {
    const test::TemporaryHome home;
    const auto suite = UserDefaults::initWithSuiteName(kGroup);
    const auto reader = UserDefaults::initWithSuiteName(kGroup);
    suite->setObject(1, "key");
    EXPECT_EQ(suite->integerForKey("key"), 1);
    EXPECT_FALSE(reader->objectForKey("key"));
    EXPECT_TRUE(suite->synchronize());
    EXPECT_EQ(reader->integerForKey("key"), 1);
}

}  // namespace
}  // namespace utilia::platform
