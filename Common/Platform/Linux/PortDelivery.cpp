#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/socket.h>

#include "Common/Logging/CallbackGuard.h"
#include "Common/Platform/Linux/PortConnection.h"
#include "Common/Platform/Linux/PortMessageAccess.h"
#include "Common/Platform/Linux/PortReceiver.h"

// The receiving port's way from a ready connection to the handler.
//
// Nothing that a peer sends is believed: the kernel is given room for exactly one descriptor,
// everything that came with the packet is owned before anything is judged, the packet is decoded by
// a pure function, and a memory file is looked at before it is read. Whatever is wrong costs the
// peer this connection and nobody else anything.
//
// The last messages of a sender that has ended lie in the socket ahead of the end of the stream, so
// reading until there is nothing delivers them without any further care.
//
// A handler may do everything: run the loop (the next delivery then uses the next buffer), end the
// connection's port, drop the last reference to it. Objects that a delivery further down still uses
// are kept until it returns.

namespace utilia::platform {
namespace {

struct Descriptors {
    UniqueFd first;
    bool areTooMany = false;
};

// Owns whatever came with a packet. With room for one, a second one cannot arrive, but the kernel's
// word for that is not needed.
Descriptors takeDescriptors(msghdr& packet) {
    Descriptors taken;
    for (cmsghdr* header = CMSG_FIRSTHDR(&packet); header; header = CMSG_NXTHDR(&packet, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
        const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
            UniqueFd owned(descriptor);
            if (taken.first) {
                taken.areTooMany = true;
            } else {
                taken.first = std::move(owned);
            }
        }
    }
    return taken;
}

}  // namespace

PortReceiver::Delivery& PortReceiver::currentDelivery() {
    if (deliveries_.size() < depth_) {
        auto added = std::make_unique<Delivery>();
        // Not cleared: pages that no packet reaches are never touched.
        added->buffer = std::make_unique_for_overwrite<std::uint8_t[]>(kPortPacketMaximumSize);
        deliveries_.push_back(std::move(added));
    }
    return *deliveries_[depth_ - 1];
}

void PortReceiver::serve(PortConnection& connection) {
    struct Depth {
        explicit Depth(PortReceiver& served) : receiver(served.shared_from_this()) {
            ++receiver->depth_;
        }
        ~Depth() {
            if (--receiver->depth_ == 0) receiver->ended_.clear();
        }
        const std::shared_ptr<PortReceiver> receiver;
    };
    const Depth depth(*this);
    Delivery& delivery = currentDelivery();
    const unsigned wanted = connection.burst.size();
    unsigned taken = 0;
    while (taken < wanted && isServing() && connection.socket) {
        const Step step = receive(connection, delivery);
        if (step == Step::Delivered) {
            ++taken;
            continue;
        }
        if (step == Step::Ended) {
            end(connection);
        } else {
            connection.burst.turnEnded(taken, true, limits_.packetsPerTurn);
        }
        return;
    }
    connection.burst.turnEnded(taken, false, limits_.packetsPerTurn);
}

PortReceiver::Step PortReceiver::receive(PortConnection& connection, Delivery& delivery) {
    iovec room{delivery.buffer.get(), kPortPacketMaximumSize};
    alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(int))> control;
    msghdr packet{};
    packet.msg_iov = &room;
    packet.msg_iovlen = 1;
    packet.msg_control = control.data();
    // Exactly one descriptor's length: CMSG_SPACE is padded and lets a second one in.
    packet.msg_controllen = CMSG_LEN(sizeof(int));
    ssize_t length = 0;
    do {
        length = recvmsg(connection.socket.get(), &packet, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (length < 0 && errno == EINTR);
    if (length < 0) {
        // A lack of memory passes; what was not taken is still there.
        const bool isTransient = errno == EAGAIN || errno == ENOMEM || errno == ENOBUFS;
        return isTransient ? Step::Nothing : Step::Ended;
    }
    Descriptors descriptors = packet.msg_controllen > 0 ? takeDescriptors(packet) : Descriptors{};
    if ((packet.msg_flags & MSG_CTRUNC) != 0 || descriptors.areTooMany) {
        // Without even the first one it is this process that has no descriptor left.
        return refuse(connection, descriptors.first ? PortRefusal::TooManyDescriptors
                                                    : PortRefusal::MemoryUnavailable);
    }
    if ((packet.msg_flags & MSG_TRUNC) != 0) return refuse(connection, PortRefusal::TooLong);
    if (length == 0) {
        // An empty packet looks like the end of the stream, and is the end either way.
        return descriptors.first ? refuse(connection, PortRefusal::Empty) : Step::Ended;
    }
    return handlePacket(connection, {delivery.buffer.get(), static_cast<std::size_t>(length)},
                        std::move(descriptors.first), delivery);
}

PortReceiver::Step PortReceiver::handlePacket(PortConnection& connection,
                                              std::span<const std::uint8_t> packet,
                                              UniqueFd descriptor, Delivery& delivery) {
    const auto decoded = decodePortPacket(packet);
    if (const PortRefusal* refusal = std::get_if<PortRefusal>(&decoded))
        return refuse(connection, *refusal);
    const PortPacketView& view = *std::get_if<PortPacketView>(&decoded);
    const bool isMemory = view.kind == PortPacketKind::Memory;
    if (isMemory && !descriptor) return refuse(connection, PortRefusal::MissingDescriptor);
    if (!isMemory && descriptor) return refuse(connection, PortRefusal::UnexpectedDescriptor);
    if (view.kind == PortPacketKind::Hello) {
        if (connection.hasGreeted) return refuse(connection, PortRefusal::UnexpectedHello);
        connection.hasGreeted = true;
        expectHello();
        return Step::Delivered;
    }
    if (!connection.hasGreeted) return refuse(connection, PortRefusal::NoHello);
    if (!isMemory) {
        deliver(view, view.inlineBytes, delivery);
        return Step::Delivered;
    }
    if (const auto refusal = delivery.memory.read(descriptor, view.payloadSize))
        return refuse(connection, *refusal);
    // Before the handler runs: from here on the sender may write into the file again, and the
    // handler may need the descriptor's number.
    descriptor.reset();
    deliver(view, delivery.memory.bytes(), delivery);
    delivery.memory.release();
    return Step::Delivered;
}

void PortReceiver::deliver(const PortPacketView& view, std::span<const std::uint8_t> payload,
                           Delivery& delivery) {
    PortMessage& message = delivery.message;
    message.setMsgid(view.msgid);
    splitPortPayload(view, payload, PortMessageAccess::components(message));
    runGuarded("A port's message handler", [&] { delegate_->handlePortMessage(message); });
}

PortReceiver::Step PortReceiver::refuse(PortConnection& connection, PortRefusal refusal) {
    report(refusal, connection.process);
    end(connection);
    return Step::Ended;
}

}  // namespace utilia::platform
