#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <variant>
#include <vector>

#include "Common/Platform/Port.h"

namespace utilia::platform {

// The packets that travel over a port's connection, as Documentation/Formats/PortPacket.md defines
// them. Pure functions: no descriptor, no system call.

enum class PortPacketKind : std::uint16_t {
    Hello = 1,   // opens a connection; nothing but the header
    Inline = 2,  // a message whose components follow in the packet
    Memory = 3,  // a message whose components lie in the memory file that comes with the packet
};

// Why a receiver drops a connection. What the log says for each is in portRefusalText().
enum class PortRefusal : std::uint8_t {
    Empty,
    TooLong,
    ShortHeader,
    WrongMagic,
    WrongVersion,
    UnknownKind,
    TooManyComponents,
    ShortTable,
    TooLarge,
    WrongLength,
    UnexpectedHello,
    NoHello,
    TooManyDescriptors,
    UnexpectedDescriptor,
    MissingDescriptor,
    NotSealedMemory,
    WrongMemorySize,
    MemoryUnavailable,
    OtherUser,
    TooManyConnections,
};
inline constexpr std::size_t kPortRefusalCount = 20;
std::string_view portRefusalText(PortRefusal refusal);

inline constexpr std::size_t kPortPacketHeaderSize = 16;
inline constexpr std::size_t kPortPacketMaximumHead =
    kPortPacketHeaderSize + 4 * kPortMessageMaximumComponents;
// Components up to this many bytes together travel in the packet itself.
inline constexpr std::size_t kPortPacketMaximumInline = 64u << 10;
inline constexpr std::size_t kPortPacketMaximumSize =
    kPortPacketMaximumHead + kPortPacketMaximumInline;

// A packet's header and table; `inlineBytes` and `table` lie in the packet.
struct PortPacketView {
    PortPacketKind kind = PortPacketKind::Hello;
    std::uint32_t msgid = 0;
    std::uint32_t componentCount = 0;
    std::uint64_t payloadSize = 0;  // of all components together
    std::span<const std::uint8_t> table;
    std::span<const std::uint8_t> inlineBytes;
};

// Everything that can be checked without the memory file is checked.
std::variant<PortPacketView, PortRefusal> decodePortPacket(std::span<const std::uint8_t> packet);

// Cuts the payload, which has exactly view.payloadSize bytes, into components.
void splitPortPayload(const PortPacketView& view, std::span<const std::uint8_t> payload,
                      std::vector<PortMessage::Component>& components);

// A header and table, ready to be sent before the components.
struct PortPacketHead {
    std::array<std::uint8_t, kPortPacketMaximumHead> bytes;
    std::size_t size = 0;
};
void encodePortHello(PortPacketHead& head);
// The caller has checked the limits of a message.
void encodePortMessage(PortPacketKind kind, std::uint32_t msgid,
                       std::span<const PortMessage::Component> components, PortPacketHead& head);

}  // namespace utilia::platform
