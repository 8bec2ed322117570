// kill_loop [--kills N]
//
// Four writers count up one key each in a shared domain, as fast as they can; one of them is killed
// by SIGKILL every 0.3 to 2 ms and started again. After each kill the store must parse, hold every
// update that a writer had been told is written, and have at most one unfinished file beside it.
// Prints what it saw; exit status 1 when a rule is broken.

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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
#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/TemporaryHome.h"

namespace {

using utilia::platform::FileManager;
using utilia::platform::UserDefaults;

constexpr int kWriters = 4;
constexpr std::string_view kDomain = "com.example.killed";

struct Shared {
    std::atomic<std::int64_t> acknowledged[kWriters];
};

std::string keyOf(int writer) { return "writer " + std::to_string(writer); }

[[noreturn]] void write(int writer, Shared& shared, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(0);
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    const std::string key = keyOf(writer);
    for (;;) {
        const std::int64_t next = defaults->integerForKey(key) + 1;
        defaults->setObject(next, key);
        if (defaults->synchronize()) shared.acknowledged[writer] = next;
    }
}

pid_t start(int writer, Shared& shared) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) write(writer, shared, parent);
    return child;
}

struct Findings {
    long unreadable = 0;
    long missing = 0;
    long unfinished = 0;  // most files named .new at once
    long setAside = 0;
};

void look(const std::string& path, const Shared& shared, Findings& findings) {
    // What is acknowledged before the read must be in it.
    std::int64_t acknowledged[kWriters];
    for (int i = 0; i < kWriters; ++i) acknowledged[i] = shared.acknowledged[i];
    const auto bytes =
        FileManager::contentsAtPath(path, utilia::platform::kPropertyListMaximumSize);
    const auto value = bytes ? utilia::platform::propertyListFromData(*bytes) : bytes.error();
    if (!value || !value->dictionary()) {
        ++findings.unreadable;
        std::fprintf(stderr, "kill_loop: %s\n",
                     value ? "not a dictionary" : value.error().description.c_str());
        return;
    }
    for (int i = 0; i < kWriters; ++i) {
        const utilia::Value* found = value->dictionary()->find(keyOf(i));
        if (acknowledged[i] > 0 && (!found || found->longLongValue() < acknowledged[i]))
            ++findings.missing;
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

}  // namespace

int main(int argc, char** argv) {
    long kills = 5000;
    if (argc == 3 && std::strcmp(argv[1], "--kills") == 0)
        kills = std::strtol(argv[2], nullptr, 10);
    if ((argc != 1 && argc != 3) || kills <= 0) {
        std::fprintf(stderr, "usage: kill_loop [--kills N]\n");
        return 2;
    }
    const utilia::test::TemporaryHome home(utilia::test::folderInMemory());
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 2;
    Shared& shared = *new (memory) Shared{};
    std::string path;
    {
        const auto defaults = UserDefaults::initWithDomain(kDomain);
        defaults->setObject(0, "start");
        path = defaults->path();
    }
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
        kill(writers[victim], SIGKILL);
        waitpid(writers[victim], nullptr, 0);
        look(path, shared, findings);
        if (i % 50 == 0) lookAround(path, findings);
        writers[victim] = start(victim, shared);
    }
    for (const pid_t writer : writers) {
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
    }
    look(path, shared, findings);
    lookAround(path, findings);
    std::int64_t updates = 0;
    for (const auto& acknowledged : shared.acknowledged) updates += acknowledged;
    std::printf("%ld kills, %lld acknowledged updates, %ld missing, %ld unreadable, %ld set aside, "
                "at most %ld unfinished\n",
                kills, static_cast<long long>(updates), findings.missing, findings.unreadable,
                findings.setAside, findings.unfinished);
    const bool isGood = findings.missing == 0 && findings.unreadable == 0 &&
                        findings.setAside == 0 && findings.unfinished <= 1 && updates > 0;
    return isGood ? 0 : 1;
}
