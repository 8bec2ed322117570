#pragma once

#include <csignal>
#include <filesystem>
#include <string>

#include "Tests/Support/ChildProcess.h"

namespace utilia::test {

// A session bus of a test's own, at a socket of the test's choice, for as long as the object lives.
// At TemporaryHome::runtime() / "bus" it is where sessions have theirs, so that processes find it
// without being told.
class PrivateBus final {
public:
    struct Options {
        uid_t user = static_cast<uid_t>(-1);  // whose bus it is (needs root); it lets everybody in
    };

    // Waits until the bus listens; throws std::runtime_error when it does not get there.
    explicit PrivateBus(const std::filesystem::path& socket) : PrivateBus(socket, Options()) {}
    PrivateBus(const std::filesystem::path& socket, Options options);
    ~PrivateBus();

    const std::string& address() const { return address_; }
    // While it is stopped the bus accepts connections (the kernel does) and answers nothing.
    void stop() { daemon_.signal(SIGSTOP); }
    void resume() { daemon_.signal(SIGCONT); }

    // A program that prints the bus's messages that match the rule, a few lines for each, as
    // ChildProcess::waitForLine() answers them. It listens when this returns.
    ChildProcess monitor(const std::string& rule) const;

private:
    std::filesystem::path socket_;
    std::string address_;
    ChildProcess daemon_;
};

// The next of the monitor's lines that contains the text; "" when none comes.
std::string nextLineWith(ChildProcess& monitor, std::string_view text);

}  // namespace utilia::test
