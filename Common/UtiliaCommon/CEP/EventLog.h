#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"

// The log of usage events that all applications of the user write into: one XML file, its lock, and
// the step by which a finished file is taken away (Documentation/Formats/EventLog.md).
//
// Nothing here asks whether reporting is switched on; callers do.
//
// Failures are the codes below and are not logged. No call ends with an exception. All wait for
// locks of the log's files as long as it takes; a wait of more than two seconds is logged once.
//
// Threads: any, from CEPLogInit() on.

namespace utilia {

// Contract: never renumber.
enum class EventLogCode : int {
    Done = 0,
    NothingToGrab = -1,
    NoLogsFolder = -336,
    // The overflow file, or what a killed collector has left: also no plain file, another user's, or
    // one that cannot be mended or removed now.
    OverflowNotReadable = -748,
    LogNotOpened = -755,    // or not locked: also a folder, a link, a pipe that nobody reads
    LogNotExamined = -761,  // also a pipe with a reader, or another user's file
    LogNameNotExamined = -767,
    LogNotMoved = -780,
    LogNotReady = -1051,  // not opened, locked, examined, ended or created
    RecordNotWritten = -1056,
};

// Learns where the log lies and who this process is: 0, or -336 when the folder "Logs" of the
// user's Library can neither be made nor is there. Once per process, before the first event; another
// call learns anew. Before it has succeeded, events are refused with -1051 and there is nothing to
// grab.
UTILIA_EXPORT int CEPLogInit();

// Appends one record: 0, -1051 or -1056. Of the dictionaries, which may be null, everything is
// written that the log's format can hold. A call that answers 0 has given the record to the kernel,
// whole; no other process's record is ever cut by it.
UTILIA_EXPORT int CEPLogEvent(std::string_view action, const Dictionary* attributes,
                              const Dictionary* options, const Dictionary* details);

// Takes one finished file away from the writers: a descriptor for reading, at the file's beginning
// and close-on-exec, of a whole document that has no name any more; or a negative code. The caller
// closes it. `*isMore` becomes 0 when the current log was ended for this, and stays 1 when an
// overflow file lay there already, so that another call will find more. Null is allowed.
UTILIA_EXPORT int CEPLogGrab(int* isMore);

// The documents that grabbing until there is nothing more would hand over now, the first one first,
// each whole and with its footer. Nothing is changed or taken. Files that cannot be read are left out.
UTILIA_EXPORT std::vector<std::string> CEPLogDocuments();

// Where the current log lies, whether or not it is there; empty before CEPLogInit().
UTILIA_EXPORT std::string CEPLogPath();

}  // namespace utilia
