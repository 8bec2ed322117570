#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Handle.h"
#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/Task.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/CEP/CEPClock.h"

// Usage reporting: what the applications record, the switch by which a user ends that, and the
// weekly upload of what was recorded, which one process does for all, its owner (the agent).
// Documentation/UsageReporting.md tells users what that means for them.

namespace utilia {

// Keys of the agent's preferences, which every process of the product reads and writes. Contract:
// never rename. What is missing counts as false, or as no date.
inline constexpr std::string_view kCEPDisabledKey = "CEPDisabled";          // switched off
inline constexpr std::string_view kDisabledCEPSentKey = "DisabledCEPSent";  // the last upload began
inline constexpr std::string_view kCEPSyncDateKey = "CEPSyncDate";          // next upload is due

// Between two uploads, and between two records of a tool that goes on running.
inline constexpr std::chrono::seconds kCEPInterval{604'800};

// What tests replace; what is empty is the system's.
struct CEPLogServices {
    std::shared_ptr<CEPClock> clock = {};
    std::function<Result<void>(const platform::Task&)> launchTask = {};
    std::string endpoint = {};  // where reports are posted, a URL
    std::string curlHome = {};  // the folder of the .curlrc that holds for uploads
};

// Off means: log() records nothing, and only what is forced is uploaded. Where the administrator
// has switched usage reporting off for the machine ("UsageReportingDisabled" in his settings, read
// once when the object is made) nothing at all is recorded or uploaded through this class, whatever
// the user's preferences say, and "DisabledCEPSent" is not set.
//
// Threads: any, with these exceptions. initGrab(), timer(), permanentStartTimer() and the actions
// "StartPermanent", "Start", "Stop", "Quit" and "Launch" belong to one thread, the main thread of an
// application, on whose loop the timers run.
class UTILIA_EXPORT CEPLog final {
public:
    // Made with the first call, after CEPLogInit(); never destroyed.
    static CEPLog& sharedInstance();

    CEPLog() : CEPLog(CEPLogServices()) {}
    explicit CEPLog(CEPLogServices services);
    // Ends the timers, and waits for the uploads that this object has begun on other threads.
    ~CEPLog();
    CEPLog(const CEPLog&) = delete;
    CEPLog& operator=(const CEPLog&) = delete;

    // The report folder; empty until the first logGrab() has found out.
    std::optional<std::string> logPath() const;
    void setLogPath(std::optional<std::string> path);
    // The weekly upload; empty in a process that is not the owner.
    const Handle& timer() const { return timer_; }
    // The weekly record of a tool that goes on running; empty when there is none.
    const Handle& permanentStartTimer() const { return permanentStartTimer_; }
    void setPermanentStartTimer(Handle timer) { permanentStartTimer_ = std::move(timer); }
    // Whether this process uploads; false at first, true from initGrab() on.
    bool cepOwner() const { return cepOwner_; }
    void setCepOwner(bool isOwner) { cepOwner_ = isOwner; }

    // Whether usage reporting is off, by the user or by the administrator.
    bool isCEPDisabled() const;
    bool isDisabledByAdministrator() const { return isDisabledByAdministrator_; }
    void setCEPDisabled(bool isDisabled);
    bool getCEPSentAfterDisabling() const;
    void setCEPSentAfterDisabling(bool isSent);

    // Records an action with the application's settings and the action's details; nothing when off.
    // Failures are silent.
    void log(std::string_view action, const std::optional<Dictionary>& withPrefs = {},
             const std::optional<Dictionary>& withDetails = {});
    // Switches usage reporting off, after a record of it, and has what was recorded until then
    // uploaded once more: at once by the owner, at the owner's next start otherwise.
    void disableCEP();
    void enableCEP();

    // The action to record. "StartPermanent" becomes "Start", and begins a timer that records
    // another start every week until the next "Start", "Stop", "Quit" or "Launch".
    std::string handlePermanentStart(std::string_view action);
    void stopPermanentStartTimer();
    // What that timer does. Records also while the user has switched usage reporting off: the
    // record then waits with the others until it is switched on again.
    void firePermanentTimer();

    // The lock by which the owner's start and the collecting of reports take turns, between
    // processes and threads. Empty where there is no runtime folder.
    static std::string lockFile();

    // Makes this process the owner: begins the weekly timer, whose first delay is what is left until
    // "CEPSyncDate", at most a week; without that date a week; and where it has passed, an upload
    // begins at once. The date is moved on only when it is missing or has passed. Waits for the lock
    // file. Makes the upload up for that was pending when usage reporting was switched off.
    void initGrab();
    // What the timer does: sendCEP() on a thread of its own.
    void fireCEP();
    void sendCEP() { sendCEPImp(false); }
    // Called with each upload that sends anything, on its thread, before the first of these reports (paths)
    // leaves: the last moment in which each of them is certainly there, since an accepted one is removed.
    // For applications that keep what was sent. Set before initGrab(), which may begin an upload.
    void setUploadHandler(std::function<void(const std::vector<std::string>& reports)> uploading);
    // Also when the user has switched usage reporting off.
    void sendCEPForcibly() { sendCEPImp(true); }

    // Until the uploads that this object has begun on other threads have collected, and their tasks
    // have begun; the tasks themselves are not waited for. False when the time is over. For the
    // orderly end of an owner, which would otherwise lose a log that is being collected.
    bool waitForUploads(std::chrono::milliseconds atMost);

    // Takes every log that waits away from its writers and makes a report of it. The report folder,
    // also when there was nothing to take; empty when there can be no such folder.
    std::optional<std::string> logGrab();
    // One upload: nothing unless this process is the owner, and usage reporting is on or `force`
    // says so. Collects, then begins a task for each report that waits, and returns; a task removes
    // its report when the server has accepted it. Answers the paths of those reports.
    //
    // From a folder whose name the command of the tasks cannot take nothing is uploaded or even
    // collected, and without what the framework's bundle brings for uploads reports wait; one log
    // line says so.
    std::vector<std::string> sendCEPImp(bool force);

private:
    bool preference(std::string_view key) const;
    void setPreference(bool value, std::string_view key);
    void keepTime(const std::optional<Date>& syncDate, Date now);
    void uploadForTheLastTime();
    Result<void> beginUpload(bool force);
    void uploadEnded();
    std::vector<std::string> sendReports(const std::string& folder) const;
    void announceUpload(const std::string& folder, const std::vector<std::string>& reports) const;

    const CEPLogServices services_;
    const std::vector<std::string> proxies_;
    const bool isDisabledByAdministrator_;
    std::atomic<bool> cepOwner_ = false;

    mutable std::mutex preferencesMutex_;
    const std::unique_ptr<platform::UserDefaults> preferences_;  // used with preferencesMutex_ held

    mutable std::mutex logPathMutex_;
    std::optional<std::string> logPath_;  // guarded by logPathMutex_

    mutable std::mutex uploadsMutex_;
    std::condition_variable uploadHasEnded_;
    std::function<void(const std::vector<std::string>&)> uploading_;  // guarded by uploadsMutex_
    unsigned uploads_ = 0;  // threads under way; guarded by uploadsMutex_

    Handle timer_;
    Handle permanentStartTimer_;
};

}  // namespace utilia
