#pragma once

#include <functional>
#include <utility>

namespace utilia {

// What registering a callback answers: the registration lasts as long as this object. Ending it twice, or after
// the registry is gone, is harmless; the callback does not run after the end, also when a delivery is under way.
//
// Threads: ended on the thread that registered, unless the registry says otherwise.
class [[nodiscard]] Handle final {
public:
    Handle() = default;
    explicit Handle(std::function<void()> end) : end_(std::move(end)) {}
    Handle(Handle&& other) noexcept : end_(std::exchange(other.end_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept {
        if (this != &other) {
            reset();
            end_ = std::exchange(other.end_, nullptr);
        }
        return *this;
    }
    ~Handle() { reset(); }

    void reset() {
        if (auto end = std::exchange(end_, nullptr)) end();
    }
    explicit operator bool() const { return static_cast<bool>(end_); }

private:
    std::function<void()> end_;
};

}  // namespace utilia
