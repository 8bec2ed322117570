#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

#include "Common/Foundation/Result.h"
#include "Common/Platform/Linux/ForkGuardedFd.h"
#include "Common/Platform/Linux/PortFolder.h"

namespace utilia::platform {

// A port name held by this process, and the listening socket that stands for it.
class PortRegistration final {
public:
    // Fails with Busy when a living process holds the name, with Refused for a name that is not
    // usable or a file in the way that is not ours to use.
    static Result<PortRegistration> claim(std::string_view name);

    PortRegistration(PortRegistration&&) noexcept = default;
    PortRegistration& operator=(PortRegistration&&) = delete;
    ~PortRegistration() { release(); }

    const std::string& name() const { return name_; }
    int listener() const { return listener_.get(); }

    // Gives the name up: it is free when this returns. Connections that were accepted stay.
    void release();

private:
    PortRegistration(std::string name, PortFolder folder, ForkGuardedFd lock);
    Result<void> publish();

    std::string name_;
    std::optional<PortFolder> folder_;
    ForkGuardedFd lock_;
    ForkGuardedFd listener_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// Who holds a name, as its lock file tells.
struct PortLockState {
    bool isHeld = false;
    std::optional<pid_t> holder;
};
PortLockState readPortLock(const PortFolder& folder, const std::string& lockName);

}  // namespace utilia::platform
