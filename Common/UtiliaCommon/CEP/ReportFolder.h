#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Platform/UniqueFd.h"

// The reports that wait for their upload: a folder of finished logs
// (Documentation/Formats/UsageReports.md).
//
// Threads: any. Whoever adds reports holds the lock file of CEPLog; whoever lists them may find that one has been accepted
// and removed in the meantime.

namespace utilia {

inline constexpr std::size_t kMaximumReports = 100;  // contract: that many names there are

// "…/Library/Logs/KorvaneUtilia", whether or not it is there.
UTILIA_EXPORT std::string reportFolder();

// "utilia_report.xml" for 0, "utilia_report (N).xml" for 1 to 99.
UTILIA_EXPORT std::string reportName(std::size_t number);

// What waits in the folder and in those below it, by paths relative to it, sorted.
UTILIA_EXPORT Result<std::vector<std::string>> waitingReports(const std::string& folder);

// Makes a report of a log that was taken away, under the first name that is free: its path. It
// appears whole or not at all. The log's space on the disk is free for it, as the log is closed
// before.
//
// A log that cannot be read to its end makes a report of the records that could be read, with one
// log line. Busy when every name is taken; then, and on any other error, the log is lost.
Result<std::string> addReport(const std::string& folder, platform::UniqueFd grabbed);

// What is whole in a document that could not be read to its end, with a footer; empty when not even
// its header is.
std::string finishedDocument(std::string_view readable);

}  // namespace utilia
