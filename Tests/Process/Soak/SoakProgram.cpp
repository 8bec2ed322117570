// soak [--seconds N] [--tools N] [--pause MILLISECONDS]
//
// The real agent and many tools at work for as long as it is told: each tool updates its record of
// the shared store ten times a second, tells the agent a new text of its menu four times a second and
// records two events a second. Every two seconds (--pause) SIGKILL ends one of them, and it is started again;
// once, after a quarter of the time, it ends the agent. At the end nothing may be missing: every acknowledged
// update and event is there, each event once, and the agent shows what each tool said last. In the
// second half, which begins a quarter of the time after the new agent shows all tools, its heap, memory
// and descriptors must not grow.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "Common/Platform/Application.h"
#include "Common/Platform/RunLoop.h"
#include "Common/Platform/UniqueFd.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"
#include "Tests/Process/Soak/Growth.h"
#include "Tests/Process/Soak/HeapCount.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/VirtualDisplay.h"

namespace {

using namespace utilia;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using test::ChildProcess;
using test::Limits;
using test::Sample;
using test::TestBundle;

namespace fs = std::filesystem;

constexpr auto kStorePeriod = 100ms;
constexpr auto kTextPeriod = 250ms;
constexpr auto kEventPeriod = 500ms;
constexpr std::chrono::milliseconds kKillPeriod = 2s;
constexpr auto kCollectPeriod = 20s;
constexpr const char* kCountKey = "count";

// In the second half. Blocks in use, to the byte: what grows from hour to hour is a leak.
constexpr Limits kHeapLimits{.kibibytes = 32, .kibibytesPerHour = 32, .longEnough = 30 * 60};
// What the kernel counts.
constexpr Limits kMemoryLimits{.kibibytes = 512, .kibibytesPerHour = 64, .longEnough = 30 * 60};
// The allocator keeps up to 231 KiB of freed blocks for each thread, and fills that the slower the longer the agent runs. The
// agent runs without that, unless the reader says otherwise.
constexpr const char* kAllocatorVariable = "GLIBC_TUNABLES";
constexpr const char* kWithoutKeptBlocks = "glibc.malloc.tcache_count=0";
constexpr std::size_t kFewestSamples = 4;  // of the second half, however long they take

// What a tool has done. It lies in a file that all map, so that it outlives a kill.
struct Progress {
    std::atomic<std::int64_t> stored;    // the count of the last update that returned
    std::atomic<std::int64_t> begun;     // the number of the last event that was begun
    std::atomic<std::int64_t> recorded;  // and of the last that was acknowledged
    std::atomic<std::int64_t> said;      // of the last text
};

// So many that all who map the file share; zero bytes are zero counts.
template <class Counts>
Counts* mapCounts(const std::string& path, std::size_t number) {
    const platform::UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    const std::size_t size = number * sizeof(Counts);
    if (!file || ftruncate(file.get(), static_cast<off_t>(size)) != 0)
        throw std::runtime_error("open " + path);
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap " + path);
    return static_cast<Counts*>(memory);
}

std::string textOf(std::size_t tool, std::int64_t number) {
    return "tool " + std::to_string(tool) + " says " + std::to_string(number) + ".";
}

// ---- a tool

class Work final {
public:
    Work(std::size_t tool, Progress& progress) : tool_(tool), progress_(progress) {
        timers_.push_back(platform::Timer::scheduledTimer(kStorePeriod, true, [this] { store(); }));
        timers_.push_back(platform::Timer::scheduledTimer(kTextPeriod, true, [this] { speak(); }));
        timers_.push_back(
            platform::Timer::scheduledTimer(kEventPeriod, true, [this] { record(); }));
    }

private:
    void store() {
        std::int64_t count = 0;
        updateSchedulerForThisTool([&](Dictionary& record) {
            const Value* const before = record.find(kCountKey);
            count = (before ? before->longLongValue() : 0) + 1;
            record.set(kCountKey, count);
        });
        progress_.stored = count;
    }
    void speak() {
        const std::int64_t number = progress_.said + 1;
        UtiliaCommon::toolDataClientProvider().setMenuText(textOf(tool_, number));
        progress_.said = number;
    }
    void record() {
        const std::int64_t number = ++progress_.begun;
        const Dictionary details{{"tool", std::to_string(tool_)},
                                 {"number", std::to_string(number)}};
        if (CEPLogEvent("Soak", nullptr, nullptr, &details) == 0) progress_.recorded = number;
    }

