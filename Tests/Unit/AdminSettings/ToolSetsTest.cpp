#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"

#include <algorithm>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Foundation/Description.h"
#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"
#include "Common/UtiliaCommon/AdminSettings/KAVKeyValueHelper.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

using test::PrivateMounts;
using testing::ElementsAre;

const std::string kTimer = "com.korvane.utilia.Timer";
const std::string kMoonPhase = "com.korvane.utilia.MoonPhase";

TEST(ToolSets, WithoutAFileNothingIsRestrictedAndNothingIsLogged) {
    const PrivateMounts mounts;
    EXPECT_TRUE(mounts.run([] {
        const test::TestLog log;
        EXPECT_EQ(ToolSets::sharedInstance(), nullptr);
        const auto sets = ToolSets::createSharedInstance();
        EXPECT_EQ(ToolSets::sharedInstance(), sets);
        EXPECT_FALSE(sets->whiteList().has_value());
        bool isInSet = false;
        bool isRestricted = true;
        EXPECT_TRUE(sets->isToolAllowedWithBundleId(kTimer, &isInSet, &isRestricted));
        EXPECT_TRUE(isInSet);
        EXPECT_FALSE(isRestricted);
        EXPECT_THAT(log.lines(), ElementsAre());
    }));
}

TEST(ToolSets, AListedToolIsAllowedInTheCataloguesSpelling) {
    const PrivateMounts mounts;
    mounts.writeSettings(R"({"WhiteToolsList": ["timer"]})");
    EXPECT_TRUE(mounts.run([] {
        const test::TestLog log;
        const ToolSets sets;
        ASSERT_TRUE(sets.whiteList());
        EXPECT_THAT(*sets.whiteList(), ElementsAre(kTimer));
        EXPECT_TRUE(sets.isToolAllowedWithBundleId(kTimer));
        EXPECT_FALSE(sets.isToolAllowedWithBundleId(kMoonPhase));
        EXPECT_FALSE(sets.isToolAllowedWithBundleId("com.korvane.utilia.timer"));
        auto forbidden = ToolSets::fullSet();
        std::erase(forbidden, kTimer);
        EXPECT_THAT(log.lines(),
                    ElementsAre("The next tools are forbidden due to white-list settings: " +
                                descriptionOfArray(forbidden)));
    }));
}

}  // namespace
}  // namespace utilia
