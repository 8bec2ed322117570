#include "Common/UtiliaCommon/CEP/CEPLog.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/CallbackGuard.h"
#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/LockedFile.h"
#include "Common/Platform/Thread.h"
#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"
#include "Common/UtiliaCommon/CEP/ReportUpload.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

// Three states of the user's, in two preferences: on; off with the last upload still to come
// ("CEPDisabled" without "DisabledCEPSent"); off for good. Whoever switches off leaves the last
// upload to the owner, and "DisabledCEPSent" is set before it begins, so that it begins once.
//
// The administrator's switch lies above that and leaves it alone: when it is taken back, everything
// is as it was.
//
// A log that has been taken away exists nowhere but in this process until its report is there. So
// everything that can be known before is looked at before: the folder must be there and writable.

namespace utilia {
namespace {

using platform::FileManager;
using platform::LockedFile;
using platform::UserDefaults;

constexpr std::string_view kWhat = "Usage reporting";
constexpr std::string_view kLockName = "krv.utilia.ceplog.lock";
constexpr std::uint32_t kLockMode = 0644;

constexpr std::string_view kStartPermanent = "StartPermanent";
constexpr std::string_view kStart = "Start";

bool endsPermanentStart(std::string_view action) {
    return action == kStart || action == "Stop" || action == "Quit" || action == "Launch";
}

// Whatever stands there but false: somebody wanted it off. So does whoever cannot know.
bool readAdministratorsSwitch() {
    return unlessOutOfMemory(kWhat,
                             []() -> std::optional<bool> {
                                 std::int64_t error = 0;
                                 const auto settings =
                                     KAVAdminStorage::init(kKAVOpenExisting, &error);
                                 if (!settings) return false;
                                 const Value* const value =
                                     settings->currentAsRawData().find(kKAVUsageReportingDisabled);
                                 return value && *value != Value(false);
                             })
        .value_or(true);
}

CEPLogServices completed(CEPLogServices services) {
    if (!services.clock) services.clock = CEPClock::system();
    if (!services.launchTask)
        services.launchTask = [](const platform::Task& task) { return task.launch(); };
    if (services.endpoint.empty()) services.endpoint = reportUploadEndpoint();
    if (services.curlHome.empty()) services.curlHome = reportUploadCurlHome();
    return services;
}

// Empty, with one log line, when the lock cannot be had: what it guards goes on without it, and
// reports are still made under names that nobody else has.
std::optional<LockedFile> takeTurn() {
    auto lock = LockedFile::openOrCreate(CEPLog::lockFile(), kLockMode);
    if (lock) return *std::move(lock);
    KULogVariadic("%@: %@", kWhat, lock.error());
    return std::nullopt;
}

bool isFromInstaller(const CEPLog& log) { return !log.cepOwner(); }

Dictionary switchDetails(const CEPLog& log) { return {{"FromInstaller", isFromInstaller(log)}}; }

const Dictionary* pointerTo(const std::optional<Dictionary>& dictionary) {
    return dictionary ? &*dictionary : nullptr;
}

// Whether the folder takes reports; one log line when not.
bool isReadyForReports(const std::string& folder) {
    if (const auto made = FileManager::createDirectoryAtPath(folder); !made) {
        KULogVariadic("%@: %@", kWhat, made.error());
        return false;
    }
    if (FileManager::isWritableFileAtPath(folder)) return true;
    KULogVariadic("%@: %@ is not writable, so that no reports are made", kWhat, folder);
    return false;
}

// Whether the command can name the folder, and the output beside it; one log line when not.
bool isUsableFolder(const std::string& folder) {
    if (isUsableInUpload(folder) && isUsableInUpload(reportUploadOutput())) return true;
    KULogVariadic(
        "%@: nothing can be uploaded from %@, as its name holds one of , ; \" $ ` \\ or a "
        "line break. What was recorded stays.",
        kWhat, folder);
    return false;
}

}  // namespace

CEPLog& CEPLog::sharedInstance() {
    static CEPLog* const instance = [] {
        (void)CEPLogInit();
        return new CEPLog;
    }();
    return *instance;
}

CEPLog::CEPLog(CEPLogServices services)
    : services_(completed(std::move(services))), proxies_(reportUploadProxies()),
      isDisabledByAdministrator_(readAdministratorsSwitch()),
      preferences_(UserDefaults::initWithDomain(kAgentBundleIdentifier)) {}

CEPLog::~CEPLog() {
    timer_.reset();
    permanentStartTimer_.reset();
    std::unique_lock guard(uploadsMutex_);
    uploadHasEnded_.wait(guard, [this] { return uploads_ == 0; });
}

bool CEPLog::waitForUploads(std::chrono::milliseconds atMost) {
    std::unique_lock guard(uploadsMutex_);
    return uploadHasEnded_.wait_for(guard, atMost, [this] { return uploads_ == 0; });
}

std::optional<std::string> CEPLog::logPath() const {
    return unlessOutOfMemory(kWhat, [this] {
        const std::lock_guard guard(logPathMutex_);
        return logPath_;
    });
}

void CEPLog::setLogPath(std::optional<std::string> path) {
    const std::lock_guard guard(logPathMutex_);
    logPath_ = std::move(path);
}

bool CEPLog::isCEPDisabled() const {
    return isDisabledByAdministrator_ || preference(kCEPDisabledKey);
}

void CEPLog::setCEPDisabled(bool isDisabled) { setPreference(isDisabled, kCEPDisabledKey); }

bool CEPLog::getCEPSentAfterDisabling() const { return preference(kDisabledCEPSentKey); }

void CEPLog::setCEPSentAfterDisabling(bool isSent) { setPreference(isSent, kDisabledCEPSentKey); }

// Both preferences say that something is not to be done; that is the answer when nobody knows.
bool CEPLog::preference(std::string_view key) const {
    return unlessOutOfMemory(kWhat,
                             [&]() -> std::optional<bool> {
                                 const std::lock_guard guard(preferencesMutex_);
                                 return preferences_ && preferences_->boolForKey(key);
                             })
        .value_or(true);
}

void CEPLog::setPreference(bool value, std::string_view key) {
    unlessOutOfMemory(kWhat, [&] {
        const std::lock_guard guard(preferencesMutex_);
        if (preferences_) preferences_->setObject(value, key);
    });
}

void CEPLog::log(std::string_view action, const std::optional<Dictionary>& withPrefs,
                 const std::optional<Dictionary>& withDetails) {
    if (isCEPDisabled()) return;
    unlessOutOfMemory(kWhat, [&] {
        const std::string recorded = handlePermanentStart(action);
        // Empty where memory ran out.
        if (recorded.empty() && !action.empty()) return;
        (void)CEPLogEvent(recorded, nullptr, pointerTo(withPrefs), pointerTo(withDetails));
    });
}

void CEPLog::disableCEP() {
    unlessOutOfMemory(kWhat, [this] {
        log("CepDisabled", {}, switchDetails(*this));
        setCEPDisabled(true);
        if (!cepOwner()) {
            setCEPSentAfterDisabling(false);
        } else if (!getCEPSentAfterDisabling()) {
            uploadForTheLastTime();
        }
    });
}

void CEPLog::enableCEP() {
    unlessOutOfMemory(kWhat, [this] {
        setCEPDisabled(false);
        setCEPSentAfterDisabling(false);
        log("CepEnabled", {}, switchDetails(*this));
    });
}

void CEPLog::uploadForTheLastTime() {
    if (isDisabledByAdministrator_ || !isReportUploadBuilt()) return;
    setCEPSentAfterDisabling(true);
    if (const auto begun = beginUpload(true); !begun) {
        KULogVariadic("%@: %@", kWhat, begun.error());
        setCEPSentAfterDisabling(false);
    }
}

std::string CEPLog::handlePermanentStart(std::string_view action) {
    return unlessOutOfMemory(kWhat, [&] {
        if (action != kStartPermanent) {
            if (endsPermanentStart(action)) stopPermanentStartTimer();
            return std::string(action);
        }
        stopPermanentStartTimer();
        if (!isDisabledByAdministrator_) {
            permanentStartTimer_ = services_.clock->repeatingTimer(
                kCEPInterval, kCEPInterval, [this] { firePermanentTimer(); });
        }
        return std::string(kStart);
    });
}

void CEPLog::stopPermanentStartTimer() { permanentStartTimer_.reset(); }

void CEPLog::firePermanentTimer() {
    if (isDisabledByAdministrator_) return;
    unlessOutOfMemory(kWhat, [] {
        const Dictionary details{{"Permanent", true}};
        (void)CEPLogEvent(kStart, nullptr, nullptr, &details);
    });
}

std::string CEPLog::lockFile() {
    return unlessOutOfMemory(kWhat, [] {
        const auto folder = FileManager::runtimeFolder();
        return folder ? stringByAppendingPathComponent(*folder, kLockName) : std::string();
    });
}

void CEPLog::initGrab() {
    unlessOutOfMemory(kWhat, [this] {
        setCepOwner(true);
        {
            const auto turn = takeTurn();
            std::optional<Date> syncDate;
            {
                const std::lock_guard guard(preferencesMutex_);
                const auto stored =
                    preferences_ ? preferences_->objectForKey(kCEPSyncDateKey) : std::nullopt;
                if (stored && stored->date()) syncDate = *stored->date();
            }
            keepTime(syncDate, services_.clock->now());
        }
        if (!isDisabledByAdministrator_ && preference(kCEPDisabledKey) &&
            !getCEPSentAfterDisabling())
            uploadForTheLastTime();
    });
}

void CEPLog::keepTime(const std::optional<Date>& syncDate, Date now) {
    using Seconds = std::chrono::duration<double>;
    const auto start = [this](std::chrono::nanoseconds delay) {
        timer_ = services_.clock->repeatingTimer(delay, kCEPInterval, [this] { fireCEP(); });
    };
    if (syncDate && now <= *syncDate) {
        // The date may be from a clock that was wrong.
        const Seconds left(syncDate->secondsSinceReferenceDate - now.secondsSinceReferenceDate);
        start(std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::min(left, Seconds(kCEPInterval))));
        return;
    }
    {
        const std::lock_guard guard(preferencesMutex_);
        if (preferences_) {
            preferences_->setObject(
                Date{now.secondsSinceReferenceDate + static_cast<double>(kCEPInterval.count())},
                kCEPSyncDateKey);
            preferences_->synchronize();
        }
    }
    start(kCEPInterval);
    if (syncDate) fireCEP();
}

