#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

#include "Common/Foundation/PathFunctions.h"
#include "Common/Foundation/StringHash.h"
#include "Common/Foundation/Unicode.h"

namespace utilia {
namespace {

using std::chrono::milliseconds;

Error malformed(std::uint32_t identifier, std::string_view what) {
    return Error::utilia(UtiliaErrorCode::Refused,
                         "message " + std::to_string(identifier) + ": " + std::string(what));
}

Result<DecodedToolMessage> decodeMenuIcon(std::uint32_t identifier, std::string_view toolPath,
                                          std::span<const MessageBytes> components) {
    if (components.size() < 2) return malformed(identifier, "the image is missing");
    MenuIconReport report{components[1], std::nullopt};
    if (components.size() >= 3) {
        report.isTemplate = decodeFlag(components[2]);
        if (!report.isTemplate) return malformed(identifier, "the template flag is not 1 byte");
    }
    return DecodedToolMessage{toolPath, report};
}

Result<DecodedToolMessage> decodeMenuText(std::uint32_t identifier, std::string_view toolPath,
                                          std::span<const MessageBytes> components) {
    MenuTextReport report;
    if (components.size() >= 2) {
        report.text = decodeText(components[1]);
        if (!report.text) return malformed(identifier, "the text is not UTF-8");
    }
    return DecodedToolMessage{toolPath, report};
}

}  // namespace

milliseconds sendTimeout(ToolMessage message) {
    switch (message) {
    case ToolMessage::Status:
        return milliseconds(30'000);
    case ToolMessage::ToolIcon:
    case ToolMessage::MenuIcon:
    case ToolMessage::MenuText:
        return milliseconds(500);
    case ToolMessage::UpdateResources:
        return milliseconds(100);
    }
    return milliseconds(500);
}

milliseconds sendTimeout(AgentMessage) { return milliseconds(10'000); }

std::string canonicalToolPath(std::string_view bundlePath,
                              const std::optional<std::string>& canonicalName) {
    if (!canonicalName) return std::string(bundlePath);
    const std::string renamed = stringByAppendingPathComponent(
        stringByDeletingLastPathComponent(bundlePath), *canonicalName);
    // An empty result of the append (nil) cannot come from a bundle's path; the plain path is then
    // the name.
    return stringByAppendingPathExtension(renamed, "app").value_or(renamed);
}

std::string toolPortName(std::string_view canonicalPath) {
    return std::string(kToolPortNamePrefix) + hexadecimal(stringHash(canonicalPath));
}

MessageBytes encodeText(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::array<std::uint8_t, 8> encodeStatus(std::uint64_t status) {
    std::array<std::uint8_t, 8> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(status >> (8 * i));
    return bytes;
}

std::array<std::uint8_t, 1> encodeFlag(bool flag) {
    return {static_cast<std::uint8_t>(flag ? 1 : 0)};
}

std::optional<std::string_view> decodeText(MessageBytes component) {
    const std::string_view text(reinterpret_cast<const char*>(component.data()), component.size());
    if (!isValidUtf8(text)) return std::nullopt;
    return text;
}

std::optional<std::uint64_t> decodeStatus(MessageBytes component) {
    if (component.size() != 8) return std::nullopt;
    std::uint64_t status = 0;
    for (std::size_t i = 0; i < 8; ++i)
        status |= static_cast<std::uint64_t>(component[i]) << (8 * i);
    return status;
}

std::optional<bool> decodeFlag(MessageBytes component) {
    if (component.size() != 1) return std::nullopt;
    return component[0] != 0;
}

Result<DecodedToolMessage> decodeToolMessage(std::uint32_t identifier,
                                             std::span<const MessageBytes> components) {
    if (components.empty()) return malformed(identifier, "the tool's path is missing");
    const auto toolPath = decodeText(components[0]);
    if (!toolPath) return malformed(identifier, "the tool's path is not UTF-8");
    switch (static_cast<ToolMessage>(identifier)) {
    case ToolMessage::Status: {
        if (components.size() < 2) return malformed(identifier, "the status is missing");
        const auto status = decodeStatus(components[1]);
        if (!status) return malformed(identifier, "the status is not 8 bytes");
        return DecodedToolMessage{*toolPath, StatusReport{*status}};
    }
    case ToolMessage::ToolIcon: {
        ToolIconReport report;
        if (components.size() >= 2) report.image = components[1];
        return DecodedToolMessage{*toolPath, report};
    }
    case ToolMessage::MenuIcon:
        return decodeMenuIcon(identifier, *toolPath, components);
    case ToolMessage::MenuText:
        return decodeMenuText(identifier, *toolPath, components);
    case ToolMessage::UpdateResources:
        return DecodedToolMessage{*toolPath, UpdateResourcesRequest{}};
    }
    return DecodedToolMessage{*toolPath, UnknownMessage{}};
}

Result<DecodedAgentMessage> decodeAgentMessage(std::uint32_t identifier,
                                               std::span<const MessageBytes> components) {
    const auto message = static_cast<AgentMessage>(identifier);
    switch (message) {
    case AgentMessage::StatusRequest:
    case AgentMessage::DateScheduleFired:
    case AgentMessage::TurnToolOff:
    case AgentMessage::MenuIconClicked:
        return DecodedAgentMessage{message, std::nullopt};
    case AgentMessage::ToolIconNeeded:
    case AgentMessage::MenuIconNeeded: {
        if (components.empty()) return DecodedAgentMessage{message, std::nullopt};
        const auto flag = decodeFlag(components[0]);
        if (!flag) return malformed(identifier, "the flag is not 1 byte");
        return DecodedAgentMessage{message, flag};
    }
    }
    return DecodedAgentMessage{};
}

}  // namespace utilia
