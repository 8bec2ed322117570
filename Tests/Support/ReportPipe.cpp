#include "Tests/Support/ReportPipe.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace utilia::test {

ReportPipe::ReportPipe(const std::filesystem::path& folder) : path_(folder / "reports") {
    if (mkfifo(path_.c_str(), 0600) != 0) throw std::runtime_error("mkfifo " + path_.string());
    // Held open for writing as well: the end of one reporter is not the end of the reports.
    descriptor_ = open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (descriptor_ < 0) throw std::runtime_error("open " + path_.string());
}

ReportPipe::~ReportPipe() { close(descriptor_); }

std::optional<std::string> ReportPipe::waitForLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (const auto end = buffer_.find('\n'); end != std::string::npos) {
            std::string line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd waiting{descriptor_, POLLIN, 0};
        const int ready = poll(&waiting, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char chunk[4096];
        const ssize_t count = read(descriptor_, chunk, sizeof chunk);
        if (count > 0) buffer_.append(chunk, static_cast<std::size_t>(count));
    }
}

void ReportPipe::report(const std::string& path, const std::string& line) {
    const std::string text = line + "\n";
    const int descriptor = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    // A pipe takes a line of this size in one piece or not at all.
    const bool whole =
        descriptor >= 0 && text.size() <= 4096 &&
        write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(descriptor);
    if (!whole) throw std::runtime_error("report to " + path + ": " + std::strerror(errno));
}

}  // namespace utilia::test
