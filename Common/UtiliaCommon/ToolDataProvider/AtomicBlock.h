#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace utilia {

// A callback that one thread may install while another calls it. The call works on the callback
// that was installed when it began, without holding the lock.
class AtomicBlock final {
public:
    using Function = std::function<void()>;

    void set(Function function) {
        auto held = function ? std::make_shared<const Function>(std::move(function)) : nullptr;
        const std::lock_guard guard(mutex_);
        function_.swap(held);
    }

    // Empty when none is installed.
    Function get() const {
        const auto held = copy();
        return held ? *held : Function();
    }

    // Answers whether there was one to call.
    bool call() const {
        const auto held = copy();
        if (held) (*held)();
        return held != nullptr;
    }

private:
    std::shared_ptr<const Function> copy() const {
        const std::lock_guard guard(mutex_);
        return function_;
    }

    mutable std::mutex mutex_;
    std::shared_ptr<const Function> function_;
};

}  // namespace utilia
