#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Common/Logging/Log.h"

namespace utilia::test {

// Keeps lines as they come.
class CollectingLogSink final : public LogSink {
public:
    bool write(std::string_view line) noexcept override {
        const std::lock_guard guard(mutex_);
        try {
            lines_.emplace_back(line);
        } catch (...) {
            return false;
        }
        return true;
    }
    std::vector<std::string> lines() const {
        const std::lock_guard guard(mutex_);
        return lines_;
    }
    std::vector<std::string> take() {
        const std::lock_guard guard(mutex_);
        return std::exchange(lines_, {});
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace utilia::test
