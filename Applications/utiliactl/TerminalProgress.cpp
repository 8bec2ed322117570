#include "Applications/utiliactl/TerminalProgress.h"

#include <csignal>
#include <iostream>
#include <utility>

#include <unistd.h>

#include "Applications/utiliactl/PlainText.h"

namespace utilia::control {
namespace {

constexpr std::chrono::milliseconds kMoment(300);

}  // namespace

TerminalProgress::TerminalProgress(std::string what)
    : what_(std::move(what)), isTerminal_(isatty(STDERR_FILENO) == 1),
      begin_(std::chrono::steady_clock::now()) {}

void TerminalProgress::show(double done) {
    if (!isTerminal_ || std::chrono::steady_clock::now() - begin_ < kMoment) return;
    const int percent = static_cast<int>(done * 100);
    if (percent == percent_) return;
    percent_ = percent;
    isShown_ = true;
    // To the beginning of the line, and what is left of an earlier one away.
    std::cerr << "\r" << inQuotes(what_) << ": " << percent << " %\x1b[K" << std::flush;
}

void TerminalProgress::clear() {
    if (!std::exchange(isShown_, false)) return;
    std::cerr << "\r\x1b[K" << std::flush;
}

void ignoreInterrupts() {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) std::signal(number, SIG_IGN);
}

}  // namespace utilia::control
