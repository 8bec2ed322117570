#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

namespace utilia::test {

// Lines from processes that have no channel to the test: a named pipe below a folder of the test.
class ReportPipe final {
public:
    explicit ReportPipe(const std::filesystem::path& folder);
    ~ReportPipe();
    ReportPipe(const ReportPipe&) = delete;
    ReportPipe& operator=(const ReportPipe&) = delete;

    std::string path() const { return path_.string(); }
    // The next line; empty when the time is over.
    std::optional<std::string>
    waitForLine(std::chrono::milliseconds timeout = std::chrono::seconds(60));

    // One line to the pipe at a path, whole; for the reporting process.
    static void report(const std::string& path, const std::string& line);

private:
    std::filesystem::path path_;
    int descriptor_ = -1;
    std::string buffer_;
};

}  // namespace utilia::test
