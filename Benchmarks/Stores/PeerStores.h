#pragma once

#include <memory>
#include <string>

#include "Common/Foundation/Value.h"

namespace utilia::bench {

// Something that keeps 50 records of 8 values and changes one value of one record.
class PeerStore {
public:
    virtual ~PeerStore() = default;
    // In the process that updates: changes a value of the record, and has it on disk on return.
    virtual void update(int record, int value) = 0;
};

inline constexpr int kRecords = 50;

// The least that an update under a lock costs: flock, read the file, write as many bytes to a new
// file, fdatasync, rename. Nothing is parsed. `bytes` is what the framework's own file holds.
std::unique_ptr<PeerStore> makeBareReplace(const std::string& folder, const Data& bytes);
// What libplist takes to parse those bytes and to write the changed tree; no file is touched.
std::unique_ptr<PeerStore> makePropertyListOnly(const Data& bytes);
// A GLib key file of the same records, replaced like the bare file.
std::unique_ptr<PeerStore> makeKeyFile(const std::string& folder);
// An SQLite table with a rollback journal and synchronous=NORMAL, kept open.
std::unique_ptr<PeerStore> makeSQLite(const std::string& folder);

}  // namespace utilia::bench
