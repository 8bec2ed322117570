#include "Common/Platform/Linux/PreferencesFile.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "Common/Platform/Linux/FileInput.h"
#include "Common/Platform/Linux/FileOutput.h"
#include "Common/Platform/PropertyListSerialization.h"

namespace utilia::platform {
namespace {

constexpr std::int64_t kBackupAge = 24 * 60 * 60;
constexpr std::size_t kSetAsideKept = 3;
constexpr std::string_view kSetAsideMark = ".damaged-";

Result<std::shared_ptr<const PreferencesVersion>> readVersion(const std::string& path) {
    auto input = FileInput::open(path, FileInput::Links::Refuse);
    if (!input) {
        if (input.error().isPosix(ENOENT)) return std::shared_ptr<const PreferencesVersion>();
        return std::move(input).error();
    }
    const auto damaged = [&path](const std::string& why) {
        return Error::cocoa(CocoaErrorCode::PropertyListReadCorrupt, path + ": " + why);
    };
    auto bytes = input->readAll(kPropertyListMaximumSize);
    if (!bytes)
        return bytes.error().isPosix(EFBIG) ? damaged("too large") : std::move(bytes).error();
    auto value = propertyListFromData(*bytes);
    if (!value) return damaged(value.error().description);
    const Dictionary* content = value->dictionary();
    if (!content) return damaged("not a dictionary");
    auto version = std::make_shared<PreferencesVersion>();
    version->status = input->status();
    version->file = input->takeDescriptor();
    version->content = *content;
    return std::shared_ptr<const PreferencesVersion>(std::move(version));
}

// "X.plist.damaged-20260704T123456Z", with a number behind it when that is taken.
std::vector<std::string> setAsideNames(const std::string& path) {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
    const std::string name = path + std::string(kSetAsideMark) + stamp;
    std::vector<std::string> names{name};
    for (const char* number : {"-2", "-3", "-4", "-5", "-6", "-7", "-8", "-9"})
        names.push_back(name + number);
    return names;
}

void removeOldest(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    const std::string folder = path.substr(0, slash);
    const std::string prefix = path.substr(slash + 1) + std::string(kSetAsideMark);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), &closedir);
    if (!entries) return;
    std::vector<std::string> names;
    while (const dirent* entry = readdir(entries.get())) {
        const std::string name = entry->d_name;
        if (name.starts_with(prefix)) names.push_back(name);
    }
    if (names.size() <= kSetAsideKept) return;
    std::sort(names.begin(), names.end());
    for (std::size_t i = 0; i < names.size() - kSetAsideKept; ++i)
        unlinkat(dirfd(entries.get()), names[i].c_str(), 0);
}

}  // namespace

bool PreferencesVersion::isAt(const struct stat& found) const {
    return found.st_ino == status.st_ino && found.st_dev == status.st_dev &&
           found.st_size == status.st_size && found.st_mtim.tv_sec == status.st_mtim.tv_sec &&
           found.st_mtim.tv_nsec == status.st_mtim.tv_nsec;
}

PreferencesFile::PreferencesFile(std::string path) : path_(std::move(path)) {}

Result<std::shared_ptr<const PreferencesVersion>> PreferencesFile::read() const {
    return readVersion(path_);
}

Result<std::shared_ptr<const PreferencesVersion>>
PreferencesFile::replace(Dictionary content) const {
    const auto bytes = dataFromPropertyList(Value(content), PropertyListFormat::Binary);
    if (!bytes) return bytes.error().withContext("write " + path_);
    auto output = FileOutput::createStaged(path_, stagingPath());
    if (!output) return std::move(output).error();
    if (auto written = output->write(*bytes); !written) return std::move(written).error();
    auto version = std::make_shared<PreferencesVersion>();
    if (fstat(output->descriptor(), &version->status) != 0)
        return Error::posix(errno, "stat", stagingPath());
    version->content = std::move(content);
    if (auto published = output->publish(); !published) return std::move(published).error();
    version->file = output->takeDescriptor();
    return std::shared_ptr<const PreferencesVersion>(std::move(version));
}

std::int64_t PreferencesFile::keepBackup(std::int64_t now) const {
    struct stat backup {};
    const bool exists = lstat(backupPath().c_str(), &backup) == 0;
    // The time stamp is the one of its content. One from the future is as good as none.
    if (exists && backup.st_mtim.tv_sec <= now && backup.st_mtim.tv_sec > now - kBackupAge) {
        return backup.st_mtim.tv_sec + kBackupAge;
    }
    const std::string staging = stagingPath();
    if (unlink(staging.c_str()) != 0 && errno != ENOENT) return now;
    if (link(path_.c_str(), staging.c_str()) != 0) return now;
    if (rename(staging.c_str(), backupPath().c_str()) != 0) unlink(staging.c_str());
    // Nothing happens when both names are one file already, and the staging name stays.
    unlink(staging.c_str());
    return now;
}

Result<std::string> PreferencesFile::setAside() const {
    const auto backup = readVersion(backupPath());
    const bool hasBackup = backup && *backup;
    const std::string staging = stagingPath();
    // The backup is ready under the staging name first: a kill at any point leaves the damaged
    // file, which the next process finds, or the restored one.
    if (unlink(staging.c_str()) != 0 && errno != ENOENT)
        return Error::posix(errno, "unlink", staging);
    const bool isRestored = hasBackup && link(backupPath().c_str(), staging.c_str()) == 0;
    std::string aside;
    for (const std::string& name : setAsideNames(path_)) {
        if (link(path_.c_str(), name.c_str()) == 0) {
            aside = name;
            break;
        }
        if (errno == EEXIST) continue;
        // A file system without hard links has no backup either, so there is nothing to be put in
        // place.
        if (errno != EPERM && errno != EOPNOTSUPP) break;
        if (rename(path_.c_str(), name.c_str()) != 0) return Error::posix(errno, "rename", path_);
        return "it was set aside as " + name + ", and the domain begins empty";
    }
    const char* failed = nullptr;
    if (aside.empty()) {
        failed = "link";
    } else if (isRestored ? rename(staging.c_str(), path_.c_str()) != 0
                          : unlink(path_.c_str()) != 0) {
        failed = isRestored ? "rename" : "unlink";
    }
    if (failed) {
        const int number = errno;
        if (!aside.empty()) unlink(aside.c_str());
        if (isRestored) unlink(staging.c_str());
        return Error::posix(number, failed, path_);
    }
    removeOldest(path_);
    return "it was set aside as " + aside +
           (isRestored ? ", and its backup is used" : ", and the domain begins empty");
}

Dictionary PreferencesFile::backupContent() const {
    const auto backup = readVersion(backupPath());
    return backup && *backup ? (*backup)->content : Dictionary();
}

}  // namespace utilia::platform
