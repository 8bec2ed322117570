#pragma once

#include <cstdint>

#include "Common/Platform/Reachability.h"

namespace utilia::platform::desktop {

// How packets to an address would leave this machine.
struct Route {
    bool isUsable = false;  // there is one, through an interface that is up and has a carrier
    bool isLocal = false;   // to this machine itself
    bool isDirect = false;  // without a router, in a network of more than two
};

// Translates a route to ReachabilityFlags. In a restricted network (one that wants a login first,
// or does not lead to the internet) only what lies before its router can be reached as it is.
inline std::uint32_t hostFlags(const Route& route, bool isNetworkRestricted) {
    if (!route.isUsable) return 0;
    std::uint32_t flags = ReachabilityFlagsReachable;
    if (route.isLocal) return flags | ReachabilityFlagsIsLocalAddress;
    if (route.isDirect) return flags | ReachabilityFlagsIsDirect;
    if (isNetworkRestricted) flags |= ReachabilityFlagsConnectionRequired;
    return flags;
}

// The better of the ways to two addresses of one host.
inline std::uint32_t betterFlags(std::uint32_t first, std::uint32_t second) {
    const auto rank = [](std::uint32_t flags) {
        if (!(flags & ReachabilityFlagsReachable)) return 0;
        return flags & ReachabilityFlagsConnectionRequired ? 1 : 2;
    };
    return rank(second) > rank(first) ? second : first;
}

}  // namespace utilia::platform::desktop
