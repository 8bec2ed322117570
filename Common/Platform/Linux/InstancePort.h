#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/Port.h"

namespace utilia::platform {

// The port at which a running application takes the arguments of a second start.
//
// Holding its name is what makes a process the one instance of its bundle: the name is registered
// in one step, so of two processes that start at the same time one is the first. It is formed from
// the bundle identifier and the bundle's path, so that two copies of an application are two
// instances.
//
// Threads: the thread that made it.
class InstancePort final : private PortDelegate {
public:
    using Reopen = std::function<void(const std::vector<std::string>& arguments)>;

    static std::string nameForBundle(std::string_view bundleIdentifier,
                                     std::string_view bundlePath);

    // Registers the name and serves it on this thread's loop. Empty when the name is taken, or
    // cannot be registered.
    static std::unique_ptr<InstancePort> claim(const std::string& name, Reopen reopen);

    // Hands the arguments to the instance that holds the name. Fails with NotFound when nobody
    // does, and with Unavailable when it does not take them in time.
    static Result<void> handOver(const std::string& name, const std::vector<std::string>& arguments,
                                 std::chrono::milliseconds timeout);

    // The one component of the message: each argument, as the kernel holds it, followed by a NUL.
    // Encoding fails with Refused for an argument that holds NUL or beyond the limits below.
    static Result<Data> encode(const std::vector<std::string>& arguments);
    static std::optional<std::vector<std::string>> decode(std::span<const std::uint8_t> bytes);
    static constexpr std::size_t kMaximumArguments = 4096;
    static constexpr std::size_t kMaximumSize = 1 << 20;  // bytes, terminators included

    ~InstancePort() override;  // gives the name up
    InstancePort(const InstancePort&) = delete;
    InstancePort& operator=(const InstancePort&) = delete;

private:
    InstancePort(std::shared_ptr<Port> port, Reopen reopen);
    void handlePortMessage(const PortMessage& message) override;

    std::shared_ptr<Port> port_;
    Reopen reopen_;
};

}  // namespace utilia::platform
