#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"
#include "Tests/Support/Places.h"

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace utilia {
namespace {

using std::chrono::milliseconds;

using Bytes = std::vector<std::uint8_t>;

Bytes bytes(std::string_view text) { return {text.begin(), text.end()}; }
Bytes bytes(MessageBytes component) { return {component.begin(), component.end()}; }

// Components that own their bytes, as a receiver holds them during a call.
class Components final {
public:
    Components(std::initializer_list<Bytes> components) : owned_(components) {
        for (const Bytes& component : owned_) spans_.emplace_back(component);
    }
    std::span<const MessageBytes> spans() const { return spans_; }

private:
    std::vector<Bytes> owned_;
    std::vector<MessageBytes> spans_;
};

const Bytes kIdentity = bytes(std::string_view("/Applications/Sample Tool.app"));
const Bytes kStatus{2, 0, 0, 0, 0, 0, 0, 0};

TEST(PortNames, AreTheAgreedOnes) {
    EXPECT_EQ(kAgentBundleIdentifier, "com.korvane.utilia");
    EXPECT_EQ(kAgentPortName, "7QK2M9ZD4R.com.korvane.utilia.agent.port");
    EXPECT_EQ(toolPortName("/Applications/Sample Tool.app"),
              "7QK2M9ZD4R.com.korvane.utilia.tool.58f7ceb296f135f1");
}

TEST(PortNames, FollowTheDocumentedExample) {
    EXPECT_EQ(toolPortName(canonicalToolPath("/Applications/Clock.app", std::nullopt)),
              "7QK2M9ZD4R.com.korvane.utilia.tool.ba0032d77b13b5b7");
}

TEST(PortNames, HashIsLowerCaseHexadecimalWithoutLeadingZeros) {
    EXPECT_EQ(toolPortName(canonicalToolPath("/Sample Tool.app", "Other")),
              "7QK2M9ZD4R.com.korvane.utilia.tool.7e2ade54ab547aa");
    EXPECT_EQ(toolPortName(""), "7QK2M9ZD4R.com.korvane.utilia.tool.0");
}

TEST(PortNames, FollowEveryVectorOfPathAndHash) {
    std::ifstream file(std::string(test::places::kTestData) + "/path-hash.json");
    const auto document = nlohmann::json::parse(file);
    ASSERT_FALSE(document["vectors"].empty());
    for (const auto& vector : document["vectors"]) {
        SCOPED_TRACE(vector["id"].get<std::string>());
        const auto& input = vector["input"];
        std::optional<std::string> canonicalName;
        if (!input["canonical_name"].is_null())
            canonicalName = input["canonical_name"].get<std::string>();
        const std::string path =
            canonicalToolPath(input["bundle_path"].get<std::string>(), canonicalName);
        EXPECT_EQ(path, vector["expected"]["path"].get<std::string>());
        EXPECT_EQ(toolPortName(path), "7QK2M9ZD4R.com.korvane.utilia.tool." +
                                          vector["expected"]["hash_hex"].get<std::string>());
    }
}

TEST(PortNames, CopiesOfOneToolInOneFolderShareTheCanonicalName) {
    const auto name = [](std::string_view path) {
        return toolPortName(canonicalToolPath(path, "Timer"));
    };
    EXPECT_EQ(name("/Applications/Timer.app"), name("/Applications/Timer copy.app"));
    EXPECT_NE(name("/Applications/Timer.app"), name("/Users/jane/Timer.app"));
}

TEST(PortNames, PrecomposedAndDecomposedPathsAreDifferentTools) {
    EXPECT_NE(toolPortName("/Applications/Caf\u00e9.app"),
              toolPortName("/Applications/Cafe\u0301.app"));
}

TEST(MessageIdentifiers, AreTheAgreedOnes) {
    EXPECT_EQ(static_cast<std::uint32_t>(ToolMessage::Status), 100u);
    EXPECT_EQ(static_cast<std::uint32_t>(ToolMessage::ToolIcon), 101u);
    EXPECT_EQ(static_cast<std::uint32_t>(ToolMessage::MenuIcon), 102u);
    EXPECT_EQ(static_cast<std::uint32_t>(ToolMessage::MenuText), 108u);
    EXPECT_EQ(static_cast<std::uint32_t>(ToolMessage::UpdateResources), 109u);
    EXPECT_EQ(static_cast<std::uint32_t>(AgentMessage::StatusRequest), 100u);
    EXPECT_EQ(static_cast<std::uint32_t>(AgentMessage::ToolIconNeeded), 101u);
    EXPECT_EQ(static_cast<std::uint32_t>(AgentMessage::MenuIconNeeded), 102u);
    EXPECT_EQ(static_cast<std::uint32_t>(AgentMessage::DateScheduleFired), 103u);
    EXPECT_EQ(static_cast<std::uint32_t>(AgentMessage::TurnToolOff), 105u);
    EXPECT_EQ(static_cast<std::uint32_t>(AgentMessage::MenuIconClicked), 107u);
}

TEST(MessageTimeouts, AreTheAgreedOnes) {
    EXPECT_EQ(sendTimeout(ToolMessage::Status), milliseconds(30'000));
    EXPECT_EQ(sendTimeout(ToolMessage::ToolIcon), milliseconds(500));
    EXPECT_EQ(sendTimeout(ToolMessage::MenuIcon), milliseconds(500));
    EXPECT_EQ(sendTimeout(ToolMessage::MenuText), milliseconds(500));
    EXPECT_EQ(sendTimeout(ToolMessage::UpdateResources), milliseconds(100));
    for (const AgentMessage message :
         {AgentMessage::StatusRequest, AgentMessage::ToolIconNeeded, AgentMessage::MenuIconNeeded,
          AgentMessage::DateScheduleFired, AgentMessage::TurnToolOff,
          AgentMessage::MenuIconClicked})
        EXPECT_EQ(sendTimeout(message), milliseconds(10'000));
}

TEST(ToolStatus, ValuesAreTheAgreedOnes) {
    EXPECT_EQ(kToolStatusInactive, 0u);
    EXPECT_EQ(kToolStatusActive, 1u);
    EXPECT_EQ(kToolStatusPermanent, 2u);
}

TEST(MessageEncoding, StatusIsEightBytesLittleEndian) {
    EXPECT_EQ(bytes(encodeStatus(0)), (Bytes{0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes(encodeStatus(2)), (Bytes{2, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes(encodeStatus(0x0807060504030201)), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(bytes(encodeStatus(~std::uint64_t{0})),
              (Bytes{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}));
}

TEST(MessageEncoding, StatusSurvivesTheWayThereAndBack) {
    for (const std::uint64_t status : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{2},
                                       std::uint64_t{0xfedcba9876543210}, ~std::uint64_t{0}}) {
        const auto encoded = encodeStatus(status);
        EXPECT_EQ(decodeStatus(encoded), status);
    }
}

TEST(MessageEncoding, FlagIsOneByte) {
    EXPECT_EQ(bytes(encodeFlag(false)), Bytes{0});
    EXPECT_EQ(bytes(encodeFlag(true)), Bytes{1});
}

TEST(MessageEncoding, TextIsItsUtf8WithoutTerminator) {
    EXPECT_EQ(bytes(encodeText("")), Bytes{});
    EXPECT_EQ(bytes(encodeText("\u00e9!")), (Bytes{0xc3, 0xa9, 0x21}));
    EXPECT_EQ(bytes(encodeText(std::string_view("a\0b", 3))), (Bytes{'a', 0, 'b'}));
}

TEST(MessageDecoding, EveryFlagByteButZeroIsYes) {
    for (int value = 0; value < 256; ++value) {
        const Bytes component{static_cast<std::uint8_t>(value)};
        EXPECT_EQ(decodeFlag(component), value != 0) << value;
    }
}

TEST(MessageDecoding, RefusesFlagsOfAnyOtherSize) {
    EXPECT_EQ(decodeFlag(Bytes{}), std::nullopt);
    EXPECT_EQ(decodeFlag(Bytes{1, 0}), std::nullopt);
}

TEST(MessageDecoding, RefusesStatusOfAnyOtherSize) {
    for (std::size_t size = 0; size < 20; ++size) {
        if (size == 8) continue;
        EXPECT_EQ(decodeStatus(Bytes(size, 0)), std::nullopt) << size;
    }
}

TEST(MessageDecoding, RefusesTextThatIsNotUtf8) {
    EXPECT_EQ(decodeText(Bytes{0xff}), std::nullopt);
    EXPECT_EQ(decodeText(Bytes{'a', 0xc3}), std::nullopt);         // cut
    EXPECT_EQ(decodeText(Bytes{0xc0, 0x80}), std::nullopt);        // overlong
    EXPECT_EQ(decodeText(Bytes{0xed, 0xa0, 0x80}), std::nullopt);  // surrogate
    EXPECT_EQ(decodeText(Bytes{}), "");
    EXPECT_EQ(decodeText(Bytes{0xe6, 0x97, 0xa5}), "\u65e5");
}

TEST(ToolMessageDecoding, ReadsTheStatus) {
    const Components components{kIdentity, kStatus};
    const auto decoded = decodeToolMessage(100, components.spans());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->toolPath, "/Applications/Sample Tool.app");
    EXPECT_EQ(std::get<StatusReport>(decoded->body).status, 2u);
}

TEST(ToolMessageDecoding, ReadsTheToolIcon) {
    const Components components{kIdentity, Bytes{1, 2, 3}};
    const auto decoded = decodeToolMessage(101, components.spans());
    ASSERT_TRUE(decoded);
    const auto& report = std::get<ToolIconReport>(decoded->body);
    ASSERT_TRUE(report.image);
    EXPECT_EQ(bytes(*report.image), (Bytes{1, 2, 3}));
}

TEST(ToolMessageDecoding, ToolIconWithoutImageSaysThereIsNone) {
    const Components components{kIdentity};
    const auto decoded = decodeToolMessage(101, components.spans());
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(std::get<ToolIconReport>(decoded->body).image);
}

TEST(ToolMessageDecoding, ReadsTheMenuIconWithItsTemplateFlag) {
    for (const std::uint8_t flag : {std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{0xff}}) {
        const Components components{kIdentity, Bytes{9}, Bytes{flag}};
        const auto decoded = decodeToolMessage(102, components.spans());
        ASSERT_TRUE(decoded);
        const auto& report = std::get<MenuIconReport>(decoded->body);
        EXPECT_EQ(bytes(report.image), Bytes{9});
        EXPECT_EQ(report.isTemplate, flag != 0);
    }
}

TEST(ToolMessageDecoding, MenuIconWithoutFlagHasNone) {
    const Components components{kIdentity, Bytes{9}};
    const auto decoded = decodeToolMessage(102, components.spans());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(std::get<MenuIconReport>(decoded->body).isTemplate, std::nullopt);
}

TEST(ToolMessageDecoding, ReadsTheMenuText) {
    const Components components{kIdentity, bytes(std::string_view("12:30 \u2013 tea"))};
    const auto decoded = decodeToolMessage(108, components.spans());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(std::get<MenuTextReport>(decoded->body).text, "12:30 \u2013 tea");
}

TEST(ToolMessageDecoding, EmptyMenuTextIsNotTheSameAsNone) {
    const Components empty{kIdentity, Bytes{}};
    const auto decodedEmpty = decodeToolMessage(108, empty.spans());
    ASSERT_TRUE(decodedEmpty);
    EXPECT_EQ(std::get<MenuTextReport>(decodedEmpty->body).text, "");
    const Components none{kIdentity};
    const auto decodedNone = decodeToolMessage(108, none.spans());
    ASSERT_TRUE(decodedNone);
    EXPECT_EQ(std::get<MenuTextReport>(decodedNone->body).text, std::nullopt);
}

TEST(ToolMessageDecoding, ReadsTheRequestToUpdateResources) {
    const Components components{kIdentity};
    const auto decoded = decodeToolMessage(109, components.spans());
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(std::holds_alternative<UpdateResourcesRequest>(decoded->body));
}

TEST(ToolMessageDecoding, IgnoresIdentifiersOutsideTheSet) {
    const Components components{kIdentity, kStatus};
    for (const std::uint32_t identifier :
         {0u, 1u, 99u, 103u, 104u, 105u, 106u, 107u, 110u, 356u, 0x80000064u, 0xffffffffu}) {
        const auto decoded = decodeToolMessage(identifier, components.spans());
        ASSERT_TRUE(decoded) << identifier;
        EXPECT_TRUE(std::holds_alternative<UnknownMessage>(decoded->body)) << identifier;
    }
}

TEST(ToolMessageDecoding, IgnoresComponentsPastTheLayout) {
    const Components components{kIdentity, kStatus, Bytes{0xff}, Bytes{}};
    EXPECT_TRUE(decodeToolMessage(100, components.spans()));
}

TEST(ToolMessageDecoding, RefusesEveryMessageWithoutIdentity) {
    for (const std::uint32_t identifier : {100u, 101u, 102u, 108u, 109u, 106u}) {
        const auto decoded = decodeToolMessage(identifier, {});
        ASSERT_FALSE(decoded) << identifier;
        EXPECT_TRUE(decoded.error().is(UtiliaErrorCode::Refused));
        EXPECT_EQ(decoded.error().description,
                  "message " + std::to_string(identifier) + ": the tool's path is missing");
    }
}

TEST(ToolMessageDecoding, SaysWhatIsWrong) {
    struct Case {
        std::uint32_t identifier;
        Components components;
        std::string_view description;
    };
    const Case cases[] = {
        {100, {Bytes{0xff}, kStatus}, "message 100: the tool's path is not UTF-8"},
        {109, {Bytes{0xc3}}, "message 109: the tool's path is not UTF-8"},
        {100, {kIdentity}, "message 100: the status is missing"},
        {100, {kIdentity, Bytes{}}, "message 100: the status is not 8 bytes"},
        {100, {kIdentity, Bytes(4, 1)}, "message 100: the status is not 8 bytes"},
        {100, {kIdentity, Bytes(9, 1)}, "message 100: the status is not 8 bytes"},
        {102, {kIdentity}, "message 102: the image is missing"},
        {102, {kIdentity, Bytes{1}, Bytes{}}, "message 102: the template flag is not 1 byte"},
        {102, {kIdentity, Bytes{1}, Bytes{1, 1}}, "message 102: the template flag is not 1 byte"},
        {108, {kIdentity, Bytes{0xff, 0xfe}}, "message 108: the text is not UTF-8"},
    };
    for (const Case& refused : cases) {
        SCOPED_TRACE(refused.description);
        const auto decoded = decodeToolMessage(refused.identifier, refused.components.spans());
        ASSERT_FALSE(decoded);
        EXPECT_TRUE(decoded.error().is(UtiliaErrorCode::Refused));
        EXPECT_EQ(decoded.error().description, refused.description);
    }
}

TEST(AgentMessageDecoding, ReadsTheCommandsWithoutParameters) {
    for (const std::uint32_t identifier : {100u, 103u, 105u, 107u}) {
        const auto decoded = decodeAgentMessage(identifier, {});
        ASSERT_TRUE(decoded);
        ASSERT_TRUE(decoded->message);
        EXPECT_EQ(static_cast<std::uint32_t>(*decoded->message), identifier);
        EXPECT_EQ(decoded->flag, std::nullopt);
    }
}

TEST(AgentMessageDecoding, CommandsIgnoreWhatTheyCarry) {
    const Components components{Bytes(5, 0xff), Bytes{}};
    for (const std::uint32_t identifier : {100u, 103u, 105u, 107u})
        EXPECT_TRUE(decodeAgentMessage(identifier, components.spans())) << identifier;
}

TEST(AgentMessageDecoding, ReadsTheWishes) {
    for (const std::uint32_t identifier : {101u, 102u}) {
        for (const std::uint8_t flag : {std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{0x80}}) {
            const Components components{Bytes{flag}};
            const auto decoded = decodeAgentMessage(identifier, components.spans());
            ASSERT_TRUE(decoded);
            EXPECT_EQ(static_cast<std::uint32_t>(decoded->message.value()), identifier);
            EXPECT_EQ(decoded->flag, flag != 0);
        }
    }
}

TEST(AgentMessageDecoding, WishWithoutFlagLeavesItOpen) {
    for (const std::uint32_t identifier : {101u, 102u}) {
        const auto decoded = decodeAgentMessage(identifier, {});
        ASSERT_TRUE(decoded);
        EXPECT_TRUE(decoded->message);
        EXPECT_EQ(decoded->flag, std::nullopt);
    }
}

TEST(AgentMessageDecoding, RefusesWishesOfTheWrongSize) {
    for (const std::uint32_t identifier : {101u, 102u}) {
        for (const std::size_t size : {std::size_t{0}, std::size_t{2}, std::size_t{8}}) {
            const Components components{Bytes(size, 1)};
            const auto decoded = decodeAgentMessage(identifier, components.spans());
            ASSERT_FALSE(decoded);
            EXPECT_TRUE(decoded.error().is(UtiliaErrorCode::Refused));
            EXPECT_EQ(decoded.error().description,
                      "message " + std::to_string(identifier) + ": the flag is not 1 byte");
        }
    }
}

TEST(AgentMessageDecoding, IgnoresIdentifiersOutsideTheSet) {
    for (const std::uint32_t identifier : {0u, 99u, 104u, 106u, 108u, 109u, 110u, 0xffffffffu}) {
        const auto decoded = decodeAgentMessage(identifier, {});
        ASSERT_TRUE(decoded) << identifier;
        EXPECT_EQ(decoded->message, std::nullopt) << identifier;
    }
}

}  // namespace
}  // namespace utilia
