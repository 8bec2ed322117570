#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "Common/Logging/MemoryGuard.h"

namespace utilia {

// A callback that one thread may install while another calls it. The call works on the callback
// that was installed when it began, without holding the lock.
template <class... Arguments>
class BasicAtomicBlock final {
public:
    using Function = std::function<void(Arguments...)>;

    // Out of memory, the callback from before stays.
    void set(Function function) {
        unlessOutOfMemory("A block", [&] {
            auto held = function ? std::make_shared<const Function>(std::move(function)) : nullptr;
            const std::lock_guard guard(mutex_);
            function_.swap(held);
        });
    }

    // Empty when none is installed, or it cannot be copied.
    Function get() const {
        const auto held = copy();
        return unlessOutOfMemory("A block", [&] { return held ? *held : Function(); });
    }

    // Answers whether there was one to call.
    bool call(Arguments... arguments) const {
        const auto held = copy();
        if (held) (*held)(std::forward<Arguments>(arguments)...);
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

using AtomicBlock = BasicAtomicBlock<>;

}  // namespace utilia
