#pragma once

#include <memory>
#include <string>

namespace utilia::control {

// While it lives, takes what the framework logs: where a call only answers that it failed, the log
// says why.
class CollectedLog final {
public:
    CollectedLog();
    CollectedLog(const CollectedLog&) = delete;
    CollectedLog& operator=(const CollectedLog&) = delete;
    ~CollectedLog();

    // Empty when nothing was logged.
    std::string lastLine() const;

private:
    struct Sink;
    std::shared_ptr<Sink> sink_;
};

}  // namespace utilia::control
