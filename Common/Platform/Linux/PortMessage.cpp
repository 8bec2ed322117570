#include <new>
#include <utility>

#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/PortImplementation.h"
#include "Common/Platform/Port.h"

namespace utilia::platform {
namespace {

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
    PortSender::Outcome outcome = PortSender::Outcome::TimedOut;
    try {
        outcome = port.sender->send(msgid_, components_, deadline);
    } catch (const std::bad_alloc&) {
        KULogVariadic("Port %@: no memory to send", port.sender->name());
    }
    switch (outcome) {
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
