#include <utility>

#include "Common/Platform/Linux/PortImplementation.h"
#include "Common/Platform/Port.h"

namespace utilia::platform {
namespace {

constexpr std::string_view kInvalidArgumentReason = "[NSPort sendBeforeDate:] message too large";

bool isWithinLimits(const std::vector<PortMessage::Component>& components) {
    if (components.size() > kPortMessageMaximumComponents) return false;
    std::size_t room = kPortMessageMaximumSize;
    for (const auto& component : components) {
        if (component.size() > room) return false;
        room -= component.size();
    }
    return true;
}

}  // namespace

PortException::PortException(std::string_view name, std::string_view reason)
    : name_(name), reason_(reason) {}

PortMessage::PortMessage(std::shared_ptr<Port> sendPort, std::vector<Component> components)
    : sendPort_(std::move(sendPort)), components_(std::move(components)) {}

PortMessage::PortMessage(std::uint32_t msgid, std::vector<Component> components)
    : msgid_(msgid), components_(std::move(components)) {}

std::optional<PortMessage::Component> PortMessage::component(std::size_t index) const {
    if (index >= components_.size()) return std::nullopt;
    return components_[index];
}

void PortMessage::sendBeforeDate(std::chrono::steady_clock::time_point deadline) const {
    if (!isWithinLimits(components_))
        throw PortException(NSInvalidArgumentException, kInvalidArgumentReason);
    if (!sendPort_ || !sendPort_->isValid() || !sendPort_->implementation().sender) {
        throw PortException(NSInvalidSendPortException, kInvalidSendPortReason);
    }
    Port::Implementation& port = sendPort_->implementation();
    switch (port.sender->send(msgid_, components_, deadline)) {
    case PortSender::Outcome::Sent:
        return;
    case PortSender::Outcome::TimedOut:
        throw PortException(NSPortTimeoutException, kPortTimeoutReason);
    case PortSender::Outcome::Dead:
        port.noticeDeath(*sendPort_);
        throw PortException(NSInvalidSendPortException, kInvalidSendPortReason);
    }
}

}  // namespace utilia::platform
