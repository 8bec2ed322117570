#include "Common/Platform/Linux/PreferencesDomain.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>

#include <fcntl.h>
#include <sys/stat.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/FileLock.h"
#include "Common/Platform/Linux/FileInput.h"
#include "Common/Platform/Linux/Folders.h"
#include "Common/Platform/Linux/LockTurns.h"

// How processes share a domain:
//
// - A reader takes no lock. The file is only ever replaced as a whole, so what it opens is one
//   version.
// - A writer takes the domain's lock, looks at the path again, changes its keys in what it finds
//   there and replaces the file. Between lock and replacement nobody else writes, so no writer
//   undoes another's keys.
// - What was parsed stays in memory with its file open. One stat tells whether the path still leads
//   to that file; the kernel cannot give its inode to another file as long as it is open. Inode,
//   size and time stamps without the open file would not do: a freed inode is used again within the
//   same tick.
// - The lock file lies beside the domain and is never removed.
// - A damaged file is never the base of an update. It is first set aside, under the lock and after
//   a second look: another process may have done so already.
//
// Inside the process the lock file makes threads take turns as well, so the mutex never covers file
// access.

namespace utilia::platform {
namespace {

constexpr auto kLockTimeout = std::chrono::seconds(2);
constexpr std::size_t kRememberedDomains = 8;
// Small files cost less to parse than to look into several times, and are what damage is found in
// at the first read.
constexpr off_t kParsedAtOnce = 4096;

std::int64_t unixNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string folderOf(const std::string& path) { return path.substr(0, path.find_last_of('/')); }

bool isDamage(const Error& error) {
    return error.domain == kCocoaErrorDomain &&
           error.code == static_cast<int>(CocoaErrorCode::PropertyListReadCorrupt);
}

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<PreferencesDomain>, std::less<>> domains;
};

}  // namespace

void ProblemLog::met(const std::string& problem) {
    {
        const std::lock_guard guard(mutex_);
        if (problem == last_) return;
        last_ = problem;
    }
    KULogVariadic("%@", problem);
}

void ProblemLog::isOver() {
    const std::lock_guard guard(mutex_);
    last_.clear();
}

std::shared_ptr<PreferencesDomain> PreferencesDomain::at(const std::string& path) {
    static Registry* const registry = new Registry;
    const std::lock_guard guard(registry->mutex);
    if (const auto found = registry->domains.find(path); found != registry->domains.end())
        return found->second;
    // Each domain keeps a file open; those that nobody uses need not stay.
    if (registry->domains.size() >= kRememberedDomains) {
        std::erase_if(registry->domains,
                      [](const auto& entry) { return entry.second.use_count() == 1; });
    }
    auto domain = std::make_shared<PreferencesDomain>(path);
    registry->domains.emplace(path, domain);
    return domain;
}

void PreferencesDomain::change(Dictionary& content, std::span<const Change> changes) {
    for (const auto& [key, value] : changes) {
        if (value) {
            content.set(key, *value);
        } else {
            content.remove(key);
        }
    }
}

Dictionary PreferencesDomain::content() {
    const auto version = readable();
    return version && *version ? (*version)->content : Dictionary();
}

Result<std::optional<Value>> PreferencesDomain::value(std::string_view key) {
    if (auto glanced = glance(key)) return *std::move(glanced);
    const auto version = readable();
    if (!version) return version.error();
    const Value* found = *version ? (*version)->content.find(key) : nullptr;
    return found ? std::optional<Value>(*found) : std::nullopt;
}

// Empty when the file has to be parsed for an answer, or has been.
std::optional<std::optional<Value>> PreferencesDomain::glance(std::string_view key) {
    Glances known;
    {
        const std::lock_guard guard(mutex_);
        if (version_) return std::nullopt;
        known = glances_;
    }
    struct stat status {};
    if (lstat(path().c_str(), &status) != 0 || status.st_size <= kParsedAtOnce) return std::nullopt;
    std::optional<PreferencesFile::Glance> found;
    if (known.version && known.version->isAt(status)) {
        for (const auto& [asked, answer] : known.answers) {
            if (asked == key) return answer;
        }
        if (known.answers.size() == kMostGlances) return std::nullopt;
        found = PreferencesFile::glance(known.version, key);
    } else {
        known.answers.clear();
        found = file_.glance(key);
    }
    if (!found) return std::nullopt;
    readProblem_.isOver();
    known.version = std::move(found->version);
    known.answers.emplace_back(key, found->value);
    Glances old = std::move(known);  // closes the old file outside the mutex
    {
        const std::lock_guard guard(mutex_);
        if (!version_) std::swap(glances_, old);
    }
    return std::move(found->value);
}

