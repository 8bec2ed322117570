#include "Applications/Reporting/SentReports.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <utility>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/FileLock.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Common/Platform/Task.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"

namespace utilia::reporting {
namespace {

using platform::FileManager;
using Outcome = SentReport::Outcome;

constexpr std::string_view kListName = "sent.plist";
constexpr std::size_t kMaximumListSize = 64u << 10;
constexpr std::chrono::seconds kPatience{2};  // for another process at work here
// How long the copy of a report is kept that seems to be refused: its task may not have begun, since reports are
// announced all at once and tasks are launched one after the other.
constexpr double kSecondsUntilCertain = 600;
constexpr std::string_view kDateKey = "date";
constexpr std::string_view kNameKey = "report";
constexpr std::string_view kBytesKey = "bytes";
constexpr std::string_view kOutcomeKey = "outcome";
constexpr std::string_view kDocumentKey = "document";

constexpr std::pair<Outcome, std::string_view> kOutcomes[] = {
    {Outcome::UnderWay, "under way"},
    {Outcome::Accepted, "accepted"},
    {Outcome::Refused, "refused"},
};

std::string reportPath(const std::string& name) {
    return stringByAppendingPathComponent(reportFolder(), name);
}

// By where it lies below the report folder, which is how the framework names it.
std::string nameOf(const std::string& report) {
    const std::string folder = reportFolder() + "/";
    return report.starts_with(folder) ? report.substr(folder.size()) : lastPathComponent(report);
}

// A file name of this folder, and nothing that leads elsewhere.
bool isFileName(std::string_view name) {
    return !name.empty() && name.find('/') == name.npos && name.front() != '.';
}

std::optional<SentReport> reportIn(const Value& value, const std::string& folder) {
    const Dictionary* const entry = value.dictionary();
    const Value* const date = entry ? entry->find(kDateKey) : nullptr;
    const Value* const bytes = entry ? entry->find(kBytesKey) : nullptr;
    const auto name = entry ? entry->string(kNameKey) : std::nullopt;
    if (!date || !date->date() || !name) return std::nullopt;
    SentReport report{.date = *date->date(), .name = *name, .document = {}};
    if (bytes && bytes->integer() && *bytes->integer() > 0)
        report.bytes = static_cast<std::uint64_t>(*bytes->integer());
    const auto outcome = entry->string(kOutcomeKey);
    for (const auto& [one, text] : kOutcomes) {
        if (outcome == text) report.outcome = one;
    }
    const auto document = entry->string(kDocumentKey);
    if (document && isFileName(*document))
        report.document = stringByAppendingPathComponent(folder, *document);
    return report;
}

Value valueOf(const SentReport& report) {
    Dictionary entry{{std::string(kDateKey), report.date},
                     {std::string(kNameKey), report.name},
                     {std::string(kBytesKey), report.bytes}};
    for (const auto& [one, text] : kOutcomes) {
        if (report.outcome == one) entry.set(kOutcomeKey, text);
    }
    if (!report.document.empty()) entry.set(kDocumentKey, lastPathComponent(report.document));
    return entry;
}

}  // namespace

std::string SentReports::defaultFolder() {
    return FileManager::libraryDirectory() + "/Application Support/com.korvane.utilia/Sent Reports";
}

std::string SentReports::pathOf(const std::string& name) const {
    return stringByAppendingPathComponent(folder_, name);
}

void SentReports::willSend(const std::vector<std::string>& reports, Date now) const {
    change([&](std::vector<SentReport>& all) {
        decide(all, now);
        for (const std::string& report : reports) add(all, report, now);
        cut(all);
    });
}

void SentReports::settle(Date now) const {
    const auto known = all();
    if (!std::all_of(known.begin(), known.end(),
                     [](const auto& one) { return one.outcome == Outcome::Accepted; }))
        change([&](std::vector<SentReport>& all) { decide(all, now); });
}

std::vector<SentReport> SentReports::all() const {
    std::vector<SentReport> found;
    const auto bytes =
        FileManager::contentsAtPath(pathOf(std::string(kListName)), kMaximumListSize);
    const auto list = bytes ? platform::propertyListFromData(*bytes) : bytes.error();
    const Array* const entries = list ? list->array() : nullptr;
    if (!entries) return found;
    for (const Value& entry : *entries) {
        if (auto report = reportIn(entry, folder_)) found.push_back(*std::move(report));
    }
    return found;
}

std::optional<std::string> SentReports::documentOf(const SentReport& report) {
    // One that still waits is where it always was.
    const std::string path = report.document.empty() && report.outcome == Outcome::Refused
                                 ? reportPath(report.name)
                                 : report.document;
    if (path.empty()) return std::nullopt;
    const auto bytes = FileManager::contentsAtPath(path, kMaximumSize);
    if (!bytes) return std::nullopt;
    return std::string(bytes->begin(), bytes->end());
}

void SentReports::change(const Work& work) const {
    if (const auto made = FileManager::createDirectoryAtPath(folder_, 0700); !made) {
        KULogVariadic("Sent reports: %@", made.error());
        return;
    }
    const auto lock = platform::FileLock::acquire(pathOf("sent.lock"),
                                                  platform::FileLock::Mode::Exclusive, kPatience);
    if (!lock) {
        KULogVariadic("Sent reports: %@", lock.error());
        return;
    }
    const std::vector<SentReport> before = all();
    std::vector<SentReport> now = before;
    work(now);
    if (now == before) return;
    if (const auto written = write(now); !written)
        KULogVariadic("Sent reports: %@", written.error());
}

void SentReports::add(std::vector<SentReport>& all, const std::string& report, Date now) const {
    const auto status = FileManager::attributesOfItemAtPath(report);
    if (!status) return;  // accepted in the meantime, by another process's upload
    SentReport one{.date = now, .name = nameOf(report), .bytes = status->size, .document = {}};
    // One try of the same report is enough to know.
    std::erase_if(all, [&](SentReport& other) {
        if (other.name != one.name || other.outcome == Outcome::Accepted) return false;
        forgetCopy(other);
        return true;
    });
    one.document = keepCopy(report, now);
    all.insert(all.begin(), std::move(one));
}

void SentReports::decide(std::vector<SentReport>& all, Date now) const {
    for (SentReport& report : all) {
        if (report.outcome == Outcome::Accepted) continue;
        if (platform::Task::isLocked(reportPath(report.name))) {
            report.outcome = Outcome::UnderWay;
            continue;
        }
        const auto isWaiting = isStillWaiting(report);
        if (!isWaiting) continue;
        report.outcome = *isWaiting ? Outcome::Refused : Outcome::Accepted;
        const double age = now.secondsSinceReferenceDate - report.date.secondsSinceReferenceDate;
        if (*isWaiting && age > kSecondsUntilCertain) forgetCopy(report);
    }
}

// Its name may be another report's by now. Empty where that cannot be seen for the moment.
std::optional<bool> SentReports::isStillWaiting(const SentReport& report) const {
    const std::string path = reportPath(report.name);
    if (FileManager::isNothingAtPath(path)) return false;
    const auto status = FileManager::attributesOfItemAtPath(path);
    if (!status) return std::nullopt;
    if (status->size != report.bytes) return false;
    if (report.document.empty()) return true;
    const auto copy = documentOf(report);
    const auto bytes = FileManager::contentsAtPath(path, kMaximumSize);
    if (!bytes && bytes.error().isPosix(ENOENT)) return false;
    return !copy || !bytes || std::string(bytes->begin(), bytes->end()) == *copy;
}

std::string SentReports::keepCopy(const std::string& report, Date now) const {
    const auto bytes = FileManager::contentsAtPath(report, kMaximumSize);
    if (!bytes) return {};  // too large to be kept
    const auto milliseconds = std::llround(now.secondsSinceReferenceDate * 1000);
    for (int number = 0;; ++number) {
        const std::string path = pathOf("report-" + std::to_string(milliseconds) + "-" +
                                        std::to_string(number) + ".xml");
        if (FileManager::fileExistsAtPath(path)) continue;
        const auto written = FileManager::writeAtomically(path, *bytes);
        if (!written) KULogVariadic("Sent reports: %@", written.error());
        return written ? path : std::string();
    }
}

void SentReports::forgetCopy(SentReport& report) const {
    if (!report.document.empty()) (void)FileManager::removeItemAtPath(report.document);
    report.document.clear();
}

void SentReports::cut(std::vector<SentReport>& all) const {
    for (std::size_t i = kMaximumReports; i < all.size(); ++i) forgetCopy(all[i]);
    if (all.size() > kMaximumReports) all.resize(kMaximumReports);
    std::size_t size = 0;
    for (SentReport& report : all) {
        if (report.document.empty()) continue;
        size += report.bytes;
        if (size > kMaximumSize) forgetCopy(report);
    }
}

Result<void> SentReports::write(const std::vector<SentReport>& all) const {
    Array list;
    for (const SentReport& report : all) list.append(valueOf(report));
    const auto bytes =
        platform::dataFromPropertyList(Value(list), platform::PropertyListFormat::Xml);
    if (!bytes) return bytes.error();
    return FileManager::writeAtomically(pathOf(std::string(kListName)), *bytes);
}

}  // namespace utilia::reporting
