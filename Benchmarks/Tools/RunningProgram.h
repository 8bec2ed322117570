#pragma once

#include <map>
#include <string>

#include <sys/types.h>

namespace utilia::bench {

// A program of a measurement, and what /proc tells of it. It is ended with this object.
class RunningProgram final {
public:
    // With these variables besides the current ones.
    explicit RunningProgram(const std::string& path,
                            const std::map<std::string, std::string>& environment = {});
    ~RunningProgram();
    RunningProgram(RunningProgram&& other) noexcept;
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    void signal(int number) const;

    long ticks() const;    // of processor time so far, in hundredths of a second
    long wakeUps() const;  // of all its threads so far
    // Its memory; what others have mapped as well is divided among all who have.
    struct Memory {
        double proportionalKiB = 0;
        double privateKiB = 0;
    };
    Memory memory() const;

private:
    pid_t pid_ = -1;
};

}  // namespace utilia::bench
