#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/Foundation/Result.h"

namespace utilia::reporting {

// One document that the next upload would send.
struct NextReport {
    std::string path;  // of the report that waits; empty for a log, of which the upload makes one
    std::string name;  // of that report in the report folder
    std::uint64_t bytes = 0;
    std::string document;  // of a log; that of a report stays in its file until it is read

    // The whole document, byte for byte. Fails with ENOENT when the report has been accepted or deleted since, and with
    // Refused when it is larger.
    Result<std::string> read(std::size_t maximumSize) const;
};

struct NextUpload {
    std::vector<NextReport> reports;  // in the order in which they are sent
    // As many reports wait as there are names: what is recorded, or the rest of it, is lost and not among them.
    bool isFull = false;
};

// What the next upload would send if it came now and usage reporting were on; in builds without uploads, what waits and
// what is recorded. Nothing is changed. Nobody collects meanwhile: the lock of CEPLog is waited for, as long as it takes.
// Fails where the report folder cannot be listed.
//
// Threads: any.
Result<NextUpload> nextUpload();

}  // namespace utilia::reporting
