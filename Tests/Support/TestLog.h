#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Common/Logging/Log.h"

namespace utilia::test {

// Collects log lines for as long as it lives, so that tests can assert them exactly.
class TestLog final {
public:
    TestLog() { setLogSink(sink_); }
    ~TestLog() { setLogSink(nullptr); }
    TestLog(const TestLog&) = delete;
    TestLog& operator=(const TestLog&) = delete;

    std::vector<std::string> lines() const {
        const std::lock_guard guard(sink_->mutex);
        return sink_->lines;
    }
    void clear() {
        const std::lock_guard guard(sink_->mutex);
        sink_->lines.clear();
    }
    // How many lines contain the text.
    std::size_t count(std::string_view text) const {
        std::size_t found = 0;
        for (const std::string& line : lines()) found += line.find(text) != std::string::npos;
        return found;
    }

private:
    struct Sink final : LogSink {
        bool write(std::string_view line) noexcept override {
            const std::lock_guard guard(mutex);
            lines.emplace_back(line);
            return true;
        }
        mutable std::mutex mutex;
        std::vector<std::string> lines;
    };
    std::shared_ptr<Sink> sink_ = std::make_shared<Sink>();
};

}  // namespace utilia::test
