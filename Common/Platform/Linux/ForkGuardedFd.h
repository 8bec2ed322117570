#pragma once

#include <utility>

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
        : descriptor_(std::move(descriptor)), generation_(ForkGuard::generation()) {
        if (descriptor_) ForkGuard::closeInChild(descriptor_.get());
    }
    ForkGuardedFd(ForkGuardedFd&& other) noexcept = default;
    ForkGuardedFd& operator=(ForkGuardedFd&& other) noexcept {
        if (this != &other) {
            reset();
            descriptor_ = std::move(other.descriptor_);
            generation_ = other.generation_;
        }
        return *this;
    }
    ~ForkGuardedFd() { reset(); }

    int get() const { return descriptor_.get(); }
    explicit operator bool() const { return static_cast<bool>(descriptor_); }
    bool isOfThisProcess() const { return generation_ == ForkGuard::generation(); }

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
    unsigned generation_ = 0;
};

}  // namespace utilia::platform
