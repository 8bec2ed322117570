#include "Benchmarks/Tools/RunningProgram.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {
namespace {

// The number behind each line that begins so, added up.
double sumOf(const std::filesystem::path& file, const std::string& begin) {
    std::ifstream lines(file);
    double sum = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(begin)) sum += std::strtod(line.c_str() + begin.size(), nullptr);
    }
    return sum;
}

}  // namespace

RunningProgram::RunningProgram(const std::string& path,
                               const std::map<std::string, std::string>& environment)
    : pid_(inChild([&] {
          for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
          // What it logs is no matter here.
          dup2(check(open("/dev/null", O_WRONLY | O_CLOEXEC), "open"), STDERR_FILENO);
          execl(path.c_str(), path.c_str(), nullptr);
          fail(path);
      })) {}

RunningProgram::~RunningProgram() {
    if (pid_ > 0) endProgram(pid_);
}

RunningProgram::RunningProgram(RunningProgram&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)) {}

void RunningProgram::signal(int number) const { check(kill(pid_, number), "kill"); }

long RunningProgram::ticks() const {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/stat");
    std::string text;
    std::getline(file, text);
    // Behind the name, which may hold anything: the state, ten numbers, and the two that count.
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string ignored;
    for (int i = 0; i < 11; ++i) fields >> ignored;
    long user = 0, system = 0;
    if (!(fields >> user >> system)) fail("/proc/PID/stat");
    return (user + system) * 100 / sysconf(_SC_CLK_TCK);
}

long RunningProgram::wakeUps() const {
    double sum = 0;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/task"))
        sum += sumOf(task.path() / "status", "voluntary_ctxt_switches:");
    return static_cast<long>(sum);
}

RunningProgram::Memory RunningProgram::memory() const {
    const std::string file = "/proc/" + std::to_string(pid_) + "/smaps_rollup";
    return {sumOf(file, "Pss:"), sumOf(file, "Private_Clean:") + sumOf(file, "Private_Dirty:")};
}

}  // namespace utilia::bench