// Null when there is no file; what cannot be read is logged here.
Result<PreferencesDomain::Version> PreferencesDomain::readable() {
    auto version = current(Lock::Free);
    if (!version) {
        readProblem_.met(version.error().description);
        return version;
    }
    if (!*version || !(*version)->isDamaged) readProblem_.isOver();
    return version;
}

// Null when there is no file. Damaged files have been dealt with.
Result<PreferencesDomain::Version> PreferencesDomain::current(Lock lock) {
    struct stat found {};
    if (lstat(path().c_str(), &found) != 0) {
        if (errno == ENOENT) return Version();
        return Error::posix(errno, "stat", path());
    }
    // A damaged one is looked at again before it is written.
    if (Version known = remembered();
        known && known->isAt(found) && !(known->isDamaged && lock == Lock::Held))
        return known;
    auto read = file_.read();
    if (read) return remember(*std::move(read));
    return isDamage(read.error()) ? repair(lock) : std::move(read);
}

Result<PreferencesDomain::Version> PreferencesDomain::repair(Lock lock) {
    std::optional<FileLock> own;
    std::optional<Error> obstacle;
    if (lock == Lock::Free) {
        auto acquired =
            FileLock::acquire(file_.lockPath(), FileLock::Mode::Exclusive, kLockTimeout);
        if (acquired) {
            own = *std::move(acquired);
        } else {
            obstacle = std::move(acquired).error();
        }
    }
    auto read = file_.read();
    if (read) return remember(*std::move(read));
    if (!isDamage(read.error())) return read;
    const std::string damage = "The preferences do not parse (" + read.error().description + "); ";
    auto backup = file_.readBackup();
    // One that is there and cannot be read now may be read later: nothing is decided without it.
    if (!backup && !isDamage(backup.error()))
        return backup.error().withContext(damage + "their backup cannot be read");
    Version restored = backup ? *std::move(backup) : nullptr;
    if (!obstacle) {
        auto aside = file_.setAside(restored ? PreferencesFile::Backup::Restore
                                             : PreferencesFile::Backup::Missing);
        own.reset();
        if (aside) {
            const char* rest =
                restored ? ", and the backup is used" : ", and the domain begins empty";
            KULogVariadic("%@", damage + "they were set aside as " + *aside + rest);
            return remember(std::move(restored));
        }
        obstacle = std::move(aside).error();
    }
    const Error unrepaired = obstacle->withContext(damage + "they could not be set aside");
    if (lock == Lock::Held) return unrepaired;
    // Read-only, or somebody else keeps the lock: go on with what the backup says, and say so once
    // for this file.
    readProblem_.met(unrepaired.description);
    return remember(substituteFor(restored));
}

// What stands for a damaged file until the file changes or is written.
PreferencesDomain::Version PreferencesDomain::substituteFor(const Version& backup) const {
    auto substitute = std::make_shared<PreferencesVersion>();
    substitute->isDamaged = true;
    if (backup) substitute->content = backup->content;
    if (auto input = FileInput::open(path(), FileInput::Links::Refuse)) {
        substitute->status = input->status();
        substitute->file = input->takeDescriptor();
    }
    return substitute;
}

bool PreferencesDomain::apply(std::span<const Change> changes) {
    const auto acquire = [this] {
        return FileLock::acquire(file_.lockPath(), FileLock::Mode::Exclusive, kLockTimeout);
    };
    auto lock = acquire();
    if (!lock && lock.error().isPosix(ENOENT)) {
        if (auto made = makeFolders(folderOf(path()), 0700); made) {
            lock = acquire();
        } else {
            lock = std::move(made).error();
        }
    }
    auto applied = lock ? applyLocked(changes) : Result<void>(lock.error());
    if (lock) lock->release();
    if (applied) {
        writeProblem_.isOver();
        return true;
    }
    writeProblem_.met(
        applied.error().withContext("The preferences could not be written").description);
    return false;
}

Result<void> PreferencesDomain::applyLocked(std::span<const Change> changes) {
    auto before = current(Lock::Held);
    if (!before) return std::move(before).error();
    Dictionary content = *before ? (*before)->content : Dictionary();
    change(content, changes);
    if (*before) {
        if (const std::int64_t now = unixNow(); now >= nextBackup_)
            nextBackup_ = file_.keepBackup(now);
    }
    auto after = file_.replace(std::move(content));
    if (!after) return std::move(after).error();
    remember(*std::move(after));
    LockTurns::updated();
    return {};
}

PreferencesDomain::Version PreferencesDomain::remembered() const {
    const std::lock_guard guard(mutex_);
    return version_;
}

PreferencesDomain::Version PreferencesDomain::remember(Version version) {
    Version old = version;  // closes its file outside the mutex
    Glances unused;
    const std::lock_guard guard(mutex_);
    version_.swap(old);
    std::swap(glances_, unused);
    return version;
}

}  // namespace utilia::platform
