#include "Tests/Unit/Ports/PortTestSupport.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include <unistd.h>

#include "Common/Platform/RunLoop.h"

namespace utilia::test {

using platform::PortMessage;

std::string textOf(PortMessage::Component component) {
    return {reinterpret_cast<const char*>(component.data()), component.size()};
}

PortMessage::Component bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

void RecordingDelegate::handlePortMessage(const PortMessage& message) {
    Received received{message.msgid(), {}};
    for (const auto component : message.components())
        received.components.push_back(textOf(component));
    messages.push_back(std::move(received));
}

bool runUntil(const std::function<bool()>& condition) {
    return platform::RunLoop::currentRunLoop().runUntil(condition, std::chrono::seconds(20));
}

void sendText(const std::shared_ptr<platform::Port>& port, std::uint32_t msgid,
              std::string_view text) {
    PortMessage message(port, {bytesOf(text)});
    message.setMsgid(msgid);
    message.sendBeforeDate(std::chrono::steady_clock::now() + std::chrono::seconds(10));
}

std::size_t openDescriptorCount() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count - 1;  // the listing's own
}

std::size_t residentBytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t size = 0;
    std::size_t resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace utilia::test
