#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Platform/Reachability.h"

namespace utilia {

// Watches whether one host can be reached without a connection having to be established first,
// which is what a network's login page asks for.
//
// Threads: an instance belongs to the thread that made it, which has to run its loop, and is ended
// there.
class UTILIA_EXPORT HostReachability final {
public:
    // Empty, with one log line, when the name can be no host's, or hosts cannot be watched.
    // platform::Reachability says which names those are. Never waits for a name server.
    static std::unique_ptr<HostReachability> initWithHostName(std::string_view hostName);
    // The host of a URL such as "https://user@host:8080/path"; a URL without one is refused.
    static std::unique_ptr<HostReachability> initWithURL(std::string_view url);

    // Watches nothing: isReachable() is false, and ref() null.
    HostReachability();
    HostReachability(const HostReachability&) = delete;
    HostReachability& operator=(const HostReachability&) = delete;
    // The block is not called any more.
    ~HostReachability();

    // What is watched, for as long as this object lives; null without a host.
    const platform::Reachability* ref() const { return target_.get(); }
    // By what is known now; false until the name has been resolved. Never waits.
    bool isReachable() const;

    // Called from this thread's loop, in its common modes, each time the host is reported
    // reachable: its flags have changed, and isReachableByFlags() holds for the new ones. The block
    // may replace itself, and end this object.
    std::function<void()> onReachable() const;
    void setOnReachable(std::function<void()> onReachable);

    // Reachable, and no connection required.
    static bool isReachableByFlags(std::uint32_t flags) {
        return (flags & (platform::ReachabilityFlagsReachable |
                         platform::ReachabilityFlagsConnectionRequired)) ==
               platform::ReachabilityFlagsReachable;
    }

private:
    void flagsChanged(std::uint32_t flags);

    std::shared_ptr<const std::function<void()>> onReachable_;
    std::unique_ptr<platform::Reachability> target_;
};

}  // namespace utilia
