#include "Tests/Support/FaultInjection.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace utilia::test {
namespace {

// No operation makes that many calls; one that seems to is in a loop.
constexpr unsigned kMostCalls = 100'000;

constexpr Fault fails(UtiliaFaultCall call, int error) {
    return {call, kUtiliaFaultError, error, false};
}
constexpr Fault isInterrupted(UtiliaFaultCall call) {
    return {call, kUtiliaFaultError, EINTR, true};
}
constexpr Fault isShort(UtiliaFaultCall call) { return {call, kUtiliaFaultShort, 0, false}; }

constexpr std::array kStorageFaults{
    fails(kUtiliaFaultOpen, EACCES),
    fails(kUtiliaFaultOpen, EMFILE),
    fails(kUtiliaFaultOpen, ENFILE),
    fails(kUtiliaFaultOpen, ENOSPC),
    fails(kUtiliaFaultOpen, EROFS),
    fails(kUtiliaFaultOpen, EIO),
    isInterrupted(kUtiliaFaultOpen),
    fails(kUtiliaFaultRead, EIO),
    isInterrupted(kUtiliaFaultRead),
    isShort(kUtiliaFaultRead),
    fails(kUtiliaFaultWrite, ENOSPC),
    fails(kUtiliaFaultWrite, EDQUOT),
    fails(kUtiliaFaultWrite, EIO),
    isInterrupted(kUtiliaFaultWrite),
    isShort(kUtiliaFaultWrite),
    fails(kUtiliaFaultSync, EIO),
    fails(kUtiliaFaultSync, ENOSPC),
    isInterrupted(kUtiliaFaultSync),
    fails(kUtiliaFaultRename, EACCES),
    fails(kUtiliaFaultRename, ENOSPC),
    fails(kUtiliaFaultRename, EIO),
    fails(kUtiliaFaultUnlink, EACCES),
    fails(kUtiliaFaultUnlink, EBUSY),
    fails(kUtiliaFaultUnlink, EROFS),
    fails(kUtiliaFaultLink, EPERM),
    fails(kUtiliaFaultLink, ENOSPC),
    fails(kUtiliaFaultTruncate, EIO),
    fails(kUtiliaFaultFstat, EIO),
    fails(kUtiliaFaultFstat, ENOMEM),
    fails(kUtiliaFaultStat, EACCES),
    fails(kUtiliaFaultStat, EIO),
    fails(kUtiliaFaultFlock, ENOLCK),
    isInterrupted(kUtiliaFaultFlock),
    fails(kUtiliaFaultMkdir, EACCES),
    fails(kUtiliaFaultMkdir, ENOSPC),
    fails(kUtiliaFaultMkdir, EROFS),
    fails(kUtiliaFaultSetAttribute, ENOTSUP),
    fails(kUtiliaFaultSetAttribute, ENOSPC),
};

constexpr std::array kSocketFaults{
    fails(kUtiliaFaultSocket, EMFILE),        fails(kUtiliaFaultSocket, ENFILE),
    fails(kUtiliaFaultSocket, ENOMEM),        fails(kUtiliaFaultBind, EADDRINUSE),
    fails(kUtiliaFaultBind, ENOSPC),          fails(kUtiliaFaultListen, EADDRINUSE),
    fails(kUtiliaFaultConnect, ECONNREFUSED), fails(kUtiliaFaultConnect, EAGAIN),
    isInterrupted(kUtiliaFaultConnect),       fails(kUtiliaFaultAccept, EMFILE),
    fails(kUtiliaFaultAccept, ECONNABORTED),  isInterrupted(kUtiliaFaultAccept),
    fails(kUtiliaFaultSend, EPIPE),           fails(kUtiliaFaultSend, ENOBUFS),
    fails(kUtiliaFaultSend, ETOOMANYREFS),    isInterrupted(kUtiliaFaultSend),
    fails(kUtiliaFaultReceive, ECONNRESET),   fails(kUtiliaFaultReceive, ENOMEM),
    isInterrupted(kUtiliaFaultReceive),       fails(kUtiliaFaultPoll, ENOMEM),
    isInterrupted(kUtiliaFaultPoll),          fails(kUtiliaFaultMemfd, EMFILE),
    fails(kUtiliaFaultMemfd, ENOMEM),         fails(kUtiliaFaultMmap, ENOMEM),
    fails(kUtiliaFaultFcntl, EBUSY),          fails(kUtiliaFaultTruncate, ENOSPC),
};

#ifndef UTILIA_FAULTS_WITHOUT_MEMORY
constexpr std::array kMemoryFaults{Fault{kUtiliaFaultMemory, kUtiliaFaultError, ENOMEM, true}};
#else
constexpr std::array<Fault, 0> kMemoryFaults{};
#endif

// One run; false when the operation made too few calls to meet the fault.
bool runOnce(const FaultRun& run, const std::function<void()>& operation) {
    const ArmedFault fault(run.fault, run.ordinal, run.repetition);
    operation();
    return fault.hits() > 0;
}

enum class Death { Killed, Survived };

Death runChild(const KillPoint& point, const std::function<void()>& operation) {
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("fork");
    if (child == 0) {
        const ArmedFault end(
            {.call = kUtiliaFaultAnySystemCall,
             .kind = point.isAfter ? kUtiliaFaultKillAfter : kUtiliaFaultKillBefore},
            point.ordinal);
        operation();
        _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) != child) {
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return Death::Killed;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the child ended with status " << status;
    return Death::Survived;
}

}  // namespace

