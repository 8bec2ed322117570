#pragma once

#include <cerrno>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Tests/Support/FaultInjection/FaultPlan.h"

// Makes system calls, and memory, fail at will.
//
// A test program takes it with `utilia_test(NAME SOURCES … LINK utilia_fault_injection)`. The
// library that comes with it stands before libc in the whole program, so faults also reach
// libstdc++ and GLib where they call through their symbol tables (not what libc does inside itself:
// fopen's own open cannot fail).
//
// One fault by hand:
//
//     // The next rename of this thread.
//     const ArmedFault fault({.call = kUtiliaFaultRename, .error = EIO});
//     EXPECT_FALSE(store.synchronize());
//     EXPECT_EQ(fault.hits(), 1u);
//
// Every fault of a table, at every call of an operation, as SQLite does it:
//
//     bool written = false;
//     forEachFault(
//         storageFaults(),
//         [&] { store.setObject(2, "key"); written = store.synchronize(); },
//         [&](const FaultRun& run) {  // after each run in which the fault was hit
//             EXPECT_EQ(readBack(), written ? 2 : 1);  // SCOPED_TRACE names the run
//         });
//
// The operation runs once without faults first, so that what it makes only once (descriptors that
// stay, folders) is there. Then, for each row of the table and both repetitions, it runs with the
// fault at call 1, 2, 3 … until a run makes fewer calls than that. After each run there must be
// no more open descriptors than before. Let the operation store its results in variables and
// assert in the check: what gtest does inside would be hit as well.
//
// Death at every call: forEachKillPoint() runs the operation in forked children that die of SIGKILL
// before and after their 1st, 2nd, 3rd … system call.
//
// Another program, unprepared: preload() makes a folder with the library and a plan, and the
// variable to start it with. (Not for programs built with AddressSanitizer, which insists on being
// first.)
//
// Under AddressSanitizer and ThreadSanitizer memory cannot be made to fail; memoryFaults() is then
// empty.
//
// Threads: a fault meets the thread that armed it, unless every thread is asked for.

namespace utilia::test {

struct Fault {
    UtiliaFaultCall call = kUtiliaFaultAnySystemCall;
    UtiliaFaultKind kind = kUtiliaFaultError;
    int error = 0;
    bool isOnceOnly = false;  // it cannot last: code may repeat the call until it has gone
};

enum class FaultRepetition { Once, ForEver };
enum class FaultThreads { Mine, All };

// One fault, as long as the object lives. At most four at a time.
class ArmedFault final {
public:
    // At the `ordinal`-th matching call from now on.
    explicit ArmedFault(Fault fault, unsigned ordinal = 1,
                        FaultRepetition repetition = FaultRepetition::Once,
                        FaultThreads threads = FaultThreads::Mine);
    ~ArmedFault();
    ArmedFault(const ArmedFault&) = delete;
    ArmedFault& operator=(const ArmedFault&) = delete;

    unsigned calls() const { return utiliaFaultCalls(slot_); }
    unsigned hits() const { return utiliaFaultHits(slot_); }

private:
    int slot_;
};

struct FaultRun {
    Fault fault;
    unsigned ordinal = 0;
    FaultRepetition repetition = FaultRepetition::Once;

    std::string description() const;  // "rename number 2 fails for ever: No space left on device"
};

// Answers the number of runs in which a fault was hit. `prepare` runs before each operation,
// without faults.
[[nodiscard]] std::size_t forEachFault(std::span<const Fault> table,
                                       const std::function<void()>& prepare,
                                       const std::function<void()>& operation,
                                       const std::function<void(const FaultRun&)>& check);
[[nodiscard]] std::size_t forEachFault(std::span<const Fault> table,
                                       const std::function<void()>& operation,
                                       const std::function<void(const FaultRun&)>& check);

// Two faults at a time, since what handles a first one is seldom tried itself: `pairs` of them, drawn
// by a generator that always begins alike from those of the table that the operation meets, each once
// or for ever. `check` is told both after every run in which both were hit. Answers how many those were.
struct FaultPair {
    FaultRun first;
    FaultRun second;
};
[[nodiscard]] std::size_t forFaultPairs(std::span<const Fault> table, std::size_t pairs,
                                        const std::function<void()>& prepare,
                                        const std::function<void()>& operation,
                                        const std::function<void(const FaultPair&)>& check);

// The end of a process before (false) or after (true) its `ordinal`-th system call.
struct KillPoint {
    unsigned ordinal = 0;
    bool isAfter = false;
};

// `operation` runs in a forked child of this process, so it must not need other threads; `check`
// runs here, after each child that died. Answers the number of kill points, each of which was run
// `repetitions` times.
[[nodiscard]] std::size_t forEachKillPoint(unsigned repetitions,
                                           const std::function<void()>& operation,
                                           const std::function<void(const KillPoint&)>& check);

// What others do between any two system calls: `operation` runs in a forked child of this process,
// so it must not need other threads, and stops before its 1st, 2nd, 3rd … system call; `meanwhile`
// runs here, and may find files locked; then the child goes on to its end, and `check` runs here.
// Answers the number of those points.
[[nodiscard]] std::size_t forEachStopPoint(const std::function<void()>& operation,
                                           const std::function<void()>& meanwhile,
                                           const std::function<void()>& check);

// What files, folders and locks can answer; what sockets can; out of memory.
std::span<const Fault> storageFaults();
std::span<const Fault> socketFaults();
std::span<const Fault> memoryFaults();

// Open descriptors of this process.
std::size_t openDescriptors();

// For ChildProcessOptions::environment: starts a program with a fault armed on all its threads.
// `folder` must stay while the program runs.
std::map<std::string, std::string> preload(const std::string& folder, Fault fault, unsigned ordinal,
                                           FaultRepetition repetition = FaultRepetition::Once);

}  // namespace utilia::test
