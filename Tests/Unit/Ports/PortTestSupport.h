#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Common/Platform/Port.h"
#include "Common/Platform/UniqueFd.h"
#include "Tests/Support/ChildProcess.h"

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
    std::function<void()> beforeRecording;  // none by default
    bool keepsMessages = true;
    std::vector<Received> messages;
    std::size_t count = 0;
    std::size_t withComponents = 0;
};

// A registered and scheduled port that records what arrives.
class PortUnderTest final {
public:
    explicit PortUnderTest(std::string_view name);
    ~PortUnderTest() { port->invalidate(); }
    PortUnderTest(const PortUnderTest&) = delete;
    PortUnderTest& operator=(const PortUnderTest&) = delete;

    std::vector<Received>& messages() { return delegate.messages; }

    RecordingDelegate delegate;
    std::shared_ptr<platform::Port> port = platform::Port::port();
    bool isRegistered = false;
};

// Runs the current loop until the condition holds, at most 60 s. The condition is asked after each
// turn, and every few milliseconds for what no turn tells.
bool runUntil(const std::function<bool()>& condition);

// Runs the current loop until the child says the line; fails on another one, or none in 60 s.
testing::AssertionResult runUntilSaid(ChildProcess& child, const std::string& line);
// The child's next line, the loop running meanwhile; "" when none comes in 60 s.
std::string runUntilLine(ChildProcess& child);

// One component; waits at most 60 s.
void sendText(const std::shared_ptr<platform::Port>& port, std::uint32_t msgid,
              std::string_view text);

// The folder of sockets and locks in the current runtime folder.
std::string portsFolder();
// A connection made without the library; empty (errno is set) when it is refused.
platform::UniqueFd connectRaw(const std::string& name);

// As long as it lives, this process can open no descriptor.
class NoDescriptorsLeft final {
public:
    NoDescriptorsLeft();
    ~NoDescriptorsLeft() { setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptorsLeft(const NoDescriptorsLeft&) = delete;
    NoDescriptorsLeft& operator=(const NoDescriptorsLeft&) = delete;

private:
    rlimit before_{};
};

// Of this process.
std::size_t openDescriptorCount();
std::size_t residentBytes();
// How much the resident memory may differ before and after a test: sanitizers keep freed memory.
std::size_t residentTolerance();

}  // namespace utilia::test
