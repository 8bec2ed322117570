#pragma once

#include <chrono>
#include <string>

namespace utilia::control {

// A line on standard error that tells how far long work has come. Nothing is shown where standard
// error is no terminal, and for work that is done in a moment.
class TerminalProgress final {
public:
    explicit TerminalProgress(std::string what);
    TerminalProgress(const TerminalProgress&) = delete;
    TerminalProgress& operator=(const TerminalProgress&) = delete;
    ~TerminalProgress() { clear(); }

    void show(double done);
    // Takes the line away.
    void clear();

private:
    std::string what_;
    bool isTerminal_ = false;
    bool isShown_ = false;
    int percent_ = -1;
    std::chrono::steady_clock::time_point begin_;
};

// From here on SIGINT, SIGTERM and SIGHUP do not end the program, so that what it writes is whole.
void ignoreInterrupts();

}  // namespace utilia::control