    const std::size_t tool_;
    Progress& progress_;
    std::vector<Handle> timers_;
};

// NUMBER PATH COUNT: works until it is told to hush, and stays until SIGTERM.
UTILIA_CHILD_ROLE(work) {
    const std::size_t tool = std::stoul(self.arguments.at(0));
    auto* const all = mapCounts<Progress>(self.arguments.at(1), std::stoul(self.arguments.at(2)));
    auto& application = platform::Application::sharedApplication();
    application.finishLaunching();
    if (CEPLogInit() != 0) return 20;
    auto& client = UtiliaCommon::toolDataClientProvider();
    client.setToolStatus(kToolStatusActive);
    auto work = std::make_unique<Work>(tool, all[tool]);
    // Never joined: it waits on the channel for as long as the process lives.
    std::thread([&] {
        if (self.waitForLine() != "hush") return;
        platform::MainQueue::async([&] {
            work.reset();
            self.say("hushed");
        });
    }).detach();
    self.say("works");
    const int status = application.run();
    work.reset();
    return status;
}

// ---- what is looked at

double privateKibibytes(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("RssAnon:")) return std::stod(line.substr(8));
    }
    throw std::runtime_error("the agent has no memory any more");
}

std::size_t descriptors(pid_t process) {
    const fs::directory_iterator all("/proc/" + std::to_string(process) + "/fd");
    return static_cast<std::size_t>(std::distance(fs::begin(all), fs::end(all)));
}

// It opens files for a moment, and has a tool's end and begin behind it one after the other: what it has most of the time.
std::size_t usualDescriptors(pid_t process) {
    std::vector<std::size_t> counts;
    for (int i = 0; i < 15; ++i) {
        counts.push_back(descriptors(process));
        std::this_thread::sleep_for(20ms);
    }
    std::nth_element(counts.begin(), counts.begin() + std::ssize(counts) / 2, counts.end());
    return counts[counts.size() / 2];
}

void print(const char* what, const test::Trend& trend) {
    std::printf("%s: %.0f KiB, %+.1f KiB in the second half (%+.0f KiB an hour%s)\n", what,
                trend.last, trend.growth, trend.perHour,
                trend.isLong ? "" : ", too short to count");
}

// ---- the run

class Soak final {
public:
    explicit Soak(std::size_t tools)
        : count_(tools), progress_(mapCounts<Progress>(progressPath(), tools)),
          heap_(mapCounts<test::HeapCount>(heapPath(), 1)), found_(tools), uncertain_(tools) {
        if (CEPLogInit() != 0) throw std::runtime_error("there is no log");
        const auto identifiers = ToolSets::createSharedInstance()->currentUnrestrictedToolSet();
        if (identifiers.size() < tools) throw std::runtime_error("the catalogue has fewer tools");
        for (const std::string& identifier : identifiers) {
            if (bundles_.size() == tools) break;
            TestBundle::Options options{.name = identifier.substr(identifier.rfind('.') + 1),
                                        .bundleIdentifier = identifier};
            if (!bundles_.empty()) options.copy = bundles_.front()->program();
            bundles_.push_back(std::make_unique<TestBundle>(home_, options));
            bundles_.back()->install("work", argumentsOf(bundles_.size() - 1));
        }
        startAgent();
        for (std::size_t i = 0; i < tools; ++i) tools_.push_back(started(i));
    }

