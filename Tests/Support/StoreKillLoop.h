#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "Common/Foundation/Value.h"

// Four writers that each count up a number of their own in one store, as fast as they can; one of
// them is killed by SIGKILL every 0.3 to 2 ms and started again. After each kill the store's file is
// read as it lies there: it must parse, hold every update that a writer had come back from, and have
// at most one unfinished file and none that was set aside beside it.
//
//     int main(int argc, char** argv) {
//         return runStoreKillLoop(argc, argv, {.name = "kill_loop", …});
//     }

namespace utilia::test {

inline constexpr int kKilledWriters = 4;

// Rules that a look at the store has found broken.
struct StoreFindings {
    long missing = 0;  // updates, or what nobody touched
    long twice = 0;    // what may be there once
};

struct StoreKillLoop {
    // Counts up by one; answers the number that is in the store now, or nothing.
    using Update = std::function<std::optional<std::int64_t>()>;
    // What is acknowledged, by writer; 0 before the first update.
    using Acknowledged = std::span<const std::int64_t, kKilledWriters>;

    const char* name;  // of the program
    long kills;        // when --kills N does not say otherwise
    // Makes the store, and answers the path of its file; before there are writers.
    std::function<std::string()> makeStore;
    // The update of a writer (from 0); called in the writer's process.
    std::function<Update(int writer)> makeWriter;
    // Adds what is wrong with the store's content.
    std::function<void(const Dictionary& store, Acknowledged acknowledged, StoreFindings& findings)>
        look;
};

// Runs the loop in a private home in memory and prints what it saw. The exit status: 1 when a rule
// is broken, 2 when there was no loop.
int runStoreKillLoop(int argc, char** argv, const StoreKillLoop& loop);

}  // namespace utilia::test
