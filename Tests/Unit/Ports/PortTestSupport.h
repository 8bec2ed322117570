#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Platform/Port.h"

namespace utilia::test {

// A message as a handler saw it.
struct Received {
    std::uint32_t msgid = 0;
    std::vector<std::string> components;
    friend bool operator==(const Received&, const Received&) = default;
};

std::string textOf(platform::PortMessage::Component component);
// Refers to the text.
platform::PortMessage::Component bytesOf(std::string_view text);

class RecordingDelegate final : public platform::PortDelegate {
public:
    void handlePortMessage(const platform::PortMessage& message) override;
    std::vector<Received> messages;
};

// Runs the current loop until the condition holds, at most 20 s.
bool runUntil(const std::function<bool()>& condition);

// One component; waits at most 10 s.
void sendText(const std::shared_ptr<platform::Port>& port, std::uint32_t msgid,
              std::string_view text);

// Of this process.
std::size_t openDescriptorCount();
std::size_t residentBytes();

}  // namespace utilia::test
