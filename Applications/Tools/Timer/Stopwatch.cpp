#include "Applications/Tools/Timer/Stopwatch.h"

#include <ctime>

namespace utilia::tools {
namespace {

std::chrono::nanoseconds bootTime() {
    std::timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace

void Stopwatch::goOn() {
    if (!since_) since_ = bootTime();
}

void Stopwatch::hold() {
    counted_ = counted();
    since_.reset();
}

std::int64_t Stopwatch::seconds() const {
    return std::chrono::floor<std::chrono::seconds>(counted()).count();
}

std::chrono::nanoseconds Stopwatch::untilNextSecond() const {
    return std::chrono::seconds(1) - counted() % std::chrono::seconds(1);
}

std::chrono::nanoseconds Stopwatch::counted() const {
    return since_ ? counted_ + (bootTime() - *since_) : counted_;
}

}  // namespace utilia::tools
