#include "Benchmarks/Stores/ResourceMeasures.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "Benchmarks/Stores/StoreMeasures.h"
#include "Common/Platform/Bundle.h"
#include "Common/UtiliaCommon/Resources/ResourceManager.h"
#include "Common/UtiliaCommon/Resources/SharedResource.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

namespace utilia::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBundleId = "com.korvane.utilia.benchmark";
constexpr int kPerBundle = 10;

// Records as installations leave them, in one write.
void fillStore(int records, const std::string& path) {
    Dictionary all;
    for (int i = 0; i < records; i += kPerBundle) {
        Dictionary ofBundle;
        for (int j = i; j < std::min(i + kPerBundle, records); ++j) {
            ofBundle.set(
                "resource " + std::to_string(j),
                Dictionary{{std::string(kResourcePathKey), path},
                           {std::string(kResourceVersionKey), "9.0.0-" + std::to_string(j)}});
        }
        all.set(i == 0 ? kBundleId : kBundleId + std::to_string(i), std::move(ofBundle));
    }
    accessAppGroupPlist(
        [&](platform::UserDefaults& suite) { suite.setObject(all, kResourcesKey); });
}

std::unique_ptr<platform::Bundle> makeBundle(const fs::path& folder) {
    const fs::path path = folder / "Benchmark.app";
    fs::create_directories(path / "Contents/Resources");
    std::ofstream(path / "Contents/Info.plist")
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
           "<key>CFBundleIdentifier</key><string>"
        << kBundleId
        << "</string><key>CFBundleShortVersionString</key><string>5.1.2</string>"
           "<key>CFBundleVersion</key><string>3456</string></dict></plist>";
    auto bundle = platform::Bundle::bundleWithPath(path.string());
    if (!bundle || bundle->bundleIdentifier() != kBundleId) throw std::runtime_error("no bundle");
    return bundle;
}

// The store's file as another process would have written it: the same bytes in another file.
void writeAsAnotherProcess(const fs::path& store) {
    const fs::path copy = store.string() + ".copy";
    fs::copy_file(store, copy, fs::copy_options::overwrite_existing);
    fs::rename(copy, store);
}

template <class Work>
double medianMicroseconds(int rounds, const std::function<void()>& prepare, Work work) {
    std::vector<double> all;
    for (int i = 0; i < rounds; ++i) {
        prepare();
        const std::uint64_t before = nanoseconds();
        work();
        all.push_back(static_cast<double>(nanoseconds() - before) / 1e3);
    }
    return percentile(all, 50);
}

// What the compiler must not leave out.
volatile std::uint64_t used = 0;

template <class Work>
double nanosecondsOf(int rounds, Work work) {
    std::uint64_t sum = 0;
    const std::uint64_t before = nanoseconds();
    for (int i = 0; i < rounds; ++i) sum += static_cast<std::uint64_t>(work(i));
    const double time = static_cast<double>(nanoseconds() - before);
    used = used + sum;
    return time / rounds;
}

}  // namespace

Figures measureResourceChoice(int records, const Settings& settings) {
    const MemoryFolder memory;
    const fs::path folder = memory.settings(settings).folder;
    const fs::path program = folder / "program";
    std::ofstream(program) << "content";
    fs::permissions(program, fs::perms::owner_all);
    fillStore(records, program.string());
    std::string store;
    accessAppGroupPlist([&](platform::UserDefaults& suite) { store = suite.path(); });
    const auto bundle = makeBundle(folder);
    const std::string name = "resource " + std::to_string(std::min(records, kPerBundle) - 1);

    const auto choose = [&] {
        if (ResourceManager::getMostActualResourcePath(name, *bundle) != program.string())
            throw std::runtime_error("the wrong copy is chosen");
    };
    const SharedResource record(name, kBundleId);
    const int rounds = std::max(20, static_cast<int>(settings.seconds * 1000));
    const double again = medianMicroseconds(
        rounds, [] {}, choose);
    const double changed = medianMicroseconds(
        rounds, [&] { writeAsAnotherProcess(store); }, choose);
    std::uint64_t number = 0;
    const double update = medianMicroseconds(
        rounds, [] {},
        [&] {
            record.setVersion(IndexPath{9, 0, 1, ++number});
        });
    if (record.version() != IndexPath{9, 0, 1, number})
        throw std::runtime_error("a version is lost");
    return {{"again_us", again},
            {"changed_us", changed},
            {"changed_per_record_ns", changed * 1e3 / records},
            {"update_us", update},
            {"update_per_record_ns", update * 1e3 / records}};
}

Figures measureVersions(const Settings& settings) {
    const int rounds = std::max(10'000, static_cast<int>(settings.seconds * 1'000'000));
    const IndexPath versions[] = {{5, 1, 2, 3456}, {5, 1, 2, 3457}};
    const std::string texts[] = {"5.1.2-3456", "5.1.2-3457"};
    const double order =
        nanosecondsOf(rounds, [&](int i) { return versions[i & 1] < versions[~i & 1]; });
    const double text = nanosecondsOf(rounds, [&](int i) {
        return static_cast<int>(VersionManager::compareVersion(texts[i & 1], texts[~i & 1])) + 1;
    });
    const double parse = nanosecondsOf(rounds / 10, [&](int i) {
        return VersionManager::versionWithString(texts[i & 1])->indexAtPosition(3);
    });
    const double print = nanosecondsOf(rounds / 10, [&](int i) {
        return VersionManager::versionToStringReportForm(versions[i & 1]).size();
    });
    std::string large;
    while (large.size() < 1'000'000) large += "5.10 caf\u00E9 ";
    const std::string other = large + "1";
    const double whole = nanosecondsOf(std::max(3, rounds / 50'000), [&](int) {
        return static_cast<int>(VersionManager::compareVersion(large, other)) + 1;
    });
    return {{"order_ns", order},
            {"text_ns", text},
            {"parse_ns", parse},
            {"print_ns", print},
            {"text_per_byte_ns", whole / static_cast<double>(large.size())}};
}

}  // namespace utilia::bench
