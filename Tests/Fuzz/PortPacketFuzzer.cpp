#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <sys/mman.h>

#include "Common/Platform/Linux/PortPacket.h"

using namespace utilia::platform;

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

// What a memory file of the largest size would be: its bytes matter to nobody here.
std::span<const std::uint8_t> memoryOfSize(std::uint64_t size) {
    static void* const memory = mmap(nullptr, kPortMessageMaximumSize, PROT_READ,
                                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    require(memory != MAP_FAILED && size <= kPortMessageMaximumSize);
    return {static_cast<const std::uint8_t*>(memory), static_cast<std::size_t>(size)};
}

void checkHello(std::span<const std::uint8_t> packet) {
    PortPacketHead head;
    encodePortHello(head);
    require(packet.size() == head.size);
    require(std::memcmp(packet.data(), head.bytes.data(), head.size) == 0);
}

}  // namespace

// Every packet that is accepted says exactly what its sender would have encoded, and its components
// lie one after the other in the payload and fill it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> packet(data, size);
    const auto decoded = decodePortPacket(packet);
    if (const auto* refusal = std::get_if<PortRefusal>(&decoded)) {
        require(portRefusalText(*refusal) != "an unknown reason");
        return 0;
    }
    const PortPacketView& view = *std::get_if<PortPacketView>(&decoded);
    if (view.kind == PortPacketKind::Hello) {
        checkHello(packet);
        return 0;
    }
    const bool isInline = view.kind == PortPacketKind::Inline;
    const auto payload = isInline ? view.inlineBytes : memoryOfSize(view.payloadSize);
    require(payload.size() == view.payloadSize);
    std::vector<PortMessage::Component> components;
    splitPortPayload(view, payload, components);
    require(components.size() == view.componentCount);
    std::size_t at = 0;
    for (const auto& component : components) {
        require(component.data() == payload.data() + at);
        at += component.size();
    }
    require(at == payload.size());
    PortPacketHead head;
    encodePortMessage(view.kind, view.msgid, components, head);
    require(head.size + view.inlineBytes.size() == packet.size());
    require(std::memcmp(packet.data(), head.bytes.data(), head.size) == 0);
    return 0;
}
