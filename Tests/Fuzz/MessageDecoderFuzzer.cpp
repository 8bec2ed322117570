// Messages of any form through both decoders. The input is an identifier (4 bytes, little-endian),
// then components: a length byte each, and as many bytes as there are of it.

#include <algorithm>
#include <cstdlib>
#include <span>
#include <vector>

#include "Common/Foundation/Unicode.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace {

using utilia::MessageBytes;

void require(bool holds) {
    if (!holds) std::abort();
}

// Whatever a decoded message refers to lies in one of the components.
void requireInside(MessageBytes part, std::span<const MessageBytes> components) {
    require(part.empty() || std::any_of(components.begin(), components.end(), [&](MessageBytes c) {
                return part.data() >= c.data() && part.data() + part.size() <= c.data() + c.size();
            }));
}

void checkToolMessage(std::uint32_t identifier, std::span<const MessageBytes> components) {
    const auto decoded = utilia::decodeToolMessage(identifier, components);
    if (!decoded) {
        require(decoded.error().is(utilia::UtiliaErrorCode::Refused));
        require(!decoded.error().description.empty());
        return;
    }
    require(!components.empty() && utilia::isValidUtf8(decoded->toolPath));
    requireInside(utilia::encodeText(decoded->toolPath), components);
    if (const auto* status = std::get_if<utilia::StatusReport>(&decoded->body)) {
        require(std::ranges::equal(utilia::encodeStatus(status->status), components[1]));
    } else if (const auto* icon = std::get_if<utilia::MenuIconReport>(&decoded->body)) {
        requireInside(icon->image, components);
        require(icon->isTemplate.has_value() == (components.size() >= 3));
    } else if (const auto* toolIcon = std::get_if<utilia::ToolIconReport>(&decoded->body)) {
        require(toolIcon->image.has_value() == (components.size() >= 2));
    } else if (const auto* text = std::get_if<utilia::MenuTextReport>(&decoded->body)) {
        require(text->text.has_value() == (components.size() >= 2));
        require(!text->text || utilia::isValidUtf8(*text->text));
    }
}

void checkAgentMessage(std::uint32_t identifier, std::span<const MessageBytes> components) {
    const auto decoded = utilia::decodeAgentMessage(identifier, components);
    if (!decoded) {
        require(decoded.error().is(utilia::UtiliaErrorCode::Refused));
        return;
    }
    if (decoded->message) require(static_cast<std::uint32_t>(*decoded->message) == identifier);
    if (decoded->flag) require(*decoded->flag == (components[0][0] != 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) return 0;
    std::uint32_t identifier = 0;
    for (std::size_t i = 0; i < 4; ++i) identifier |= std::uint32_t{data[i]} << (8 * i);
    std::span rest(data + 4, size - 4);
    // Each component in memory of its own, so that reading past one is seen.
    std::vector<std::vector<std::uint8_t>> owned;
    while (!rest.empty()) {
        const std::size_t length = std::min<std::size_t>(rest[0], rest.size() - 1);
        owned.emplace_back(rest.begin() + 1,
                           rest.begin() + 1 + static_cast<std::ptrdiff_t>(length));
        rest = rest.subspan(1 + length);
    }
    const std::vector<MessageBytes> components(owned.begin(), owned.end());
    checkToolMessage(identifier, components);
    checkAgentMessage(identifier, components);
    return 0;
}