    void run(double seconds, std::chrono::milliseconds pause) {
        const auto begin = steady_clock::now();
        const auto passed = [begin] {
            return std::chrono::duration<double>(steady_clock::now() - begin).count();
        };
        auto nextKill = begin + pause, nextCollection = begin + kCollectPeriod;
        std::optional<double> secondHalf;  // its begin, when the agent has been killed
        for (;;) {
            std::this_thread::sleep_until(std::min(nextKill, nextCollection));
            const double now = passed();
            if (secondHalf && now >= *secondHalf + seconds / 2 && samples_.size() >= kFewestSamples)
                break;
            if (steady_clock::now() >= nextCollection) {
                nextCollection = steady_clock::now() + kCollectPeriod;
                collect();
            }
            if (steady_clock::now() < nextKill) continue;
            if (!secondHalf && now >= seconds / 4) {
                agent_.kill();
                startAgent();
                for (std::size_t i = 0; i < count_; ++i) waitUntilHeard(i, 0);
                secondHalf = passed() + seconds / 4;
            } else {
                if (secondHalf && now >= *secondHalf)
                    samples_.push_back({now, static_cast<double>(heap_->bytes) / 1024,
                                        privateKibibytes(agent_.pid()),
                                        usualDescriptors(agent_.pid())});
                killOne();
            }
            nextKill = steady_clock::now() + pause;
        }
    }

    // Answers whether nothing is missing; prints what was found.
    bool report() {
        const std::size_t shown = textsThatTheAgentShows();
        std::size_t failures = 0;
        for (auto& tool : tools_) tool.signal(SIGTERM);
        for (auto& tool : tools_) failures += tool.waitForExit() != 0;
        agent_.signal(SIGTERM);
        failures += agent_.waitForExit() != 0;
        collect();
        const Missing missing = whatIsMissing();
        const bool isSteady = reportAgent();
        std::printf("%zu tools, %ld kills: %ld updates, %ld missing; %ld events, %ld missing, %ld "
                    "twice or too many; %zu of %zu texts shown; %zu ended badly\n",
                    count_, kills_, missing.updates.of, missing.updates.missing, missing.events.of,
                    missing.events.missing, missing.tooMany, shown, count_, failures);
        return isSteady && missing.updates.of > 0 && missing.updates.missing == 0 &&
               missing.events.of > 0 && missing.events.missing == 0 && missing.tooMany == 0 &&
               shown == count_ && failures == 0;
    }

private:
    struct Share {
        long of = 0;
        long missing = 0;
    };
    struct Missing {
        Share updates;
        Share events;
        long tooMany = 0;
    };

    std::string progressPath() const { return home_.path() / "progress"; }
    std::string heapPath() const { return home_.path() / "heap"; }
    std::vector<std::string> argumentsOf(std::size_t tool) const {
        return {std::to_string(tool), progressPath(), std::to_string(count_)};
    }
    std::map<std::string, std::string> session() const {
        return {{"QT_QPA_PLATFORM", "offscreen"},
                {"LANGUAGE", "en"},
                {"DBUS_SESSION_BUS_ADDRESS", bus_.address()}};
    }

    void startAgent() {
        test::ChildProcessOptions options;
        options.environment = session();
        options.environment["LD_PRELOAD"] = test::places::kHeapCountLibrary;
        options.environment[test::kHeapCountVariable] = heapPath();
        if (!std::getenv(kAllocatorVariable))
            options.environment[kAllocatorVariable] = kWithoutKeptBlocks;
        options.diesWithTest = true;
        options.standardError = home_.path() / "agent.log";
        heap_->bytes = 0;
        agent_ = ChildProcess::program(test::places::kAgentProgram, {}, options);
        if (!test::eventually([&] { return published().find("com.korvane") != std::string::npos; }))
            throw std::runtime_error("the agent shows nothing");
        if (heap_->bytes <= 0) throw std::runtime_error("the agent's heap is not counted");
    }
    ChildProcess started(std::size_t tool) const {
        test::ChildProcessOptions options;
        options.environment = session();
        options.diesWithTest = true;
        auto process = bundles_[tool]->role("work", argumentsOf(tool), options);
        if (process.waitForLine() != "works") throw std::runtime_error("a tool does not start");
        return process;
    }

