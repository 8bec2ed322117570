#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Platform/Port.h"

namespace utilia::test {

// Serves this thread's run loop until the condition, which is asked again and again, holds; false
// after 60 s. For what no message or line tells of.
[[nodiscard]] bool eventually(const std::function<bool()>& condition);

// A message as it arrived, byte for byte.
struct RecordedMessage {
    std::uint32_t id = 0;
    std::vector<std::string> components;

    friend bool operator==(const RecordedMessage&, const RecordedMessage&) = default;
};

// For the failure texts of tests: the identifier, and the components as sizes and first bytes.
void PrintTo(const RecordedMessage& message, std::ostream* stream);

// One end of the channel played by a test: holds a name, and records what arrives. Messages are
// taken in only while the test's run loop is served, that is inside the wait functions.
class RecordingPort final : private platform::PortDelegate {
public:
    explicit RecordingPort(std::string_view name);
    ~RecordingPort() override;
    RecordingPort(const RecordingPort&) = delete;
    RecordingPort& operator=(const RecordingPort&) = delete;

    bool isRegistered() const { return isRegistered_; }
    const std::vector<RecordedMessage>& messages() const { return messages_; }
    void clear() { messages_.clear(); }

    // Serves the run loop until this many messages are there; false after 60 s.
    [[nodiscard]] bool waitForMessages(std::size_t count);
    // Takes what arrived out of the record: exactly the next `count` messages, fewer after 60 s.
    std::vector<RecordedMessage> take(std::size_t count);

    // Sends any message to the port of a name; false when nobody holds the name. What one thread
    // sends to a name arrives in order.
    [[nodiscard]] static bool send(std::string_view portName, std::uint32_t id,
                                   const std::vector<std::string>& components);

private:
    void handlePortMessage(const platform::PortMessage& message) override;

    std::shared_ptr<platform::Port> port_;
    bool isRegistered_ = false;
    std::vector<RecordedMessage> messages_;
};

}  // namespace utilia::test
