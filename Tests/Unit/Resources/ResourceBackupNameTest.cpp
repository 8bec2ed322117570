#include "Common/UtiliaCommon/Resources/ResourceBackupName.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace utilia {
namespace {

TEST(ResourceBackupName, IsTheResourcesNameAndTheSecondsSinceTheReferenceDateWithSixDecimals) {
    const std::pair<double, const char*> table[] = {
        {0, "converter_0.000000.bak"},
        {1, "converter_1.000000.bak"},
        {0.5, "converter_0.500000.bak"},
        {-1.25, "converter_-1.250000.bak"},
        {1e-7, "converter_0.000000.bak"},
        {0.0000006, "converter_0.000001.bak"},
        {817'776'000.123456, "converter_817776000.123456.bak"},
        {123'456'789'012.5, "converter_123456789012.500000.bak"},
        {1e15, "converter_1000000000000000.000000.bak"},
    };
    for (const auto& [seconds, name] : table)
        EXPECT_EQ(resourceBackupName("converter", Date{seconds}), name);
}

TEST(ResourceBackupName, CountsFromTheFirstMomentOf2001) {
    EXPECT_EQ(resourceBackupName("x", Date::fromUnixTime(978'307'200)), "x_0.000000.bak");
    EXPECT_EQ(resourceBackupName("x", Date::fromUnixTime(978'307'260.5)), "x_60.500000.bak");
}

TEST(ResourceBackupName, HasAnyName) {
    EXPECT_EQ(resourceBackupName("some tool_%@.app", Date{2}), "some tool_%@.app_2.000000.bak");
    EXPECT_EQ(resourceBackupName("", Date{2}), "_2.000000.bak");
    EXPECT_EQ(resourceBackupName("größer", Date{2}), "größer_2.000000.bak");
}

TEST(ResourceBackupName, HasRoomForEveryDate) {
    const std::string name = resourceBackupName("x", Date{-1.7e308});
    EXPECT_TRUE(name.starts_with("x_-1699999999999999"));
    EXPECT_TRUE(name.ends_with(".000000.bak"));
    EXPECT_EQ(name.size(), 2 + 1 + 309 + 11u);
}

}  // namespace
}  // namespace utilia
