#include <string>
#include <vector>

#include "Common/Platform/Linux/PortPacket.h"

namespace utilia::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The worked example of Documentation/Formats/PortPacket.md.
const Bytes kExample = {0x55, 0x54, 0x50, 0x4d, 0x01, 0x00, 0x02, 0x00, 0x64, 0x00, 0x00, 0x00,
                        0x02, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00,
                        0x2f, 0x61, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
const Bytes kHello = {0x55, 0x54, 0x50, 0x4d, 0x01, 0x00, 0x01, 0x00,
                      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};

Bytes encoded(const PortPacketHead& head) {
    return {head.bytes.begin(), head.bytes.begin() + static_cast<std::ptrdiff_t>(head.size)};
}

Bytes header(std::uint16_t kind, std::uint32_t count, const std::vector<std::uint32_t>& lengths) {
    Bytes bytes = {0x55, 0x54, 0x50, 0x4d, 1, 0};
    const auto put = [&](std::uint32_t value, int size) {
        for (int i = 0; i < size; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    };
    put(kind, 2);
    put(77, 4);
    put(count, 4);
    for (const std::uint32_t length : lengths) put(length, 4);
    return bytes;
}

Bytes followedBy(Bytes bytes, std::size_t size) {
    bytes.resize(bytes.size() + size, 0x5a);
    return bytes;
}

TEST(PortPacket, EncodesTheWorkedExample) {
    const Bytes identity = {0x2f, 0x61};
    const Bytes status = {1, 0, 0, 0, 0, 0, 0, 0};
    const std::vector<PortMessage::Component> components = {identity, status};
    PortPacketHead head;
    encodePortMessage(PortPacketKind::Inline, 100, components, head);
    Bytes packet = encoded(head);
    packet.insert(packet.end(), identity.begin(), identity.end());
    packet.insert(packet.end(), status.begin(), status.end());
    EXPECT_EQ(packet, kExample);
    encodePortHello(head);
    EXPECT_EQ(encoded(head), kHello);
}

TEST(PortPacket, DecodesTheWorkedExample) {
    const auto decoded = decodePortPacket(kExample);
    const auto* view = std::get_if<PortPacketView>(&decoded);
    ASSERT_TRUE(view);
    EXPECT_EQ(view->kind, PortPacketKind::Inline);
    EXPECT_EQ(view->msgid, 100u);
    EXPECT_EQ(view->payloadSize, 10u);
    std::vector<PortMessage::Component> components;
    splitPortPayload(*view, view->inlineBytes, components);
    ASSERT_EQ(components.size(), 2u);
    EXPECT_EQ(components[0].data(), kExample.data() + 24) << "nothing is copied";
    EXPECT_EQ(components[0].size(), 2u);
    EXPECT_EQ(components[1].size(), 8u);
}

TEST(PortPacket, AcceptsEverythingWithinTheLimits) {
    const std::vector<Bytes> accepted = {
        kHello,
        header(2, 0, {}),
        header(2, 1, {0}),
        followedBy(header(2, 1, {65536}), 65536),
        followedBy(header(2, 64, std::vector<std::uint32_t>(64, 1024)), 65536),
        header(3, 1, {1}),
        header(3, 1, {64u << 20}),
        header(3, 64, std::vector<std::uint32_t>(64, 1u << 20)),
    };
    for (const Bytes& packet : accepted) {
        const auto decoded = decodePortPacket(packet);
        const auto* refusal = std::get_if<PortRefusal>(&decoded);
        EXPECT_FALSE(refusal) << portRefusalText(*refusal);
    }
}

TEST(PortPacket, RefusesEverythingElseForItsReason) {
    Bytes otherMagic = kHello;
    otherMagic[3] = 'N';
    Bytes otherVersion = kHello;
    otherVersion[4] = 2;
    Bytes laterVersion = kHello;
    laterVersion[5] = 1;
    Bytes numberedHello = kHello;
    numberedHello[8] = 1;
    Bytes countedHello = kHello;
    countedHello[12] = 1;
    const std::vector<std::pair<Bytes, PortRefusal>> refused = {
        {{}, PortRefusal::Empty},
        {followedBy({}, kPortPacketMaximumSize + 1), PortRefusal::TooLong},
        {Bytes(kHello.begin(), kHello.end() - 1), PortRefusal::ShortHeader},
        {{0x55}, PortRefusal::ShortHeader},
        {otherMagic, PortRefusal::WrongMagic},
        {otherVersion, PortRefusal::WrongVersion},
        {laterVersion, PortRefusal::WrongVersion},
        {header(0, 0, {}), PortRefusal::UnknownKind},
        {header(4, 0, {}), PortRefusal::UnknownKind},
        {header(0xffff, 0, {}), PortRefusal::UnknownKind},
        {numberedHello, PortRefusal::UnexpectedHello},
        {countedHello, PortRefusal::UnexpectedHello},
        {followedBy(kHello, 1), PortRefusal::UnexpectedHello},
        {followedBy(header(2, 65, {}), 65 * 4), PortRefusal::TooManyComponents},
        {header(2, 0xffffffff, {}), PortRefusal::TooManyComponents},
        {header(3, 0x40000001, {}), PortRefusal::TooManyComponents},
        {header(2, 2, {0}), PortRefusal::ShortTable},
        {header(2, 64, {}), PortRefusal::ShortTable},
        {header(2, 64, std::vector<std::uint32_t>(64, 0xffffffff)), PortRefusal::TooLarge},
        {header(3, 1, {(64u << 20) + 1}), PortRefusal::TooLarge},
        {header(3, 2, {64u << 20, 1}), PortRefusal::TooLarge},
        {header(2, 1, {65537}), PortRefusal::TooLarge},
        {followedBy(header(2, 1, {10}), 9), PortRefusal::WrongLength},
        {followedBy(header(2, 1, {10}), 11), PortRefusal::WrongLength},
        {followedBy(header(2, 0, {}), 1), PortRefusal::WrongLength},
        {header(3, 0, {}), PortRefusal::WrongLength},
        {header(3, 1, {0}), PortRefusal::WrongLength},
        {followedBy(header(3, 1, {5}), 5), PortRefusal::WrongLength},
    };
    for (const auto& [packet, reason] : refused) {
        const auto decoded = decodePortPacket(packet);
        const auto* refusal = std::get_if<PortRefusal>(&decoded);
        ASSERT_TRUE(refusal) << portRefusalText(reason);
        EXPECT_EQ(portRefusalText(*refusal), portRefusalText(reason));
    }
}

// Whatever the bytes say, the components lie in the payload, one after the other, and fill it.
void expectSound(const Bytes& packet) {
    const auto decoded = decodePortPacket(packet);
    const auto* view = std::get_if<PortPacketView>(&decoded);
    if (!view || view->kind != PortPacketKind::Inline) return;
    std::vector<PortMessage::Component> components;
    splitPortPayload(*view, view->inlineBytes, components);
    std::size_t total = 0;
    for (const auto& component : components) {
        EXPECT_EQ(component.data(), view->inlineBytes.data() + total);
        total += component.size();
    }
    EXPECT_EQ(total, view->inlineBytes.size());
}

TEST(PortPacket, StaysSoundWhenAnyByteIsChangedOrCutOff) {
    for (std::size_t at = 0; at < kExample.size(); ++at) {
        for (int value = 0; value < 256; ++value) {
            Bytes damaged = kExample;
            damaged[at] = static_cast<std::uint8_t>(value);
            expectSound(damaged);
        }
        expectSound(Bytes(kExample.begin(), kExample.begin() + static_cast<std::ptrdiff_t>(at)));
    }
}

TEST(PortPacket, HasATextForEachRefusal) {
    for (std::size_t i = 0; i < kPortRefusalCount; ++i) {
        EXPECT_NE(portRefusalText(static_cast<PortRefusal>(i)), "an unknown reason") << i;
    }
    EXPECT_EQ(portRefusalText(static_cast<PortRefusal>(kPortRefusalCount)), "an unknown reason");
}

}  // namespace
}  // namespace utilia::platform
