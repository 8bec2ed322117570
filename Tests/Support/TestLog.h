#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Common/Logging/Log.h"
#include "Tests/Support/CollectingLogSink.h"

namespace utilia::test {

// Collects log lines for as long as it lives, so that tests can assert them exactly.
class TestLog final {
public:
    TestLog() { setLogSink(sink_); }
    ~TestLog() { setLogSink(nullptr); }
    TestLog(const TestLog&) = delete;
    TestLog& operator=(const TestLog&) = delete;

    std::vector<std::string> lines() const { return sink_->lines(); }
    void clear() { sink_->take(); }
    // How many lines contain the text.
    std::size_t count(std::string_view text) const {
        std::size_t found = 0;
        for (const std::string& line : lines()) found += line.find(text) != std::string::npos;
        return found;
    }

private:
    std::shared_ptr<CollectingLogSink> sink_ = std::make_shared<CollectingLogSink>();
};

}  // namespace utilia::test
