#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"

namespace utilia::platform {

// What the system knows about the way to a host: a set of these bits.
// Contract: never renumber. Values of the original platform.
enum ReachabilityFlags : std::uint32_t {
    ReachabilityFlagsTransientConnection = 1,
    ReachabilityFlagsReachable = 2,
    // Reachable only after something else has been done: a network's login page, for example.
    ReachabilityFlagsConnectionRequired = 4,
    ReachabilityFlagsConnectionOnTraffic = 8,
    ReachabilityFlagsInterventionRequired = 16,
    ReachabilityFlagsConnectionOnDemand = 32,
    ReachabilityFlagsIsLocalAddress = 0x10000,  // the host is this machine
    ReachabilityFlagsIsDirect = 0x20000,  // the host is in the same network: no router between
};

// Watches the way to one host for as long as it lives. Packets are never sent to the host: the
// answer is whether its name resolves, and whether there is a route to one of its addresses.
//
// The work is done by a module that is loaded with the first watch, on a thread of its own; neither
// making a watch nor ending it waits for a name server.
//
// Threads: an instance belongs to the thread that made it, whose loop delivers the changes.
class UTILIA_EXPORT Reachability final {
public:
    using Changed = std::function<void(std::uint32_t flags)>;

    // A host is a name (ASCII, or Unicode, which becomes its ASCII form) or an IPv4 or IPv6 address
    // without brackets. `changed` is called on this thread's loop, in its common modes, each time
    // the flags become others than they were; the first time is when the host is found reachable.
    // It may end the watch. Refused: what can be no host's name (empty, longer than 253 characters,
    // an empty label or one of more than 63 characters, characters other than letters, digits, "-"
    // and "_", an address with a zone). Unavailable: the module is missing or cannot do its work.
    static Result<std::unique_ptr<Reachability>> create(std::string_view host, Changed changed);

    Reachability(const Reachability&) = delete;
    Reachability& operator=(const Reachability&) = delete;
    // `changed` is not called any more, also when a change is on its way.
    ~Reachability();

    // ReachabilityFlags, as last known; 0 until the name has been resolved. Never waits. May be
    // ahead of what `changed` has been told.
    std::uint32_t flags() const;

private:
    struct Implementation;
    explicit Reachability(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace utilia::platform
