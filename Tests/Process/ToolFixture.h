#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"
#include "Tests/Process/SampleImage.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia::test {

// The texts of the format, written out here once more: bytes on the wire, not the code's idea of
// them.
inline std::string statusBytes(std::uint8_t status) {
    return std::string(1, static_cast<char>(status)) + std::string(7, '\0');
}
inline std::string flagByte(bool flag) { return std::string(1, flag ? '\1' : '\0'); }

// A real tool whose agent is the test.
class ToolTest : public testing::Test {
protected:
    static constexpr std::string_view kAgentPort = "7QK2M9ZD4R.com.korvane.utilia.agent.port";

    ScriptedChild startTool(std::vector<std::string> arguments = {}) {
        return ScriptedChild(bundle_.role("tool", std::move(arguments)));
    }

    std::string toolPortOf(const TestBundle& bundle) const {
        return toolPortName(canonicalToolPath(bundle.path(), bundle.options().canonicalName));
    }
    void sendToTool(std::uint32_t id, const std::vector<std::string>& components = {}) const {
        ASSERT_TRUE(RecordingPort::send(toolPortOf(bundle_), id, components));
    }

    RecordedMessage status(std::uint8_t value) const {
        return {100, {bundle_.path(), statusBytes(value)}};
    }
    RecordedMessage noToolIcon() const { return {101, {bundle_.path()}}; }
    RecordedMessage toolIcon(std::uint32_t side, std::uint8_t seed) const {
        return {101, {bundle_.path(), sampleTiff(side, seed)}};
    }
    RecordedMessage menuIcon(std::uint32_t side, std::uint8_t seed, bool isTemplate) const {
        return {102, {bundle_.path(), sampleTiff(side, seed), flagByte(isTemplate)}};
    }
    RecordedMessage menuText(const std::string& text) const {
        return {108, {bundle_.path(), text}};
    }
    RecordedMessage updateResources() const { return {109, {bundle_.path()}}; }

    // Everything the tool has sent up to now: it sends one more message, and whatever comes before
    // that one is the answer.
    static std::vector<RecordedMessage> sentSoFar(ScriptedChild& tool, RecordingPort& agent) {
        tool.ask("update-resources");
        std::vector<RecordedMessage> sent;
        for (;;) {
            auto next = agent.take(1);
            if (next.empty()) {
                ADD_FAILURE() << "the tool's last message did not arrive";
                return sent;
            }
            if (next.front().id == 109) return sent;
            sent.push_back(std::move(next.front()));
        }
    }

    TemporaryHome home_;
    TestBundle bundle_{home_};
};

using Messages = std::vector<RecordedMessage>;

}  // namespace utilia::test
