#include <gtest/gtest.h>

#include "Common/Platform/Linux/Modules/Desktop/HostFlags.h"
#include "Common/UtiliaCommon/Web/HostReachability.h"

using utilia::HostReachability;
using namespace utilia::platform;
using namespace utilia::platform::desktop;

namespace {

constexpr Route kNone{};
constexpr Route kLocal{.isUsable = true, .isLocal = true};
constexpr Route kDirect{.isUsable = true, .isDirect = true};
constexpr Route kRouted{.isUsable = true};

TEST(HostFlags, FollowTheRoute) {
    EXPECT_EQ(hostFlags(kNone, false), 0u);
    EXPECT_EQ(hostFlags(kLocal, false), 0x10002u);
    EXPECT_EQ(hostFlags(kDirect, false), 0x20002u);
    EXPECT_EQ(hostFlags(kRouted, false), 2u);
    EXPECT_EQ(hostFlags({.isUsable = false, .isLocal = true}, false), 0u);
}

TEST(HostFlags, RequireAConnectionBehindTheRouterOfARestrictedNetwork) {
    EXPECT_EQ(hostFlags(kNone, true), 0u);
    EXPECT_EQ(hostFlags(kLocal, true), 0x10002u);
    EXPECT_EQ(hostFlags(kDirect, true), 0x20002u);
    EXPECT_EQ(hostFlags(kRouted, true), 6u);
}

TEST(HostFlags, OfAHostAreThoseOfItsBestAddress) {
    EXPECT_EQ(betterFlags(0, 2), 2u);
    EXPECT_EQ(betterFlags(2, 0), 2u);
    EXPECT_EQ(betterFlags(6, 2), 2u);
    EXPECT_EQ(betterFlags(2, 6), 2u);
    EXPECT_EQ(betterFlags(0, 6), 6u);
    EXPECT_EQ(betterFlags(0x20002, 2), 0x20002u);
}

TEST(HostReachability, IsReachableWhenReachableWithoutAConnectionRequired) {
    for (const std::uint32_t others : {0u, 1u, 8u, 16u, 32u, 0x10000u, 0x20000u, 0xFFFFFFF9u}) {
        EXPECT_FALSE(HostReachability::isReachableByFlags(others)) << others;
        EXPECT_TRUE(HostReachability::isReachableByFlags(others | 2)) << others;
        EXPECT_FALSE(HostReachability::isReachableByFlags(others | 4)) << others;
        EXPECT_FALSE(HostReachability::isReachableByFlags(others | 6)) << others;
    }
}

TEST(Reachability, FlagsHaveTheOriginalNumbers) {
    EXPECT_EQ(ReachabilityFlagsTransientConnection, 1u);
    EXPECT_EQ(ReachabilityFlagsReachable, 2u);
    EXPECT_EQ(ReachabilityFlagsConnectionRequired, 4u);
    EXPECT_EQ(ReachabilityFlagsConnectionOnTraffic, 8u);
    EXPECT_EQ(ReachabilityFlagsInterventionRequired, 16u);
    EXPECT_EQ(ReachabilityFlagsConnectionOnDemand, 32u);
    EXPECT_EQ(ReachabilityFlagsIsLocalAddress, 0x10000u);
    EXPECT_EQ(ReachabilityFlagsIsDirect, 0x20000u);
}

}  // namespace
