#pragma once

#include <string>

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// One change of one record out of 50, with its data synced, by a process that makes few of them,
// p50 of each store: utilia_us, replace_us (nothing is parsed), libplist_us (no file is touched),
// keyfile_us, sqlite_us. The stores take turns at every change, because a disk's mood lasts longer
// than a measurement.
Figures measureUpdate(const Settings& settings);

// Eight processes that update as fast as they can ("utilia" or "replace"): per_s, longest_wait_ms,
// fairness, lost.
Figures measureTightWriters(const std::string& store, const Settings& settings);

// The folder for files in memory instead of on a disk, for what is measured from now on: syncing
// costs nothing there, so what remains is the work. The home of the framework's data lies in it.
class MemoryFolder final {
public:
    MemoryFolder();
    ~MemoryFolder();
    MemoryFolder(const MemoryFolder&) = delete;
    MemoryFolder& operator=(const MemoryFolder&) = delete;

    Settings settings(const Settings& others) const { return {others.seconds, path_}; }

private:
    std::string path_;
};

// Reading a key of a domain that did not change, inside one access of the store, beside a stat of
// its file: read_us, stat_us.
Figures measureCachedRead(const Settings& settings);

// Listing all scheduled tools, as the agent does, of so many records, with a file that another
// process has just replaced (fresh) and one that this process has read already: list_us,
// read_again_us, and list_us for each record in per_record_us.
Figures measureScheduleList(int records, const Settings& settings);

}  // namespace utilia::bench
