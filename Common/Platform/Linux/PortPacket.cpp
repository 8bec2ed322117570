#include "Common/Platform/Linux/PortPacket.h"

namespace utilia::platform {
namespace {

constexpr std::array<std::uint8_t, 4> kMagic = {'U', 'T', 'P', 'M'};
constexpr std::uint16_t kVersion = 1;

std::uint16_t read16(std::span<const std::uint8_t> bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

std::uint32_t read32(std::span<const std::uint8_t> bytes, std::size_t at) {
    return static_cast<std::uint32_t>(read16(bytes, at)) |
           static_cast<std::uint32_t>(read16(bytes, at + 2)) << 16;
}

void write16(PortPacketHead& head, std::uint16_t value) {
    head.bytes[head.size++] = static_cast<std::uint8_t>(value);
    head.bytes[head.size++] = static_cast<std::uint8_t>(value >> 8);
}

void write32(PortPacketHead& head, std::uint32_t value) {
    write16(head, static_cast<std::uint16_t>(value));
    write16(head, static_cast<std::uint16_t>(value >> 16));
}

void writeHeader(PortPacketHead& head, PortPacketKind kind, std::uint32_t msgid,
                 std::uint32_t componentCount) {
    head.size = 0;
    for (const std::uint8_t byte : kMagic) head.bytes[head.size++] = byte;
    write16(head, kVersion);
    write16(head, static_cast<std::uint16_t>(kind));
    write32(head, msgid);
    write32(head, componentCount);
}

std::variant<PortPacketView, PortRefusal> decodeMessage(PortPacketView view,
                                                        std::span<const std::uint8_t> rest) {
    if (view.componentCount > kPortMessageMaximumComponents) return PortRefusal::TooManyComponents;
    const std::size_t tableSize = 4 * static_cast<std::size_t>(view.componentCount);
    if (rest.size() < tableSize) return PortRefusal::ShortTable;
    view.table = rest.first(tableSize);
    view.inlineBytes = rest.subspan(tableSize);
    // At most 64 lengths of 32 bits: the sum of 64 bits cannot overflow.
    for (std::size_t at = 0; at < tableSize; at += 4) view.payloadSize += read32(view.table, at);
    if (view.payloadSize > kPortMessageMaximumSize) return PortRefusal::TooLarge;
    if (view.kind == PortPacketKind::Inline) {
        if (view.payloadSize > kPortPacketMaximumInline) return PortRefusal::TooLarge;
        if (view.payloadSize != view.inlineBytes.size()) return PortRefusal::WrongLength;
    } else if (!view.inlineBytes.empty() || view.payloadSize == 0) {
        return PortRefusal::WrongLength;
    }
    return view;
}

}  // namespace

std::string_view portRefusalText(PortRefusal refusal) {
    switch (refusal) {
    case PortRefusal::Empty:
        return "an empty packet";
    case PortRefusal::TooLong:
        return "a packet that is too long";
    case PortRefusal::ShortHeader:
        return "a packet shorter than its header";
    case PortRefusal::WrongMagic:
        return "a packet that is none of ours";
    case PortRefusal::WrongVersion:
        return "a packet of another version";
    case PortRefusal::UnknownKind:
        return "a packet of unknown kind";
    case PortRefusal::TooManyComponents:
        return "too many components";
    case PortRefusal::ShortTable:
        return "a packet shorter than its table";
    case PortRefusal::TooLarge:
        return "a message that is too large";
    case PortRefusal::WrongLength:
        return "a packet whose length differs from its table";
    case PortRefusal::UnexpectedHello:
        return "a second hello, or one that is not bare";
    case PortRefusal::NoHello:
        return "no hello";
    case PortRefusal::TooManyDescriptors:
        return "more descriptors than a packet may carry";
    case PortRefusal::UnexpectedDescriptor:
        return "a descriptor that the packet does not announce";
    case PortRefusal::MissingDescriptor:
        return "no descriptor where the packet announces one";
    case PortRefusal::NotSealedMemory:
        return "a descriptor that is not a sealed memory file";
    case PortRefusal::WrongMemorySize:
        return "a memory file of another size than announced";
    case PortRefusal::MemoryUnavailable:
        return "a memory file that cannot be read here";
    case PortRefusal::OtherUser:
        return "a peer of another user";
    case PortRefusal::TooManyConnections:
        return "too many connections of one process";
    }
    return "an unknown reason";
}

std::variant<PortPacketView, PortRefusal> decodePortPacket(std::span<const std::uint8_t> packet) {
    if (packet.empty()) return PortRefusal::Empty;
    if (packet.size() > kPortPacketMaximumSize) return PortRefusal::TooLong;
    if (packet.size() < kPortPacketHeaderSize) return PortRefusal::ShortHeader;
    for (std::size_t i = 0; i < kMagic.size(); ++i) {
        if (packet[i] != kMagic[i]) return PortRefusal::WrongMagic;
    }
    if (read16(packet, 4) != kVersion) return PortRefusal::WrongVersion;
    PortPacketView view;
    view.msgid = read32(packet, 8);
    view.componentCount = read32(packet, 12);
    switch (static_cast<PortPacketKind>(read16(packet, 6))) {
    case PortPacketKind::Hello:
        if (packet.size() != kPortPacketHeaderSize || view.msgid != 0 || view.componentCount != 0) {
            return PortRefusal::UnexpectedHello;
        }
        view.kind = PortPacketKind::Hello;
        return view;
    case PortPacketKind::Inline:
        view.kind = PortPacketKind::Inline;
        break;
    case PortPacketKind::Memory:
        view.kind = PortPacketKind::Memory;
        break;
    default:
        return PortRefusal::UnknownKind;
    }
    return decodeMessage(view, packet.subspan(kPortPacketHeaderSize));
}

void splitPortPayload(const PortPacketView& view, std::span<const std::uint8_t> payload,
                      std::vector<PortMessage::Component>& components) {
    components.clear();
    for (std::size_t at = 0; at < view.table.size(); at += 4) {
        const std::size_t length = read32(view.table, at);
        components.push_back(payload.first(length));
        payload = payload.subspan(length);
    }
}

void encodePortHello(PortPacketHead& head) { writeHeader(head, PortPacketKind::Hello, 0, 0); }

void encodePortMessage(PortPacketKind kind, std::uint32_t msgid,
                       std::span<const PortMessage::Component> components, PortPacketHead& head) {
    writeHeader(head, kind, msgid, static_cast<std::uint32_t>(components.size()));
    for (const PortMessage::Component& component : components) {
        write32(head, static_cast<std::uint32_t>(component.size()));
    }
}

}  // namespace utilia::platform
