// event_log_kill_loop [--kills N]
//
// Six processes record events as fast as they can, four of which SIGKILL ends somewhere: within a
// record, while they end a log or begin a new one. Then everything is collected. Every document
// must be whole, every record that its writer had come back from must be there once, and one of
// which a killed writer was not told may.

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/EventLog/LogProcesses.h"

namespace {

using namespace utilia;
using test::Found;

constexpr long kKills = 2000;  // when --kills N does not say otherwise
constexpr int kWriters = 6;
constexpr int kVictims = 4;
// Too few records for a third log, so that none is replaced uncollected.
constexpr int kRecords = 25;
constexpr std::size_t kRecordSize = 9'000;  // over several pages, so that a kill can cut it

struct Findings {
    long acknowledged = 0;
    long missing = 0;
    long twice = 0;
    long unreadable = 0;
    long left = 0;
    long killedAtWork = 0;   // victims that had written some records, and not all
    std::size_t pieces = 0;  // of records that a kill cut, and that a collector left out
};

// The calling process dies after this time, wherever it is then.
void dieAfter(std::chrono::nanoseconds time) {
    sigevent death{};
    death.sigev_notify = SIGEV_SIGNAL;
    death.sigev_signo = SIGKILL;
    timer_t timer{};
    itimerspec when{};
    when.it_value.tv_nsec = static_cast<long>(time.count());
    if (timer_create(CLOCK_MONOTONIC, &death, &timer) != 0 ||
        timer_settime(timer, 0, &when, nullptr) != 0)
        _exit(21);
}

class Run final {
public:
    // False when a writer did not end as it was to.
    bool round() {
        const test::TestLog messages;
        std::array<pid_t, kWriters> writers{};
        for (int writer = 0; writer < kWriters; ++writer) {
            acknowledged_[writer] = 0;
            const auto life = std::chrono::microseconds(20 + random_() % 1'000);
            writers[static_cast<std::size_t>(writer)] =
                test::forkChild([&] { write(writer, life); });
        }
        for (std::size_t i = 0; i < writers.size(); ++i) {
            const int status = test::statusOf(writers[i]);
            const bool isKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
            if (i < kVictims ? !isKilled : status != 0) {
                std::fprintf(stderr, "writer %zu ended with status %d\n", i, status);
                return false;
            }
        }
        collect();
        findings_.pieces += messages.count("that are no whole event are left out");
        return true;
    }

    // Prints the findings; answers whether they are good.
    bool report(long kills) const {
        std::printf(
            "%ld kills, %ld acknowledged records, %ld missing, %ld twice or too many, %ld "
            "documents not whole, %ld files left; %ld killed at work, %zu pieces of records "
            "left out\n",
            kills, findings_.acknowledged, findings_.missing, findings_.twice, findings_.unreadable,
            findings_.left, findings_.killedAtWork, findings_.pieces);
        return findings_.missing == 0 && findings_.twice == 0 && findings_.unreadable == 0 &&
               findings_.left == 0 && findings_.acknowledged > 0 && findings_.killedAtWork > 0;
    }

private:
    void write(int writer, std::chrono::microseconds life) const {
        std::vector<std::string> records;
        for (int i = 1; i <= kRecords; ++i)
            records.push_back(test::sampleRecord("w" + std::to_string(writer), i, kRecordSize));
        if (writer < kVictims) dieAfter(life);
        for (const std::string& record : records) {
            if (file_.append(record) != EventLogCode::Done) _exit(18);
            ++acknowledged_[writer];
        }
        while (writer < kVictims) pause();
    }

    void collect() {
        Found found;
        auto grabbed = file_.grab();
        for (; grabbed.code == EventLogCode::Done; grabbed = file_.grab()) {
            const auto wrong = test::addRecords(test::contentOf(grabbed.file.get()), true, found);
            if (wrong.empty()) continue;
            ++findings_.unreadable;
            std::fprintf(stderr, "%s\n", wrong.c_str());
        }
        findings_.unreadable += grabbed.code != EventLogCode::NothingToGrab;
        findings_.left += !std::filesystem::is_empty(folder_.path());
        for (int writer = 0; writer < kWriters; ++writer) {
            const auto& records = found["w" + std::to_string(writer)];
            const long told = acknowledged_[writer];
            findings_.acknowledged += told;
            findings_.killedAtWork += writer < kVictims && told > 0 && told < kRecords;
            for (int i = 1; i <= told; ++i) findings_.missing += !records.contains(i);
            for (const auto& [number, count] : records)
                findings_.twice += count > 1 || number > told + (writer < kVictims ? 1 : 0);
        }
    }

    const test::TemporaryFolder folder_{test::folderInMemory()};
    const EventLogFile file_{EventLogFile::Names::inFolder(folder_.path().string()),
                             test::sampleFacts, kWriters* kRecords* kRecordSize * 2 / 3};
    std::atomic<int>* const acknowledged_ = test::shared<std::atomic<int>>(kWriters);
    std::mt19937 random_{std::random_device{}()};
    Findings findings_;
};

}  // namespace

int main(int argc, char** argv) {
    long kills = kKills;
    if (argc == 3 && std::strcmp(argv[1], "--kills") == 0)
        kills = std::strtol(argv[2], nullptr, 10);
    if ((argc != 1 && argc != 3) || kills <= 0) {
        std::fprintf(stderr, "usage: %s [--kills N]\n", argv[0]);
        return 2;
    }
    Run run;
    for (long killed = 0; killed < kills; killed += kVictims) {
        if (!run.round()) return 2;
    }
    return run.report(kills) ? 0 : 1;
}
