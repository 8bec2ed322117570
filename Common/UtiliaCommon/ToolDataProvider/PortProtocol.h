#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"

// The one-way messages between the agent and its tools: names, identifiers and layouts, as pure
// functions.
//
// A tool is known by the UTF-8 bytes of its bundle's path; its port is named by the hash of its
// canonical path. Documentation/Formats/ToolMessages.md shows each message in bytes.
//
// Threads: any.

namespace utilia {

inline constexpr std::string_view kAgentBundleIdentifier = "com.korvane.utilia";
inline constexpr std::string_view kAgentPortName = "7QK2M9ZD4R.com.korvane.utilia.agent.port";
inline constexpr std::string_view kToolPortNamePrefix = "7QK2M9ZD4R.com.korvane.utilia.tool.";

// What a tool is to the agent. Contract: never renumber; other values travel unchanged.
inline constexpr std::uint64_t kToolStatusInactive = 0;
inline constexpr std::uint64_t kToolStatusActive =
    1;  // kept only while the tool's port can be reached
inline constexpr std::uint64_t kToolStatusPermanent =
    2;  // shown also while the tool is not running

// From a tool to the agent; component 0 is the tool's path. Contract: never renumber.
enum class ToolMessage : std::uint32_t {
    Status = 100,           // status
    ToolIcon = 101,         // image; left out by a tool without icon
    MenuIcon = 102,         // image, flag: it is a template
    MenuText = 108,         // text
    UpdateResources = 109,  // nothing
};

// From the agent to a tool; no identity. Contract: never renumber, and leave 106
// free on both sides.
enum class AgentMessage : std::uint32_t {
    StatusRequest = 100,      // nothing
    ToolIconNeeded = 101,     // flag
    MenuIconNeeded = 102,     // flag; the wish for the menu text goes with it
    DateScheduleFired = 103,  // nothing
    TurnToolOff = 105,        // nothing
    MenuIconClicked = 107,    // nothing
};

// How long a sender waits at most.
UTILIA_EXPORT std::chrono::milliseconds sendTimeout(ToolMessage message);
UTILIA_EXPORT std::chrono::milliseconds sendTimeout(AgentMessage message);

// The path that names a tool's port: the bundle's path, its file name replaced by the canonical
// name where there is one. A renamed bundle or a copy beside it so keeps the port name.
UTILIA_EXPORT std::string canonicalToolPath(std::string_view bundlePath,
                                            const std::optional<std::string>& canonicalName);
// The name of the port of the tool with this canonical path.
UTILIA_EXPORT std::string toolPortName(std::string_view canonicalPath);

using MessageBytes = std::span<const std::uint8_t>;

// The bytes of text, without a terminator.
UTILIA_EXPORT MessageBytes encodeText(std::string_view text);
// 8 bytes, little-endian.
UTILIA_EXPORT std::array<std::uint8_t, 8> encodeStatus(std::uint64_t status);
// 1 byte.
UTILIA_EXPORT std::array<std::uint8_t, 1> encodeFlag(bool flag);
// Empty when the component has not the form of its kind: UTF-8, 8 bytes, 1 byte (every value but 0
// is yes).
UTILIA_EXPORT std::optional<std::string_view> decodeText(MessageBytes component);
UTILIA_EXPORT std::optional<std::uint64_t> decodeStatus(MessageBytes component);
UTILIA_EXPORT std::optional<bool> decodeFlag(MessageBytes component);

// A message from a tool, checked. What it refers to lies in the components it was decoded from.
struct StatusReport {
    std::uint64_t status = 0;
};
struct ToolIconReport {
    std::optional<MessageBytes> image;  // empty: the tool has no icon
};
struct MenuIconReport {
    MessageBytes image;
    std::optional<bool> isTemplate;
};
struct MenuTextReport {
    std::optional<std::string_view> text;  // empty: the text stays as it is
};
struct UpdateResourcesRequest {};
struct UnknownMessage {};  // an identifier outside the handled set: ignored

struct DecodedToolMessage {
    std::string_view toolPath;
    std::variant<StatusReport, ToolIconReport, MenuIconReport, MenuTextReport,
                 UpdateResourcesRequest, UnknownMessage>
        body;
};

// Fails with UtiliaErrorCode::Refused, saying what is wrong, when a component is missing or has the
// wrong form. Components past those of the layout are ignored.
UTILIA_EXPORT Result<DecodedToolMessage>
decodeToolMessage(std::uint32_t identifier, std::span<const MessageBytes> components);

// A message from the agent, checked.
struct DecodedAgentMessage {
    std::optional<AgentMessage> message;  // empty: an identifier outside the handled set, ignored
    std::optional<bool> flag;             // of the two wishes; empty when the message carries none
};

// Fails as decodeToolMessage() does.
UTILIA_EXPORT Result<DecodedAgentMessage>
decodeAgentMessage(std::uint32_t identifier, std::span<const MessageBytes> components);

}  // namespace utilia
