#include "Applications/Desktop/BusThread.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <thread>
#include <utility>

namespace utilia::desktop {
namespace {

std::atomic<int> talks = 0;

}  // namespace

bool startBusThread(std::function<void()> talk) {
    ++talks;
    try {
        std::thread([talk = std::move(talk)]() mutable {
            // With all that it holds it is over before it counts as over.
            std::exchange(talk, nullptr)();
            --talks;
        }).detach();
    } catch (const std::system_error&) {
        --talks;
        return false;
    }
    return true;
}

int endedMain(int status) {
    if (talks == 0) return status;
    endAtOnce(status);
}

void endAtOnce(int status) {
    std::fflush(nullptr);
    std::_Exit(status);
}

}  // namespace utilia::desktop