ArmedFault::ArmedFault(Fault fault, unsigned ordinal, FaultRepetition repetition,
                       FaultThreads threads) {
    const UtiliaFaultPlan plan{fault.call,
                               fault.kind,
                               fault.error,
                               ordinal,
                               repetition == FaultRepetition::ForEver,
                               threads == FaultThreads::All};
    slot_ = utiliaFaultArm(&plan);
    if (slot_ < 0) throw std::runtime_error("too many faults are armed");
}

ArmedFault::~ArmedFault() { utiliaFaultDisarm(slot_); }

std::string FaultRun::description() const {
    const std::string what = fault.kind == kUtiliaFaultShort ? "is short" : "fails";
    const std::string why =
        fault.kind == kUtiliaFaultShort ? "" : std::string(": ") + std::strerror(fault.error);
    return std::string(utiliaFaultCallName(fault.call)) + " number " + std::to_string(ordinal) +
           " " + what + (repetition == FaultRepetition::ForEver ? " for ever" : " once") + why;
}

std::size_t forEachFault(std::span<const Fault> table, const std::function<void()>& prepare,
                         const std::function<void()>& operation,
                         const std::function<void(const FaultRun&)>& check) {
    prepare();
    operation();
    const std::size_t descriptors = openDescriptors();
    std::size_t runs = 0;
    for (const Fault& fault : table) {
        for (const FaultRepetition repetition : {FaultRepetition::Once, FaultRepetition::ForEver}) {
            if (fault.isOnceOnly && repetition == FaultRepetition::ForEver) continue;
            for (FaultRun run{fault, 1, repetition}; run.ordinal <= kMostCalls; ++run.ordinal) {
                SCOPED_TRACE(run.description());
                prepare();
                if (!runOnce(run, operation)) break;
                ++runs;
                EXPECT_LE(openDescriptors(), descriptors) << "descriptors were left behind";
                check(run);
                if (testing::Test::HasFatalFailure()) return runs;
                EXPECT_LT(run.ordinal, kMostCalls) << "the operation never ends";
            }
        }
    }
    return runs;
}

std::size_t forEachFault(std::span<const Fault> table, const std::function<void()>& operation,
                         const std::function<void(const FaultRun&)>& check) {
    return forEachFault(
        table, [] {}, operation, check);
}

