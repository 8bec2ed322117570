#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

namespace utilia::reporting {

// One report that was sent, or tried to.
struct SentReport {
    enum class Outcome {
        UnderWay,
        Accepted,  // its file is gone: the server has taken it
        Refused,   // it still waits, and nobody sends it now
    };

    Date date;         // when its upload began
    std::string name;  // of its file in the report folder
    std::uint64_t bytes = 0;
    Outcome outcome = Outcome::UnderWay;
    std::string document;  // path of a copy; empty when none is kept

    bool isUnderWay() const { return outcome == Outcome::UnderWay; }
    bool operator==(const SentReport&) const = default;
};

// What users can see of the reports that were sent: the last of them, and copies of those that are no longer in the report
// folder. Kept by the applications that upload, beside the logs ("…/Library/Application Support/com.korvane.utilia/Sent
// Reports"); the framework knows nothing of it. Whoever reads it finds whole files at any moment.
//
// How an upload ended is seen from the report: an upload removes it when the server has accepted it, and never otherwise.
// So a process that is killed while it uploads leaves nothing undecided: the next one that looks finds out. A report that
// a user deletes while it is under way or waits for another try looks the same, and is listed as accepted.
//
// Only Accepted is final. A report whose upload is announced but not begun looks as one that was refused; each look
// decides anew, and its copy is kept for ten minutes. What cannot be looked at stays what it was.
//
// Kept are kMaximumReports reports, and copies up to kMaximumSize; the oldest go first. A report that was refused is
// listed once, with its last try.
//
// Failures (a disk that is full, a folder that cannot be written) are logged and keep no upload from its way.
//
// Threads: any; processes and threads take turns by a lock file in the folder.
class SentReports final {
public:
    static constexpr std::size_t kMaximumReports = 10;
    static constexpr std::size_t kMaximumSize = 5u << 20;  // bytes, all copies

    static std::string defaultFolder();
    explicit SentReports(std::string folder = defaultFolder()) : folder_(std::move(folder)) {}

    // Before these reports (paths) are sent.
    void willSend(const std::vector<std::string>& reports, Date now = Date::now()) const;
    // Decides what has ended by now. Writes only what has changed.
    void settle(Date now = Date::now()) const;
    // The newest first, as they are known; empty where nothing was kept.
    std::vector<SentReport> all() const;

    // The document itself; empty when no copy is kept (any more).
    static std::optional<std::string> documentOf(const SentReport& report);

private:
    using Work = std::function<void(std::vector<SentReport>&)>;

    std::string pathOf(const std::string& name) const;
    void change(const Work& work) const;
    void add(std::vector<SentReport>& all, const std::string& report, Date now) const;
    void decide(std::vector<SentReport>& all, Date now) const;
    std::optional<bool> isStillWaiting(const SentReport& report) const;
    std::string keepCopy(const std::string& report, Date now) const;
    void forgetCopy(SentReport& report) const;
    void cut(std::vector<SentReport>& all) const;
    Result<void> write(const std::vector<SentReport>& all) const;

    const std::string folder_;
};

}  // namespace utilia::reporting
