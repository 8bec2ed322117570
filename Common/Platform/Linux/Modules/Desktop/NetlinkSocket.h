#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Common/Platform/Linux/Modules/Desktop/HostFlags.h"

namespace utilia::platform::desktop {

// A socket to the kernel's routing tables, closed with this object.
//
// Threads: an instance belongs to one thread at a time.
class NetlinkSocket final {
public:
    NetlinkSocket() = default;
    NetlinkSocket(NetlinkSocket&& other) noexcept;
    NetlinkSocket& operator=(NetlinkSocket&& other) noexcept;
    ~NetlinkSocket();

    // To ask. Without a descriptor and with errno set when there can be none.
    static NetlinkSocket forQueries();
    // To be told of changes of links, addresses, routes and rules.
    static NetlinkSocket forChanges();

    explicit operator bool() const { return descriptor_ >= 0; }
    int descriptor() const { return descriptor_; }

    // Of 4 or 16 bytes in network order. No route at all when the kernel cannot be asked.
    Route routeTo(std::span<const std::uint8_t> address) const;
    // Takes what has arrived; answers whether anything has, or was lost.
    bool takeChanges() const;

private:
    explicit NetlinkSocket(int descriptor) : descriptor_(descriptor) {}
    Route receiveRoute(std::uint32_t sequence) const;
    Route throughInterface(int index, Route route) const;

    int descriptor_ = -1;
};

}  // namespace utilia::platform::desktop
