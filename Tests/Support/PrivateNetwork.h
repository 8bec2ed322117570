#pragma once

#include <string>

// A network of its own for the children of a test: no interface but a loopback that is down, until
// the test makes some.
//
//     const PrivateNetwork network;                        // throws, naming the reason, without root
//     network.run("ip link set lo up");
//     auto tool = ChildProcess::role("tool", {}, {.network = &network});
//
// The test itself stays outside. What a child launches is inside, too.

namespace utilia::test {

class PrivateNetwork final {
public:
    // Throws std::runtime_error where this process may not make network namespaces (it takes root).
    PrivateNetwork();
    ~PrivateNetwork();
    PrivateNetwork(const PrivateNetwork&) = delete;
    PrivateNetwork& operator=(const PrivateNetwork&) = delete;

    // Runs a line of shell inside; throws std::runtime_error when it fails.
    void run(const std::string& commands) const;

    // Moves the calling thread inside; ChildProcess does it between fork and exec. Makes only
    // system calls; answers false with errno set when it fails.
    bool enter() const;

private:
    int namespace_ = -1;
};

}  // namespace utilia::test
