#include "Applications/Reporting/NextUpload.h"

#include <cerrno>
#include <utility>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/LockedFile.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"
#include "Common/UtiliaCommon/CEP/ReportUpload.h"

namespace utilia::reporting {
namespace {

using platform::FileManager;

std::size_t freeNames(const std::string& folder) {
    std::size_t free = 0;
    for (std::size_t number = 0; number < kMaximumReports; ++number)
        free += FileManager::isNothingAtPath(
            stringByAppendingPathComponent(folder, reportName(number)));
    return free;
}

}  // namespace

Result<std::string> NextReport::read(std::size_t maximumSize) const {
    if (bytes > maximumSize)
        return Error::utilia(UtiliaErrorCode::Refused, (path.empty() ? "the log" : path) + " has " +
                                                           std::to_string(bytes) + " bytes");
    if (path.empty()) return document;
    const auto content = FileManager::contentsAtPath(path, maximumSize);
    if (!content) return content.error();
    // Its name is another report's by now.
    if (content->size() != bytes) return Error::posix(ENOENT, "read", path);
    return std::string(content->begin(), content->end());
}

Result<NextUpload> nextUpload() {
    // Where there can be no lock, collecting goes on without it as well.
    const auto turn = platform::LockedFile::openOrCreate(CEPLog::lockFile(), 0644);
    const std::string folder = reportFolder();
    NextUpload next;
    if (!FileManager::isNothingAtPath(folder)) {
        const auto waiting = waitingReports(folder);
        if (!waiting) return waiting.error();
        for (const std::string& name : *waiting) {
            // What such a name stands for is never sent.
            if (isReportUploadBuilt() && !isUsableInUpload(name)) continue;
            NextReport report{
                .path = stringByAppendingPathComponent(folder, name), .name = name, .document = {}};
            if (const auto status = FileManager::attributesOfItemAtPath(report.path)) {
                // What is no file is not sent as one.
                if (status->type != platform::ItemStatus::Type::RegularFile) continue;
                report.bytes = status->size;
            } else if (FileManager::isNothingAtPath(report.path)) {
                continue;  // accepted in the meantime
            }
            next.reports.push_back(std::move(report));
        }
    }
    std::vector<std::string> logs = CEPLogDocuments();
    if (const std::size_t free = freeNames(folder); isReportUploadBuilt() && logs.size() > free) {
        logs.resize(free);
        next.isFull = true;
    }
    for (std::string& log : logs)
        next.reports.push_back(
            {.path = {}, .name = {}, .bytes = log.size(), .document = std::move(log)});
    return next;
}

}  // namespace utilia::reporting
