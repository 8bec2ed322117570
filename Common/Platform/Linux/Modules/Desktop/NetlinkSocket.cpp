#include "Common/Platform/Linux/Modules/Desktop/NetlinkSocket.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

// The kernel is asked for the very route that a packet would take. It knows about rules, tunnels,
// metrics and routes that forbid, which a copy of its tables would have to work out again. Routes
// over a link without a carrier are still answered, so the interface is asked as well.

namespace utilia::platform::desktop {
namespace {

// A netlink message with room for one attribute.
struct RouteRequest {
    nlmsghdr header;
    rtmsg route;
    rtattr destination;
    std::array<std::uint8_t, 16> address;
};

NetlinkSocket failed(int error) {
    errno = error;
    return {};
}

int openSocket() {
    return socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
}

bool leadsSomewhere(unsigned char type) {
    return type == RTN_UNICAST || type == RTN_LOCAL || type == RTN_BROADCAST ||
           type == RTN_ANYCAST || type == RTN_MULTICAST;
}

}  // namespace

NetlinkSocket::NetlinkSocket(NetlinkSocket&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

NetlinkSocket& NetlinkSocket::operator=(NetlinkSocket&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

NetlinkSocket::~NetlinkSocket() {
    if (descriptor_ >= 0) close(descriptor_);
}

NetlinkSocket NetlinkSocket::forQueries() { return NetlinkSocket(openSocket()); }

NetlinkSocket NetlinkSocket::forChanges() {
    NetlinkSocket made(openSocket());
    if (!made) return made;
    sockaddr_nl self{};
    self.nl_family = AF_NETLINK;
    if (bind(made.descriptor_, reinterpret_cast<sockaddr*>(&self), sizeof self) != 0)
        return failed(errno);
    for (const int group :
         {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE,
          RTNLGRP_IPV6_ROUTE, RTNLGRP_IPV4_RULE, RTNLGRP_IPV6_RULE}) {
        if (setsockopt(made.descriptor_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group,
                       sizeof group) != 0) {
            return failed(errno);
        }
    }
    return made;
}

Route NetlinkSocket::routeTo(std::span<const std::uint8_t> address) const {
    static std::atomic<std::uint32_t> lastSequence = 0;
    RouteRequest request{};
    if (address.size() != 4 && address.size() != request.address.size()) return {};
    request.route.rtm_family = address.size() == 4 ? AF_INET : AF_INET6;
    request.route.rtm_dst_len = static_cast<unsigned char>(address.size() * 8);
    request.destination.rta_type = RTA_DST;
    request.destination.rta_len = static_cast<unsigned short>(RTA_LENGTH(address.size()));
    std::memcpy(request.address.data(), address.data(), address.size());
    request.header.nlmsg_len =
        static_cast<std::uint32_t>(NLMSG_LENGTH(sizeof(rtmsg)) + request.destination.rta_len);
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.header.nlmsg_seq = ++lastSequence;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(descriptor_, &request, request.header.nlmsg_len, 0,
               reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
        return {};
    }
    return receiveRoute(request.header.nlmsg_seq);
}

// The kernel has answered by the time that the request is sent.
Route NetlinkSocket::receiveRoute(std::uint32_t sequence) const {
    alignas(nlmsghdr) std::array<char, 8192> buffer;
    for (;;) {
        const ssize_t size = recv(descriptor_, buffer.data(), buffer.size(), 0);
        if (size < 0 && errno == EINTR) continue;
        if (size <= 0) return {};
        const auto* header = reinterpret_cast<const nlmsghdr*>(buffer.data());
        if (!NLMSG_OK(header, static_cast<std::uint32_t>(size))) return {};
        if (header->nlmsg_seq != sequence) continue;  // left over from a request that failed
        if (header->nlmsg_type != RTM_NEWROUTE) return {};
        const auto* message = static_cast<const rtmsg*>(NLMSG_DATA(header));
        if (!leadsSomewhere(message->rtm_type)) return {};
        Route route{.isUsable = true, .isLocal = message->rtm_type == RTN_LOCAL, .isDirect = true};
        int interface = 0;
        auto left = static_cast<int>(RTM_PAYLOAD(header));
        for (const rtattr* each = RTM_RTA(message); RTA_OK(each, left);
             each = RTA_NEXT(each, left)) {
            if (each->rta_type == RTA_GATEWAY || each->rta_type == RTA_VIA) route.isDirect = false;
            if (each->rta_type == RTA_OIF && RTA_PAYLOAD(each) == sizeof interface)
                std::memcpy(&interface, RTA_DATA(each), sizeof interface);
        }
        return throughInterface(interface, route);
    }
}

Route NetlinkSocket::throughInterface(int index, Route route) const {
    ifreq request{};
    request.ifr_ifindex = index;
    if (ioctl(descriptor_, SIOCGIFNAME, &request) != 0 ||
        ioctl(descriptor_, SIOCGIFFLAGS, &request) != 0) {
        return {};
    }
    const auto flags = static_cast<unsigned short>(request.ifr_flags);
    route.isUsable = (flags & IFF_UP) && (flags & IFF_RUNNING);
    if (route.isLocal || (flags & IFF_POINTOPOINT)) route.isDirect = false;
    return route;
}

bool NetlinkSocket::takeChanges() const {
    std::array<char, 8192> ignored;
    bool isAny = false;
    for (;;) {
        const ssize_t size = recv(descriptor_, ignored.data(), ignored.size(), MSG_TRUNC);
        if (size < 0 && errno == EINTR) continue;
        const bool wasLost = size < 0 && errno == ENOBUFS;
        if (size <= 0 && !wasLost) return isAny;
        isAny = true;
    }
}

}  // namespace utilia::platform::desktop