void CEPLog::fireCEP() {
    unlessOutOfMemory(kWhat, [this] {
        if (const auto begun = beginUpload(false); !begun)
            KULogVariadic("%@: %@", kWhat, begun.error());
    });
}

Result<void> CEPLog::beginUpload(bool force) {
    {
        const std::lock_guard guard(uploadsMutex_);
        ++uploads_;
    }
    auto begun = platform::Thread::detachNewThread("utilia-reports", [this, force] {
        const Handle ending([this] { uploadEnded(); });
        sendCEPImp(force);
    });
    if (!begun) uploadEnded();
    return begun;
}

void CEPLog::uploadEnded() {
    const std::lock_guard guard(uploadsMutex_);
    --uploads_;
    uploadHasEnded_.notify_all();
}

std::optional<std::string> CEPLog::logGrab() {
    return unlessOutOfMemory(kWhat, [this]() -> std::optional<std::string> {
        if (!logPath()) setLogPath(reportFolder());
        const std::string folder = logPath().value_or(std::string());
        if (!isReadyForReports(folder)) return std::nullopt;
        int isMore = 1;
        while (isMore != 0) {
            platform::UniqueFd grabbed(CEPLogGrab(&isMore));
            if (!grabbed) break;
            if (const auto added = addReport(folder, std::move(grabbed)); !added) {
                KULogVariadic("%@: what was recorded is lost: %@", kWhat, added.error());
                break;
            }
        }
        return folder;
    });
}

