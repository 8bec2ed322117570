#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace utilia::test {

// Descriptor by which a child talks to its parent, and the switch that makes a test binary a child.
inline constexpr int kChildChannel = 3;
inline constexpr const char* kChildRoleSwitch = "--child-role";

class PrivateMounts;
class PrivateNetwork;

struct ChildProcessOptions {
    std::string program = {};  // this test binary when empty
    // Added to the current one; a value of "\x01" unsets.
    std::map<std::string, std::string> environment = {};
    std::string standardError = {};       // file that takes stderr; inherited when empty
    std::string standardOutput = {};      // file that takes stdout; inherited when empty
    uid_t user = static_cast<uid_t>(-1);  // run as this user (needs root)
    // The child's own /etc (PrivateMounts.h); must live until the child has started.
    const PrivateMounts* mounts = nullptr;
    bool ownSession = false;    // without the terminal that the tests are run from
    bool diesWithTest = false;  // by SIGKILL, for programs that do not look at the channel
    // The child's own network (PrivateNetwork.h); must live until the child has started.
    const PrivateNetwork* network = nullptr;
};

// A real process that runs a role of this test binary (ChildRole.h), or any other program. It is killed and reaped
// when this object ends.
class ChildProcess final {
public:
    using Options = ChildProcessOptions;

    // Starts the role; fails the program loudly (std::runtime_error) when that is not possible.
    static ChildProcess role(const std::string& name, std::vector<std::string> arguments = {},
                             Options options = {});
    // Starts any program with exactly these arguments after its name; the channel is open in it as well.
    static ChildProcess program(const std::string& path, std::vector<std::string> arguments,
                                Options options = {});

    ChildProcess() = default;
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&& other) noexcept;
    ~ChildProcess();

    pid_t pid() const { return pid_; }
    void say(const std::string& line);
    // The next line the child says; empty when it ended or the time is over.
    std::optional<std::string>
    waitForLine(std::chrono::milliseconds timeout = std::chrono::seconds(60));
    void signal(int number);
    void kill();  // SIGKILL, and reaped on return
    // The exit status, or 128 + signal; empty when it still runs at the end of the time.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(60));
    bool isRunning();

private:
    pid_t pid_ = -1;
    int channel_ = -1;
    int pidFd_ = -1;
    std::optional<int> status_;
    std::string buffer_;
};

// The path of this test binary.
std::string ownProgramPath();

}  // namespace utilia::test
