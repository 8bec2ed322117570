// resource_rounds [--rounds N]
//
// Two processes install the same program N times in all, one of them from another file system where
// there is one, while two others choose it as fast as they can. Whatever is chosen must be there,
// may be executed and is whole; in the end file and record are those of a last installation, and
// nothing else is left. Prints what it saw; exit status 1 when a rule is broken.

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Tests/Unit/Resources/ResourceFixture.h"

namespace {

using namespace utilia;
namespace fs = std::filesystem;

constexpr int kInstallers = 2;
constexpr int kChoosers = 2;
constexpr const char* kBundleId = "com.korvane.utilia.SampleTool";
constexpr const char* kName = "converter";

struct Shared {
    std::atomic<int> installing{kInstallers};
    std::atomic<long> internalChoices{0};
    std::atomic<long> sharedChoices{0};
    std::atomic<long> missing{0};
    std::atomic<long> notWhole{0};
};

std::string content(const std::string& name) {
    return "#!/bin/sh\nexit 0\n" + name + std::string(20'000, '#') + name + "\n";
}

bool isWhole(const std::string& text) {
    const std::size_t begin = content("").find("exit 0\n") + 7;
    const std::size_t end = text.find('#', begin);
    return end != std::string::npos && text == content(text.substr(begin, end - begin));
}

[[noreturn]] void install(int installer, long rounds, const fs::path& folder, Shared& shared) {
    const fs::path given = folder / ("given by " + std::to_string(installer));
    for (long i = 1; i <= rounds; ++i) {
        test::writeFile(given, content(std::to_string(installer) + " " + std::to_string(i)));
        // Below and above the version of the bundle in turns.
        const IndexPath version{i % 2 == 0 ? 9u : 1u, 0, static_cast<std::uint64_t>(installer),
                                static_cast<std::uint64_t>(i)};
        ResourceManager::addResourceFile(given.string(), kName, version, kExecutableResourceType,
                                         kBundleId);
    }
    --shared.installing;
    _exit(0);
}

[[noreturn]] void choose(const platform::Bundle& bundle, Shared& shared) {
    const std::string internal = bundle.resourcePath() + "/" + kName;
    while (shared.installing > 0) {
        const std::string path = ResourceManager::getMostActualResourcePath(kName, bundle);
        ++(path == internal ? shared.internalChoices : shared.sharedChoices);
        shared.missing += access(path.c_str(), X_OK) != 0;
        shared.notWhole += !isWhole(test::contentOf(path));
    }
    _exit(0);
}

int run(long rounds) {
    const test::TemporaryHome home(test::folderInMemory());
    const test::TemporaryFolder elsewhere;
    const test::TestBundle files(home, {.info = Dictionary{{"CFBundleShortVersionString", "5.1.2"},
                                                           {"CFBundleVersion", "1"}}});
    const auto bundle = platform::Bundle::bundleWithPath(files.path());
    fs::create_directories(bundle->resourcePath());
    test::writeFile(fs::path(bundle->resourcePath()) / kName, content("internal"), 0755);
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 2;
    Shared& shared = *new (memory) Shared{};
    const pid_t parent = getpid();
    const fs::path folders[kInstallers] = {home.path(), elsewhere.path()};
    std::vector<pid_t> children;
    for (int i = 0; i < kInstallers + kChoosers; ++i) {
        const pid_t child = fork();
        if (child < 0) return 2;
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(1);
            if (i < kInstallers) install(i, rounds / kInstallers, folders[i], shared);
            choose(*bundle, shared);
        }
        children.push_back(child);
    }
    int died = 0;
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            ++died;
            shared.installing = 0;  // the others need not wait for it
        }
    }
    const fs::path folder = home.groupContainer() / "Resources" / kBundleId;
    const SharedResource record(kName, kBundleId);
    const auto version = record.version();
    const bool isLast =
        version &&
        version->indexAtPosition(3) == static_cast<std::uint64_t>(rounds / kInstallers) &&
        record.path() == (folder / kName).string() && isWhole(test::contentOf(folder / kName));
    const long left = std::distance(fs::directory_iterator(folder), fs::directory_iterator());
    std::printf("%ld installations, %ld internal and %ld shared choices, %ld missing or not "
                "executable, %ld not whole, %d died, %ld left, the last one is %s\n",
                rounds, shared.internalChoices.load(), shared.sharedChoices.load(),
                shared.missing.load(), shared.notWhole.load(), died, left,
                isLast ? "there" : "not there");
    const bool isGood = shared.missing == 0 && shared.notWhole == 0 && died == 0 && left == 1 &&
                        isLast && shared.internalChoices > 0 && shared.sharedChoices > 0;
    return isGood ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    long rounds = 10'000;
    if (argc == 3 && std::strcmp(argv[1], "--rounds") == 0)
        rounds = std::strtol(argv[2], nullptr, 10);
    if ((argc != 1 && argc != 3) || rounds < kInstallers) {
        std::fprintf(stderr, "usage: resource_rounds [--rounds N]\n");
        return 2;
    }
    return run(rounds);
}