std::size_t forFaultPairs(std::span<const Fault> table, std::size_t pairs,
                          const std::function<void()>& prepare,
                          const std::function<void()>& operation,
                          const std::function<void(const FaultPair&)>& check) {
    // Which faults an undisturbed run would meet, and how often; what handles a first fault may make
    // a few calls more.
    struct Candidate {
        const Fault* fault;
        unsigned calls;
    };
    constexpr unsigned kMoreCalls = 2;
    std::vector<Candidate> candidates;
    prepare();
    operation();
    const std::size_t descriptors = openDescriptors();
    for (const Fault& fault : table) {
        prepare();
        const ArmedFault counted(fault, kMostCalls);
        operation();
        if (counted.calls() > 0) candidates.push_back({&fault, counted.calls()});
    }
    if (candidates.empty()) return 0;
    std::minstd_rand draw(1);
    const auto drawRun = [&] {
        const auto& [fault, calls] = candidates[draw() % candidates.size()];
        const bool isOnce = fault->isOnceOnly || draw() % 2 == 0;
        return FaultRun{*fault, 1 + static_cast<unsigned>(draw() % (calls + kMoreCalls)),
                        isOnce ? FaultRepetition::Once : FaultRepetition::ForEver};
    };
    std::size_t runs = 0;
    for (std::size_t i = 0; i < pairs; ++i) {
        const FaultPair pair{drawRun(), drawRun()};
        SCOPED_TRACE(pair.first.description() + "; " + pair.second.description());
        prepare();
        bool wereBothHit = false;
        {
            const ArmedFault first(pair.first.fault, pair.first.ordinal, pair.first.repetition);
            const ArmedFault second(pair.second.fault, pair.second.ordinal, pair.second.repetition);
            operation();
            wereBothHit = first.hits() > 0 && second.hits() > 0;
        }
        EXPECT_LE(openDescriptors(), descriptors) << "descriptors were left behind";
        if (!wereBothHit) continue;
        ++runs;
        check(pair);
        if (testing::Test::HasFatalFailure()) return runs;
    }
    return runs;
}

std::size_t forEachKillPoint(unsigned repetitions, const std::function<void()>& operation,
                             const std::function<void(const KillPoint&)>& check) {
    std::size_t points = 0;
    for (KillPoint point{1, false}; point.ordinal <= kMostCalls; ++point.ordinal) {
        for (const bool isAfter : {false, true}) {
            point.isAfter = isAfter;
            SCOPED_TRACE(std::string("killed ") + (isAfter ? "after" : "before") + " system call " +
                         std::to_string(point.ordinal));
            for (unsigned i = 0; i < repetitions; ++i) {
                if (runChild(point, operation) == Death::Survived) return points;
                check(point);
                if (testing::Test::HasFatalFailure()) return points;
            }
            ++points;
        }
    }
    return points;
}

std::size_t forEachStopPoint(const std::function<void()>& operation,
                             const std::function<void()>& meanwhile,
                             const std::function<void()>& check) {
    for (unsigned ordinal = 1; ordinal <= kMostCalls; ++ordinal) {
        SCOPED_TRACE("stopped before system call " + std::to_string(ordinal));
        const pid_t child = fork();
        if (child < 0) throw std::runtime_error("fork");
        if (child == 0) {
            const ArmedFault stop(
                {.call = kUtiliaFaultAnySystemCall, .kind = kUtiliaFaultStopBefore}, ordinal);
            operation();
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        int status = 0;
        while (waitpid(child, &status, WUNTRACED) != child) {
        }
        const bool isStopped = WIFSTOPPED(status);
        if (isStopped) {
            meanwhile();
            kill(child, SIGCONT);
            while (waitpid(child, &status, 0) != child) {
            }
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "the child ended with status " << status;
        if (!isStopped) return ordinal - 1;
        check();
        if (testing::Test::HasFatalFailure()) return ordinal;
    }
    return kMostCalls;
}

std::span<const Fault> storageFaults() { return kStorageFaults; }
std::span<const Fault> socketFaults() { return kSocketFaults; }
std::span<const Fault> memoryFaults() { return kMemoryFaults; }

std::size_t openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all))) -
           1;  // less the one that lists them
}

std::map<std::string, std::string> preload(const std::string& folder, Fault fault, unsigned ordinal,
                                           FaultRepetition repetition) {
    Dl_info library{};
    if (!dladdr(reinterpret_cast<const void*>(&utiliaFaultArm), &library))
        throw std::runtime_error("dladdr");
    const std::string link = folder + "/utilia_faults.so";
    std::filesystem::create_symlink(std::filesystem::canonical(library.dli_fname), link);
    std::ofstream(folder + "/plan")
        << fault.call << ' ' << fault.kind << ' ' << fault.error << ' ' << ordinal << ' '
        << (repetition == FaultRepetition::ForEver ? 1 : 0) << '\n';
    return {{"LD_PRELOAD", link}};
}

}  // namespace utilia::test
