#include "Benchmarks/Stores/StoreMeasures.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>

#include <sys/stat.h>
#include <unistd.h>

#include "Benchmarks/Stores/PeerStores.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

// The framework's store is filled through its own calls, with the records that it keeps in earnest.
// The peers get the same number of records and values; the bare replace writes as many bytes as the
// framework's file has.

namespace utilia::bench {
namespace {

// A process that updated a moment ago pauses after the next update, to let others have their turn.
// A single change, as a tool makes it, does not meet that; so the changes of one store are measured
// farther apart than that moment.
constexpr auto kBeforeEach = 2'000;  // microseconds, five times between two changes of one store
constexpr int kTightWriters = 8;

std::string bundleIdentifier(int record) {
    return "com.korvane.utilia.benchmark.tool" + std::to_string(record);
}
std::string toolName(int record) { return "tool" + std::to_string(record); }

void fillStore() {
    for (int record = 0; record < kRecords; ++record) {
        updateSchedulerPlist(bundleIdentifier(record), toolName(record), [&](Dictionary& values) {
            values.set(kSchedulerLaunchAtDateKey, true);
            values.set(kSchedulerLaunchAtLoginKey, false);
            values.set(kSchedulerDateKey, Date{700'000'000.25});
            values.set(kSchedulerIntervalKey, 0);
            values.set("note", "kept by this record alone");
            values.set("number", record);
        });
    }
}

std::string storePath() {
    std::string path;
    accessAppGroupPlist([&path](platform::UserDefaults& suite) { path = suite.path(); });
    if (path.empty()) throw std::runtime_error("the store has no path");
    return path;
}

Data storeBytes() {
    std::ifstream file(storePath(), std::ios::binary);
    return Data(std::istreambuf_iterator<char>(file), {});
}

class OwnStore final : public PeerStore {
public:
    void update(int record, int value) override {
        updateSchedulerPlist(
            bundleIdentifier(record), toolName(record),
            [value](Dictionary& values) { values.set(kSchedulerIntervalKey, value); });
    }
};

// What the framework's store says of a record.
int storedValue(int record) {
    std::optional<std::int64_t> value;
    readSchedulerPlist(bundleIdentifier(record), toolName(record),
                       [&value](const Dictionary& values) {
                           if (const Value* interval = values.find(kSchedulerIntervalKey))
                               value = interval->longLongValue();
                       });
    return static_cast<int>(value.value_or(-1));
}

}  // namespace

MemoryFolder::MemoryFolder() : path_("/dev/shm/utilia-benchmark-XXXXXX") {
    if (!mkdtemp(path_.data())) fail("mkdtemp " + path_);
    // The framework asks for its folders when the store is first used.
    setenv("XDG_DATA_HOME", path_.c_str(), 1);
    setenv("XDG_STATE_HOME", path_.c_str(), 1);
}

MemoryFolder::~MemoryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Figures measureUpdate(const Settings& settings) {
    fillStore();
    const Data bytes = storeBytes();
    struct Measured {
        const char* metric;
        std::unique_ptr<PeerStore> store;
        std::vector<double> microseconds;
    };
    Measured all[] = {{"utilia_us", std::make_unique<OwnStore>(), {}},
                      {"replace_us", makeBareReplace(settings.folder, bytes), {}},
                      {"libplist_us", makePropertyListOnly(bytes), {}},
                      {"keyfile_us", makeKeyFile(settings.folder), {}},
                      {"sqlite_us", makeSQLite(settings.folder), {}}};
    const int changes = std::max(5, static_cast<int>(settings.seconds * 200));
    for (int i = 1; i <= changes; ++i) {
        for (Measured& one : all) {
            usleep(kBeforeEach);
            const std::uint64_t before = nanoseconds();
            one.store->update(i % kRecords, i);
            one.microseconds.push_back(static_cast<double>(nanoseconds() - before) / 1e3);
        }
    }
    if (storedValue(changes % kRecords) != changes) throw std::runtime_error("an update is lost");
    Figures figures;
    for (Measured& one : all) figures.emplace_back(one.metric, percentile(one.microseconds, 50));
    return figures;
}

namespace {

struct Writer {
    std::atomic<int> updates;
    std::atomic<std::uint64_t> longest;
};

}  // namespace

Figures measureTightWriters(const std::string& store, const Settings& settings) {
    // Filled apart: the writers open the store themselves, as separate tools do.
    waitFor(inChild(fillStore));
    Data bytes;
    if (store == "replace") bytes.resize(10'000);
    auto* ready = shared<std::atomic<int>>();
    auto* writers = shared<Writer>(kTightWriters);
    std::vector<pid_t> children;
    for (int i = 0; i < kTightWriters; ++i) {
        children.push_back(inChild([&, i] {
            const auto own = store == "utilia" ? std::make_unique<OwnStore>()
                                               : makeBareReplace(settings.folder, bytes);
            ++*ready;
            waitUntil([ready] { return *ready == kTightWriters; });
            const std::uint64_t end =
                nanoseconds() + static_cast<std::uint64_t>(settings.seconds * 1e9);
            Writer& writer = writers[i];
            for (std::uint64_t before = nanoseconds(); before < end;) {
                own->update(i, ++writer.updates);
                const std::uint64_t after = nanoseconds();
                writer.longest = std::max<std::uint64_t>(writer.longest, after - before);
                before = after;
            }
        }));
    }
    for (const pid_t child : children) waitFor(child);

    int all = 0, least = writers[0].updates, most = 0, lost = 0;
    std::uint64_t longest = 0;
    for (int i = 0; i < kTightWriters; ++i) {
        const int updates = writers[i].updates;
        all += updates;
        least = std::min(least, updates);
        most = std::max(most, updates);
        longest = std::max<std::uint64_t>(longest, writers[i].longest);
        if (store == "utilia") lost += updates - storedValue(i);
    }
    return {{"per_s", all / settings.seconds},
            {"longest_wait_ms", static_cast<double>(longest) / 1e6},
            {"fairness", static_cast<double>(least) / most},
            {"lost", static_cast<double>(lost)}};
}

Figures measureCachedRead(const Settings& settings) {
    fillStore();
    accessAppGroupPlist(
        [](platform::UserDefaults& suite) { suite.setObject("text", "benchmark"); });
    const int rounds = std::max(1000, static_cast<int>(settings.seconds * 200'000));
    double readTime = 0, statTime = 0;
    accessAppGroupPlist([&](platform::UserDefaults& suite) {
        if (suite.stringForKey("benchmark") != "text")
            throw std::runtime_error("the key is missing");
        const std::string path = suite.path();
        const std::uint64_t start = nanoseconds();
        std::size_t found = 0;
        for (int i = 0; i < rounds; ++i) found += suite.objectForKey("benchmark").has_value();
        const std::uint64_t between = nanoseconds();
        struct stat status {};
        for (int i = 0; i < rounds; ++i) check(stat(path.c_str(), &status), "stat");
        const std::uint64_t end = nanoseconds();
        if (found != static_cast<std::size_t>(rounds)) throw std::runtime_error("a read failed");
        readTime = static_cast<double>(between - start) / 1e3 / rounds;
        statTime = static_cast<double>(end - between) / 1e3 / rounds;
    });
    return {{"read_us", readTime}, {"stat_us", statTime}, {"over_stat_us", readTime - statTime}};
}

namespace {

// Written at once: one update for each would take a quarter of an hour.
void storeSchedules(int records) {
    accessAppGroupPlist([records](platform::UserDefaults& suite) {
        Array all;
        for (int record = 0; record < records; ++record) {
            all.append(Dictionary{{std::string(kSchedulerBundleIdKey), bundleIdentifier(record)},
                                  {std::string(kSchedulerNameKey), toolName(record)},
                                  {std::string(kSchedulerLaunchAtDateKey), true},
                                  {std::string(kSchedulerDateKey), Date{700'000'000.25 + record}},
                                  {std::string(kSchedulerIntervalKey), 0}});
        }
        suite.setObject(std::move(all), kSchedulerKey);
    });
}

double microsecondsToList(int records) {
    int found = 0;
    double dates = 0;
    const std::uint64_t before = nanoseconds();
    AgentScheduler::enumerateTools([&](const auto& bundleId, const auto& name, const auto& date) {
        found += bundleId && name && date;
        dates += date->secondsSinceReferenceDate;
    });
    const std::uint64_t after = nanoseconds();
    if (found != records || dates < 700e6 * records) throw std::runtime_error("a tool is missing");
    return static_cast<double>(after - before) / 1e3;
}

}  // namespace

Figures measureScheduleList(int records, const Settings& settings) {
    const int rounds = std::max(5, static_cast<int>(settings.seconds * 60));
    std::vector<double> fresh, again;
    for (int round = 0; round < rounds; ++round) {
        waitFor(inChild([records] { storeSchedules(records); }));
        fresh.push_back(microsecondsToList(records));
        again.push_back(microsecondsToList(records));
    }
    const double list = percentile(fresh, 50);
    return {{"list_us", list},
            {"read_again_us", percentile(again, 50)},
            {"per_record_us", list / records}};
}

}  // namespace utilia::bench
