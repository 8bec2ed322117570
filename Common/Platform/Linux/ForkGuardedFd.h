#pragma once

#include <utility>

#include <unistd.h>

#include "Common/Platform/Linux/ForkGuard.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// Owns a descriptor that stands for something of this process alone: a name, a lock, a connection.
// A forked child loses it (ForkGuard), and an owner that lives on in the child closes nothing
// there: the number may be another file's by then.
class ForkGuardedFd final {
public:
    ForkGuardedFd() = default;
    explicit ForkGuardedFd(UniqueFd descriptor)
        : descriptor_(std::move(descriptor)), process_(getpid()) {
        if (descriptor_) ForkGuard::closeInChild(descriptor_.get());
    }
    ForkGuardedFd(ForkGuardedFd&& other) noexcept = default;
    ForkGuardedFd& operator=(ForkGuardedFd&& other) noexcept {
        if (this != &other) {
            reset();
            descriptor_ = std::move(other.descriptor_);
            process_ = other.process_;
        }
        return *this;
    }
    ~ForkGuardedFd() { reset(); }

    int get() const { return descriptor_.get(); }
    explicit operator bool() const { return static_cast<bool>(descriptor_); }
    bool isOfThisProcess() const { return process_ == getpid(); }

    void reset() {
        if (!descriptor_) return;
        if (isOfThisProcess()) {
            ForkGuard::forget(descriptor_.get());
            descriptor_.reset();
        } else {
            descriptor_.release();
        }
    }

private:
    UniqueFd descriptor_;
    pid_t process_ = -1;
};

}  // namespace utilia::platform