    void killOne() {
        const std::size_t tool = random_() % count_;
        tools_[tool].kill();
        ++kills_;
        const std::int64_t begun = progress_[tool].begun;
        if (begun != progress_[tool].recorded) uncertain_[tool].insert(begun);
        const std::int64_t said = progress_[tool].said;
        tools_[tool] = started(tool);
        // What was killed may have said one more than it noted.
        waitUntilHeard(tool, said + 1);
    }

    // Until the agent shows a text of the tool after the one of this number.
    void waitUntilHeard(std::size_t tool, std::int64_t number) const {
        std::string words = textOf(tool, 0);
        words.erase(words.rfind(' ') + 1);
        const bool isHeard = test::eventually([&] {
            const std::string list = published();
            const std::size_t place = list.find(words);
            return place != std::string::npos &&
                   std::stoll(list.substr(place + words.size())) > number;
        });
        if (!isHeard)
            throw std::runtime_error("the agent does not hear tool " + std::to_string(tool));
    }

    std::string published() const {
        return test::runProgram({"gdbus", "call", "--session", "--dest", "com.korvane.utilia",
                                 "--object-path", "/com/korvane/utilia/Tools", "--method",
                                 "com.korvane.utilia.Tools1.List"},
                                {{"DBUS_SESSION_BUS_ADDRESS", bus_.address()}})
            .text;
    }

    // The tools end their work for it: what each has said by then must be there.
    std::size_t textsThatTheAgentShows() {
        for (auto& tool : tools_) tool.say("hush");
        for (auto& tool : tools_) {
            if (tool.waitForLine() != "hushed") throw std::runtime_error("a tool goes on talking");
        }
        std::size_t shown = 0;
        (void)test::eventually([&] {
            const std::string list = published();
            shown = 0;
            for (std::size_t i = 0; i < count_; ++i)
                shown += list.find(textOf(i, progress_[i].said)) != std::string::npos;
            return shown == count_;
        });
        return shown;
    }

    void collect() {
        for (;;) {
            const platform::UniqueFd file(CEPLogGrab(nullptr));
            if (!file) return;
            std::string document;
            char chunk[1 << 16];
            for (ssize_t size = 0; (size = read(file.get(), chunk, sizeof chunk)) > 0;)
                document.append(chunk, static_cast<std::size_t>(size));
            addEvents(document);
        }
    }
    void addEvents(const std::string& document) {
        constexpr std::string_view kBegin = "<details ";
        for (std::size_t at = document.find(kBegin); at != std::string::npos;
             at = document.find(kBegin, at + 1)) {
            const std::string_view element =
                std::string_view(document).substr(at, document.find('>', at) - at);
            const auto valueOf = [&](std::string_view name) -> std::optional<long> {
                const std::string begin = " " + std::string(name) + "=\"";
                const std::size_t place = element.find(begin);
                if (place == std::string_view::npos) return std::nullopt;
                return std::stol(std::string(element.substr(place + begin.size())));
            };
            const auto tool = valueOf("tool"), number = valueOf("number");
            if (tool && number) ++found_.at(static_cast<std::size_t>(*tool))[*number];
        }
    }

