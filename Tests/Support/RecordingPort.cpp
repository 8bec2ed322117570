#include "Tests/Support/RecordingPort.h"

#include <algorithm>
#include <map>
#include <ostream>

#include "Common/Platform/RunLoop.h"

namespace utilia::test {

using platform::Port;
using platform::PortMessage;
using platform::PortNameServer;

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        platform::RunLoop::currentRunLoop().runFor(std::chrono::milliseconds(2));
    }
    return true;
}

void PrintTo(const RecordedMessage& message, std::ostream* stream) {
    *stream << message.id << " [";
    for (const std::string& component : message.components) {
        *stream << component.size() << ":";
        for (const char c : component.substr(0, 60)) {
            const auto byte = static_cast<unsigned char>(c);
            constexpr const char* kDigits = "0123456789abcdef";
            if (byte >= 0x20 && byte < 0x7f) {
                *stream << c;
            } else {
                *stream << "\\x" << kDigits[byte >> 4] << kDigits[byte & 15];
            }
        }
        *stream << " ";
    }
    *stream << "]";
}

RecordingPort::RecordingPort(std::string_view name) : port_(Port::port()) {
    port_->setDelegate(this);
    isRegistered_ = PortNameServer::systemDefaultPortNameServer().registerPort(port_, name);
    port_->scheduleInRunLoop();
}

RecordingPort::~RecordingPort() {
    port_->setDelegate(nullptr);
    port_->invalidate();
}

bool RecordingPort::waitForMessages(std::size_t count) {
    return platform::RunLoop::currentRunLoop().runUntil([&] { return messages_.size() >= count; },
                                                        std::chrono::seconds(60));
}

std::vector<RecordedMessage> RecordingPort::take(std::size_t count) {
    (void)waitForMessages(count);
    const auto end =
        messages_.begin() + static_cast<std::ptrdiff_t>(std::min(count, messages_.size()));
    std::vector<RecordedMessage> taken(messages_.begin(), end);
    messages_.erase(messages_.begin(), end);
    return taken;
}

bool RecordingPort::send(std::string_view portName, std::uint32_t id,
                         const std::vector<std::string>& components) {
    const auto port = PortNameServer::systemDefaultPortNameServer().portForName(portName);
    if (!port) return false;
    // Kept for the process's life: messages keep their order only within one connection.
    static auto* const kept = new std::map<std::string, std::shared_ptr<Port>, std::less<>>;
    kept->insert_or_assign(std::string(portName), port);
    std::vector<PortMessage::Component> spans;
    for (const std::string& component : components) {
        spans.emplace_back(reinterpret_cast<const std::uint8_t*>(component.data()),
                           component.size());
    }
    PortMessage message(port, std::move(spans));
    message.setMsgid(id);
    message.sendBeforeDate(std::chrono::steady_clock::now() + std::chrono::seconds(60));
    return true;
}

void RecordingPort::handlePortMessage(const PortMessage& message) {
    RecordedMessage recorded{message.msgid(), {}};
    for (const auto& component : message.components())
        recorded.components.emplace_back(reinterpret_cast<const char*>(component.data()),
                                         component.size());
    messages_.push_back(std::move(recorded));
}

}  // namespace utilia::test
