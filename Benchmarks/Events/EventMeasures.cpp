#include "Benchmarks/Events/EventMeasures.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "Benchmarks/Events/EventLogs.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"

namespace utilia::bench {
namespace {

struct Writer {
    std::atomic<std::uint64_t> records;
    std::atomic<std::uint64_t> longest;
};

std::function<std::unique_ptr<PeerLog>()> makerOf(const std::string& log,
                                                  const std::string& folder) {
    if (log == "utilia") return makeOwnLog;
    if (log == "append") return [folder] { return makeBareAppend(folder); };
    if (log == "by hand") return [folder] { return makeHandMadeLog(folder); };
    if (log == "spdlog") return [folder] { return makeSpdlog(folder); };
    if (log == "journald") return makeJournal;
    if (log == "SQLite") return [folder] { return makeSQLiteLog(folder); };
    throw std::runtime_error("no log " + log);
}

}  // namespace

Figures measureEvents(const std::string& log, int processes, const Settings& settings) {
    if (CEPLogInit() != 0) throw std::runtime_error("CEPLogInit");
    std::optional<pid_t> journal;
    if (log == "journald") journal = startJournal();
    const auto make = makerOf(log, settings.folder);
    make()->append();
    if (log == "utilia") {
        const auto size = std::filesystem::file_size(CEPLogPath());
        make()->append();
        if (std::filesystem::file_size(CEPLogPath()) != size + kRecordSize)
            throw std::runtime_error("the record has another size");
    }
    auto* const ready = shared<std::atomic<int>>();
    auto* const writers = shared<Writer>(static_cast<std::size_t>(processes));
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        children.push_back(inChild([&, i] {
            const auto own = make();
            ++*ready;
            waitUntil([ready, processes] { return *ready == processes; });
            const std::uint64_t end =
                nanoseconds() + static_cast<std::uint64_t>(settings.seconds * 1e9);
            std::uint64_t records = 0;
            std::uint64_t longest = 0;
            for (std::uint64_t before = nanoseconds(); before < end; ++records) {
                own->append();
                const std::uint64_t after = nanoseconds();
                longest = std::max(longest, after - before);
                before = after;
            }
            writers[i].records = records;
            writers[i].longest = longest;
        }));
    }
    for (const pid_t child : children) waitFor(child);
    if (journal) endProgram(*journal);
    double all = 0;
    std::uint64_t longest = 0;
    for (int i = 0; i < processes; ++i) {
        all += static_cast<double>(writers[i].records);
        longest = std::max<std::uint64_t>(longest, writers[i].longest);
    }
    return {{"per_s", all / settings.seconds},
            {"us", settings.seconds * 1e6 / all},
            {"longest_ms", static_cast<double>(longest) / 1e6}};
}

Figures measureFormatting(const Settings& settings) {
    // A program of its own: the framework does not offer the formatting alone.
    const std::string program =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / "utilia-format-records";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(
        popen((program + " " + std::to_string(settings.seconds)).c_str(), "re"), pclose);
    double perSecond = 0;
    double allocations = 0;
    if (!output || std::fscanf(output.get(), "%lf %lf", &perSecond, &allocations) != 2)
        throw std::runtime_error(program + " says nothing");
    return {{"per_s", perSecond}, {"allocations", allocations}};
}

}  // namespace utilia::bench
