// shared_store_kill_loop [--kills N]
//
// Four writers count up one scheduler record each in the suite that all tools share, as fast as the
// container's lock lets them; one of them is killed by SIGKILL every 0.3 to 2 ms and started again.
// After each kill the suite must parse, hold every update that a writer had come back from, one
// record for each writer, and what nobody touched. Prints what it saw; exit status 1 when a rule is
// broken.

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <random>
#include <string>

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/TemporaryHome.h"

namespace {

using namespace utilia;

constexpr int kWriters = 4;

struct Shared {
    std::atomic<std::int64_t> acknowledged[kWriters];
};

struct Findings {
    long unreadable = 0;
    long missing = 0;
    long twice = 0;
    long unfinished = 0;  // most files named .new at once
    long setAside = 0;

    bool areGood() const {
        return unreadable == 0 && missing == 0 && twice == 0 && unfinished <= 1 && setAside == 0;
    }
};

std::string bundleIdOf(int writer) { return "writer " + std::to_string(writer); }

[[noreturn]] void write(int writer, Shared& shared, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(0);
    for (;;) {
        std::int64_t next = 0;
        updateSchedulerPlist(bundleIdOf(writer), "counter", [&](Dictionary& record) {
            const Value* const count = record.find("count");
            next = (count ? count->longLongValue() : 0) + 1;
            record.set("count", next);
        });
        shared.acknowledged[writer] = next;
    }
}

pid_t start(int writer, Shared& shared) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) write(writer, shared, parent);
    return child;
}

void end(pid_t writer) {
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
}

// The file itself, without the lock, as a reader meets it at any moment.
void look(const std::string& path, const Shared& shared, Findings& findings) {
    // What is acknowledged before the read must be in it.
    std::int64_t acknowledged[kWriters];
    for (int i = 0; i < kWriters; ++i) acknowledged[i] = shared.acknowledged[i];
    const auto bytes =
        platform::FileManager::contentsAtPath(path, platform::kPropertyListMaximumSize);
    const auto value = bytes ? platform::propertyListFromData(*bytes) : bytes.error();
    if (!value || !value->dictionary()) {
        ++findings.unreadable;
        std::fprintf(stderr, "shared_store_kill_loop: %s\n",
                     value ? "not a dictionary" : value.error().description.c_str());
        return;
    }
    findings.missing += value->dictionary()->string("untouched") != "here";
    const Array records = value->dictionary()->array(kSchedulerKey).value_or(Array());
    for (int i = 0; i < kWriters; ++i) {
        int found = 0;
        std::int64_t count = 0;
        for (const Value& record : records) {
            const Dictionary* const fields = record.dictionary();
            if (!fields || fields->string(kSchedulerBundleIdKey) != bundleIdOf(i)) continue;
            ++found;
            const Value* const number = fields->find("count");
            count = number ? number->longLongValue() : 0;
        }
        findings.missing += count < acknowledged[i];
        findings.twice += found > 1;
    }
}

void lookAround(const std::string& path, Findings& findings) {
    long unfinished = 0;
    long setAside = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::filesystem::path(path).parent_path())) {
        const std::string name = entry.path().filename();
        unfinished += name.ends_with(".new");
        setAside += name.find(".damaged-") != std::string::npos;
    }
    findings.unfinished = std::max(findings.unfinished, unfinished);
    findings.setAside = std::max(findings.setAside, setAside);
}

Findings killWriters(long kills, const std::string& path, Shared& shared) {
    pid_t writers[kWriters];
    for (int i = 0; i < kWriters; ++i) writers[i] = start(i, shared);
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<long> pauses(300'000, 2'000'000);
    std::uniform_int_distribution<int> victims(0, kWriters - 1);
    Findings findings;
    for (long i = 0; i < kills; ++i) {
        const timespec pause{0, pauses(random)};
        nanosleep(&pause, nullptr);
        const int victim = victims(random);
        end(writers[victim]);
        look(path, shared, findings);
        if (i % 50 == 0) lookAround(path, findings);
        writers[victim] = start(victim, shared);
    }
    for (const pid_t writer : writers) end(writer);
    look(path, shared, findings);
    lookAround(path, findings);
    return findings;
}

}  // namespace

int main(int argc, char** argv) {
    long kills = 2000;
    if (argc == 3 && std::strcmp(argv[1], "--kills") == 0)
        kills = std::strtol(argv[2], nullptr, 10);
    if ((argc != 1 && argc != 3) || kills <= 0) {
        std::fprintf(stderr, "usage: shared_store_kill_loop [--kills N]\n");
        return 2;
    }
    const test::TemporaryHome home(test::folderInMemory());
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 2;
    Shared& shared = *new (memory) Shared{};
    std::string path;
    accessAppGroupPlist([&](platform::UserDefaults& suite) {
        suite.setObject("here", "untouched");
        path = suite.path();
    });
    const Findings findings = killWriters(kills, path, shared);
    std::int64_t updates = 0;
    for (const auto& acknowledged : shared.acknowledged) updates += acknowledged;
    std::printf("%ld kills, %lld acknowledged updates, %ld missing, %ld records twice, "
                "%ld unreadable, %ld set aside, at most %ld unfinished\n",
                kills, static_cast<long long>(updates), findings.missing, findings.twice,
                findings.unreadable, findings.setAside, findings.unfinished);
    return findings.areGood() && updates > 0 ? 0 : 1;
}