    Missing whatIsMissing() const {
        Missing missing;
        for (std::size_t i = 0; i < count_; ++i) {
            const Progress& progress = progress_[i];
            std::int64_t stored = 0;
            readSchedulerPlist(bundles_[i]->options().bundleIdentifier, bundles_[i]->options().name,
                               [&](const Dictionary& record) {
                                   if (const Value* const count = record.find(kCountKey))
                                       stored = count->longLongValue();
                               });
            missing.updates.of += progress.stored;
            missing.updates.missing += std::max<std::int64_t>(0, progress.stored - stored);
            for (std::int64_t number = 1; number <= progress.begun; ++number) {
                const auto event = found_[i].find(number);
                const int times = event == found_[i].end() ? 0 : event->second;
                const bool isUncertain = uncertain_[i].contains(number);
                missing.events.of += !isUncertain;
                missing.events.missing += times == 0 && !isUncertain;
                missing.tooMany += std::max(0, times - 1);
            }
            missing.tooMany += !found_[i].empty() && found_[i].rbegin()->first > progress.begun;
        }
        return missing;
    }

    // Over the second half, in which nobody killed the agent.
    bool reportAgent() const {
        if (samples_.size() < 2) throw std::runtime_error("too short to see how the agent grows");
        const test::Trend heap = test::trend(samples_, &Sample::heap, kHeapLimits.longEnough);
        const test::Trend memory = test::trend(samples_, &Sample::memory, kMemoryLimits.longEnough);
        print("the agent's heap", heap);
        print("its memory", memory);
        const auto quarter =
            static_cast<std::ptrdiff_t>(std::max<std::size_t>(1, samples_.size() / 4));
        // A killed tool's connections are not all gone, and the new one's not all there, at each sample.
        const auto byDescriptors = [](const Sample& a, const Sample& b) {
            return a.descriptors < b.descriptors;
        };
        const auto fewest = [&](auto begin, auto end) {
            return std::min_element(begin, end, byDescriptors)->descriptors;
        };
        const std::size_t before = fewest(samples_.begin(), samples_.begin() + quarter);
        const std::size_t after = fewest(samples_.end() - quarter, samples_.end());
        std::printf("its descriptors: %zu, then %zu\n", before, after);
        return heap.isWithin(kHeapLimits) && memory.isWithin(kMemoryLimits) && after <= before + 2;
    }

    const test::TemporaryHome home_;
    const test::PrivateBus bus_{home_.runtime() / "bus"};
    const std::size_t count_;
    Progress* const progress_;
    test::HeapCount* const heap_;
    std::vector<std::unique_ptr<TestBundle>> bundles_;
    ChildProcess agent_;
    std::vector<ChildProcess> tools_;
    std::vector<std::map<std::int64_t, int>> found_;  // of each tool's events, how often
    std::vector<std::set<std::int64_t>> uncertain_;   // what a killed tool had begun
    std::vector<Sample> samples_;
    std::mt19937 random_{std::random_device{}()};
    long kills_ = 0;
};

}  // namespace

int main(int argc, char** argv) try {
    int status = 0;
    if (test::runChildRole(argc, argv, &status)) return status;
    double seconds = 20;
    long tools = 12, pause = kKillPeriod.count();
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--seconds") == 0)
            seconds = std::atof(argv[i + 1]);
        else if (std::strcmp(argv[i], "--tools") == 0)
            tools = std::strtol(argv[i + 1], nullptr, 10);
        else if (std::strcmp(argv[i], "--pause") == 0)
            pause = std::strtol(argv[i + 1], nullptr, 10);
        else
            tools = 0;
    }
    if (argc % 2 == 0 || seconds < 12 || tools < 1 || pause < 1) {
        std::fprintf(
            stderr,
            "usage: %s [--seconds N] [--tools N] [--pause MILLISECONDS]; at least 12 seconds\n",
            argv[0]);
        return 2;
    }
    Soak soak(static_cast<std::size_t>(tools));
    soak.run(seconds, std::chrono::milliseconds(pause));
    return soak.report() ? 0 : 1;
} catch (const std::exception& exception) {
    std::fprintf(stderr, "soak: %s\n", exception.what());
    return 1;
}
