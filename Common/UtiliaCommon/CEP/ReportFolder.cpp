#include "Common/UtiliaCommon/CEP/ReportFolder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/FileHandle.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/LockedFile.h"
#include "Common/UtiliaCommon/CEP/EventLogHeader.h"
#include "Common/UtiliaCommon/CEP/EventLogReader.h"

// A log that was taken away has no name any more: it is gone when this process is killed before the
// report has one. That cannot be helped. What can be is that a report is seen half copied, and sent
// so by the next upload; therefore it gets its name when it is whole. And as the log is read before
// the report is written, a disk that is full has room for the one what the other gives back.

namespace utilia {
namespace {

using platform::FileManager;
using platform::LockedFile;

constexpr std::size_t kChunk = 16'384;
constexpr std::uint32_t kReportMode = 0644;

bool isReport(const std::string& subpath) {
    return subpath.starts_with("utilia_report") && subpath.ends_with(".xml");
}

std::string readDocument(platform::UniqueFd grabbed) {
    platform::FileHandle file(std::move(grabbed));
    std::string document;
    for (std::array<char, kChunk> chunk;;) {
        const auto count = file.read(chunk);
        if (!count) {
            KULogVariadic("Usage reporting: a log cannot be read to its end, %ld bytes of it are "
                          "kept: %@",
                          document.size(), count.error());
            return finishedDocument(document);
        }
        if (*count == 0) return document;
        document.append(chunk.data(), *count);
    }
}

}  // namespace

std::string reportFolder() {
    return stringByAppendingPathComponent(FileManager::libraryDirectory(), "Logs/KorvaneUtilia");
}

std::string reportName(std::size_t number) {
    if (number == 0) return "utilia_report.xml";
    return "utilia_report (" + std::to_string(number) + ").xml";
}

Result<std::vector<std::string>> waitingReports(const std::string& folder) {
    auto subpaths = FileManager::subpathsOfDirectoryAtPath(folder);
    if (!subpaths) return subpaths;
    std::erase_if(*subpaths, [](const std::string& subpath) { return !isReport(subpath); });
    std::sort(subpaths->begin(), subpaths->end());
    return subpaths;
}

Result<std::string> addReport(const std::string& folder, platform::UniqueFd grabbed) {
    const std::string document = readDocument(std::move(grabbed));
    if (document.empty())
        return Error::utilia(UtiliaErrorCode::Refused, folder + ": nothing of a log can be read");
    for (std::size_t number = 0; number < kMaximumReports; ++number) {
        std::string path = stringByAppendingPathComponent(folder, reportName(number));
        const std::array<std::string_view, 1> content{document};
        auto created = LockedFile::create(path, kReportMode, content);
        if (!created && created.error().isPosix(EEXIST)) continue;
        if (!created) return std::move(created).error();
        // A report that is not on the disk yet is a report all the same.
        (void)created->synchronize();
        return path;
    }
    return Error::utilia(UtiliaErrorCode::Busy,
                         folder + ": " + std::to_string(kMaximumReports) +
                             " reports wait already, and that many names there are");
}

std::string finishedDocument(std::string_view readable) {
    std::string document;
    bool isHeaderSeen = false;
    EventLogReader reader([&](LogPart part, std::uint64_t, std::string_view bytes) {
        if (part == LogPart::Header) isHeaderSeen = true;
        if (part == LogPart::Header || part == LogPart::Record) document += bytes;
    });
    reader.read(readable);
    reader.finish();
    return isHeaderSeen ? document.append(kEventLogFooter) : std::string();
}

}  // namespace utilia