std::vector<std::string> CEPLog::sendCEPImp(bool force) {
    using Reports = std::vector<std::string>;
    return unlessOutOfMemory(kWhat, [&]() -> Reports {
        if (!isReportUploadBuilt() || isDisabledByAdministrator_) return {};
        if ((!force && isCEPDisabled()) || !cepOwner()) return {};
        // Before anything is collected that could never be sent.
        if (!isUsableFolder(logPath().value_or(reportFolder()))) return {};
        std::optional<std::string> folder;
        {
            const auto turn = takeTurn();
            folder = logGrab();
        }
        return folder ? sendReports(*folder) : Reports();
    });
}

void CEPLog::setUploadHandler(
    std::function<void(const std::vector<std::string>& reports)> uploading) {
    const std::lock_guard guard(uploadsMutex_);
    uploading_ = std::move(uploading);
}

void CEPLog::announceUpload(const std::string& folder,
                            const std::vector<std::string>& reports) const {
    std::function<void(const std::vector<std::string>&)> uploading;
    {
        const std::lock_guard guard(uploadsMutex_);
        uploading = uploading_;
    }
    if (!uploading) return;
    std::vector<std::string> paths;
    for (const std::string& report : reports) {
        std::string path = stringByAppendingPathComponent(folder, report);
        // What nobody else sends already.
        if (isUsableInUpload(report) && !platform::Task::isLocked(path))
            paths.push_back(std::move(path));
    }
    if (!paths.empty()) runGuarded("The handler of uploads", [&] { uploading(paths); });
}

std::vector<std::string> CEPLog::sendReports(const std::string& folder) const {
    const auto waiting = waitingReports(folder);
    if (!waiting) {
        KULogVariadic("%@: %@", kWhat, waiting.error());
        return {};
    }
    announceUpload(folder, *waiting);
    const ReportUploadPlace place{services_.endpoint, services_.curlHome, proxies_};
    std::vector<std::string> begun;
    for (const std::string& report : *waiting) {
        std::string path = stringByAppendingPathComponent(folder, report);
        if (!isUsableInUpload(report)) {
            KULogVariadic("%@: %@ cannot be uploaded, as its name holds one of , ; \" $ ` \\ or a "
                          "line break",
                          kWhat, path);
            continue;
        }
        const auto task = reportUploadTask(path, place);
        if (!task) {
            KULogVariadic("%@: %@", kWhat, task.error());
            break;
        }
        if (const auto launched = services_.launchTask(*task)) {
            begun.push_back(std::move(path));
        } else if (!launched.error().is(UtiliaErrorCode::Busy) &&
                   !launched.error().isPosix(ENOENT)) {
            // Neither on its way already nor accepted in the meantime.
            KULogVariadic("%@: %@", kWhat, launched.error());
        }
    }
    return begun;
}

}  // namespace utilia
