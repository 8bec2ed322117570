#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace utilia::bench {

// Something that takes records of kRecordSize bytes from several processes.
class PeerLog {
public:
    virtual ~PeerLog() = default;
    // In the process that writes; fails the measurement when it cannot.
    virtual void append() = 0;
};

inline constexpr std::size_t kRecordSize = 300;
// A record of that size, as the framework writes it.
std::string_view sampleRecord();

// CEPLogEvent() of such an event: it is formatted, and the log is ended at 5 MiB.
std::unique_ptr<PeerLog> makeOwnLog();
// The least: a write to a descriptor that stays open.
std::unique_ptr<PeerLog> makeBareAppend(const std::string& folder);
// The same system calls as the framework's, with ready bytes: open, flock, fstat, write and close,
// and at 5 MiB exclusive lock, rename, footer, fchmod, fsync, and a new file that is
// published with its lock and header.
std::unique_ptr<PeerLog> makeHandMadeLog(const std::string& folder);
// spdlog's file sink, flushed after each record; nothing is ended.
std::unique_ptr<PeerLog> makeSpdlog(const std::string& folder);
// journald, which startJournal() has started.
std::unique_ptr<PeerLog> makeJournal();
// An SQLite table, WAL with synchronous=NORMAL.
std::unique_ptr<PeerLog> makeSQLiteLog(const std::string& folder);

// A journald of the calling process's own, in a mount namespace; takes root. Answers its process.
pid_t startJournal();

}  // namespace utilia::bench
