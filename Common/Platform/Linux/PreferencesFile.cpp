#include "Common/Platform/Linux/PreferencesFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <span>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "Common/Platform/Linux/BinaryPropertyListReader.h"
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

// False when the file is shorter than it was, or cannot be read.
bool readFully(int file, std::size_t offset, std::span<std::uint8_t> into) {
    for (std::size_t filled = 0; filled < into.size();) {
        const ssize_t n = pread(file, into.data() + filled, into.size() - filled,
                                static_cast<off_t>(offset + filled));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        filled += static_cast<std::size_t>(n);
    }
    return true;
}

// "X.plist.damaged-20260704T123456.123456Z": the order of the names is the order of the days.
std::string setAsideName(const std::string& path) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char day[32];
    std::strftime(day, sizeof day, "%Y%m%dT%H%M%S", &utc);
    char fraction[24];
    std::snprintf(fraction, sizeof fraction, ".%06ldZ", now.tv_nsec / 1000);
    return path + std::string(kSetAsideMark) + day + fraction;
}

// Makes room for one more.
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
    std::sort(names.begin(), names.end());
    for (std::size_t i = 0; i + kSetAsideKept <= names.size(); ++i)
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

std::optional<PreferencesFile::Glance> PreferencesFile::glance(std::string_view key) const {
    auto input = FileInput::open(path_, FileInput::Links::Refuse);
    if (!input) return std::nullopt;
    auto version = std::make_shared<PreferencesVersion>();
    version->status = input->status();
    version->file = input->takeDescriptor();
    return glance(std::move(version), key);
}

std::optional<PreferencesFile::Glance>
PreferencesFile::glance(std::shared_ptr<const PreferencesVersion> version, std::string_view key) {
    const auto size = static_cast<std::uint64_t>(version->status.st_size);
    if (size > kPropertyListMaximumSize) return std::nullopt;
    const int file = version->file.get();
    auto value = readBinaryPropertyListKey(
        size,
        [file](std::size_t offset, std::span<std::uint8_t> into) {
            return readFully(file, offset, into);
        },
        key);
    if (!value) return std::nullopt;
    return Glance{std::move(version), *std::move(value)};
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

Result<std::shared_ptr<const PreferencesVersion>> PreferencesFile::readBackup() const {
    return readVersion(backupPath());
}

Result<std::string> PreferencesFile::setAside(Backup backup) const {
    removeOldest(path_);
    std::string aside = setAsideName(path_);
    if (backup == Backup::Restore) {
        if (auto done = exchangeForBackup(aside); !done) return std::move(done).error();
    } else if (rename(path_.c_str(), aside.c_str()) != 0) {
        return Error::posix(errno, "rename", path_);
    }
    return aside;
}

// At each point the path leads to the damaged file, which the next process finds, or to the
// restored one.
Result<void> PreferencesFile::exchangeForBackup(const std::string& aside) const {
    const std::string staging = stagingPath();
    if (unlink(staging.c_str()) != 0 && errno != ENOENT)
        return Error::posix(errno, "unlink", staging);
    if (link(backupPath().c_str(), staging.c_str()) != 0)
        return Error::posix(errno, "link", backupPath());
    if (link(path_.c_str(), aside.c_str()) != 0) {
        auto error = Error::posix(errno, "link", path_);
        unlink(staging.c_str());
        return error;
    }
    if (rename(staging.c_str(), path_.c_str()) != 0) {
        auto error = Error::posix(errno, "rename", path_);
        unlink(aside.c_str());
        unlink(staging.c_str());
        return error;
    }
    return {};
}

}  // namespace utilia::platform
