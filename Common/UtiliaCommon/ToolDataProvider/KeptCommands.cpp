#include <utility>
#include <vector>

#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/ToolDataProvider/KeptCommandsInternal.h"

// A port tells nobody when there is room again, and a tool without room is rare and soon over: either it reads again, or
// the commands run out of time. So they are tried again by a timer, which exists only while there are any.

namespace utilia {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPause{50};
// Clicks of a person never come to this; a program that sends more than a tool reads is told so.
constexpr std::size_t kMostCommands = 1000;

}  // namespace

void sendAgentMessage(const std::shared_ptr<platform::Port>& port, AgentMessage message,
                      std::optional<platform::PortMessage::Component> params,
                      steady_clock::time_point deadline) {
    std::vector<platform::PortMessage::Component> components;
    if (params) components.push_back(*params);
    platform::PortMessage packet(port, std::move(components));
    packet.setMsgid(static_cast<std::uint32_t>(message));
    packet.sendBeforeDate(deadline);
}

void KeptCommands::send(const std::shared_ptr<platform::Port>& port, AgentMessage message,
                        std::optional<platform::PortMessage::Component> params) {
    const auto now = steady_clock::now();
    if (commands_.empty()) {
        try {
            return sendAgentMessage(port, message, params, now);
        } catch (const platform::PortException& exception) {
            if (exception.name() != platform::NSPortTimeoutException) throw;
        }
    }
    if (commands_.size() >= kMostCommands)
        throw platform::PortException(platform::NSPortTimeoutException,
                                      platform::kPortTimeoutReason);
    commands_.push_back({port, message, std::nullopt, now + sendTimeout(message)});
    if (params) commands_.back().params = Data(params->begin(), params->end());
    if (!timer_) timer_ = platform::Timer::scheduledTimer(kPause, true, [this] { tryAgain(); });
}

void KeptCommands::tryAgain() {
    const auto kept = shared_from_this();
    while (!commands_.empty()) {
        const Command& first = commands_.front();
        const AgentMessage message = first.message;
        std::optional<platform::PortException> failure;
        try {
            std::optional<platform::PortMessage::Component> params;
            if (first.params) params = *first.params;
            sendAgentMessage(first.port, message, params, steady_clock::now());
        } catch (const platform::PortException& exception) {
            const bool isFull = exception.name() == platform::NSPortTimeoutException;
            if (isFull && steady_clock::now() < first.deadline) return;
            failure = exception;
        }
        commands_.pop_front();
        over_(message, failure ? &*failure : nullptr);
    }
    timer_.reset();
}

}  // namespace utilia
