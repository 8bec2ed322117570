#include "Tests/Support/StoreKillLoop.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <random>

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {
namespace {

// In memory that the writers have in common with this process.
struct Shared {
    std::array<std::atomic<std::int64_t>, kKilledWriters> acknowledged;
};

class Run final {
public:
    Run(const StoreKillLoop& loop, Shared& shared)
        : loop_(loop), shared_(shared), path_(loop.makeStore()) {}

    void killWriters(long kills) {
        std::array<pid_t, kKilledWriters> writers{};
        for (int i = 0; i < kKilledWriters; ++i) writers[static_cast<std::size_t>(i)] = start(i);
        std::mt19937 random(std::random_device{}());
        std::uniform_int_distribution<long> pauses(300'000, 2'000'000);
        std::uniform_int_distribution<std::size_t> victims(0, kKilledWriters - 1);
        for (long i = 0; i < kills; ++i) {
            const timespec pause{0, pauses(random)};
            nanosleep(&pause, nullptr);
            const std::size_t victim = victims(random);
            end(writers[victim]);
            look();
            if (i % 50 == 0) lookAround();
            writers[victim] = start(static_cast<int>(victim));
        }
        for (const pid_t writer : writers) end(writer);
        look();
        lookAround();
    }

    // Prints the findings; answers whether they are good.
    bool report(long kills) const {
        std::int64_t updates = 0;
        bool hasEachUpdated = true;
        for (const auto& acknowledged : shared_.acknowledged) {
            updates += acknowledged;
            hasEachUpdated = hasEachUpdated && acknowledged > 0;
        }
        std::printf("%ld kills, %lld acknowledged updates, %ld missing, %ld twice, %ld unreadable, "
                    "%ld set aside, at most %ld unfinished, %ld ended by themselves\n",
                    kills, static_cast<long long>(updates), findings_.missing, findings_.twice,
                    unreadable_, setAside_, unfinished_, endedByThemselves_);
        return findings_.missing == 0 && findings_.twice == 0 && unreadable_ == 0 &&
               setAside_ == 0 && unfinished_ <= 1 && endedByThemselves_ == 0 && hasEachUpdated;
    }

private:
    pid_t start(int writer) {
        const pid_t parent = getpid();
        const pid_t child = fork();
        if (child != 0) return child;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(0);
        const auto update = loop_.makeWriter(writer);
        for (;;) {
            if (const auto written = update())
                shared_.acknowledged[static_cast<std::size_t>(writer)] = *written;
        }
    }

    void end(pid_t writer) {
        int status = 0;
        kill(writer, SIGKILL);
        waitpid(writer, &status, 0);
        // One that had ended before shows how.
        endedByThemselves_ += !(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    }

    // The file itself, without any lock, as a reader meets it at any moment.
    void look() {
        // What is acknowledged before the read must be in it.
        std::array<std::int64_t, kKilledWriters> acknowledged{};
        for (std::size_t i = 0; i < acknowledged.size(); ++i)
            acknowledged[i] = shared_.acknowledged[i];
        const auto bytes =
            platform::FileManager::contentsAtPath(path_, platform::kPropertyListMaximumSize);
        const auto value = bytes ? platform::propertyListFromData(*bytes) : bytes.error();
        if (!value || !value->dictionary()) {
            ++unreadable_;
            std::fprintf(stderr, "%s: %s\n", loop_.name,
                         value ? "not a dictionary" : value.error().description.c_str());
            return;
        }
        loop_.look(*value->dictionary(), acknowledged, findings_);
    }

    void lookAround() {
        long unfinished = 0;
        long setAside = 0;
        const auto folder = std::filesystem::path(path_).parent_path();
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            const std::string name = entry.path().filename();
            unfinished += name.ends_with(".new");
            setAside += name.find(".damaged-") != std::string::npos;
        }
        unfinished_ = std::max(unfinished_, unfinished);
        setAside_ = std::max(setAside_, setAside);
    }

    const StoreKillLoop& loop_;
    Shared& shared_;
    const std::string path_;
    StoreFindings findings_;
    long unreadable_ = 0;
    long unfinished_ = 0;  // most files named .new at once
    long setAside_ = 0;
    long endedByThemselves_ = 0;
};

}  // namespace

int runStoreKillLoop(int argc, char** argv, const StoreKillLoop& loop) {
    long kills = loop.kills;
    if (argc == 3 && std::strcmp(argv[1], "--kills") == 0)
        kills = std::strtol(argv[2], nullptr, 10);
    if ((argc != 1 && argc != 3) || kills <= 0) {
        std::fprintf(stderr, "usage: %s [--kills N]\n", loop.name);
        return 2;
    }
    const TemporaryHome home(folderInMemory());
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 2;
    Run run(loop, *new (memory) Shared{});
    run.killWriters(kills);
    return run.report(kills) ? 0 : 1;
}

}  // namespace utilia::test
