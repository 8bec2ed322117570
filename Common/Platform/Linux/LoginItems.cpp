#include "Common/Platform/LoginItems.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <span>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Foundation/Unicode.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileLock.h"
#include "Common/Platform/Linux/BundleInternal.h"
#include "Common/Platform/Linux/DesktopEntry.h"
#include "Common/Platform/Linux/DesktopEntryFile.h"
#include "Common/Platform/Linux/FileOutput.h"
#include "Common/Platform/Linux/Folders.h"
#include "Common/Platform/Linux/InstancePort.h"
#include "Common/Platform/Linux/OutOfMemory.h"

// The list is what the Desktop Application Autostart Specification makes a session start: desktop
// entries in "autostart" of the user's configuration folder and of the system's. Of files with the
// same name only the first counts, so a file of the user hides those of the system, whatever is in
// it. That is how an entry that cannot be deleted is removed: by a copy that is marked hidden.
//
// Two marks switch an entry off: Hidden=true, which says that the user deleted it, and
// X-GNOME-Autostart-enabled=false, which control panels write. Both are taken away when the
// application is added again. A copy that then says no more than the system's file is deleted, so
// that updates of the system's file count again.
//
// Entries of our own making carry a key that says so, and are deleted when they are removed. A file
// of somebody else is never deleted, and only the lines of the two marks change in it: perhaps it
// holds settings that nobody could write a second time. Files are exchanged, not written to, so
// that a link in the folder becomes a file and what it led to is left alone.
//
// Those who change the list take turns by a lock: whether a file name is free and taking it are two
// steps.

namespace utilia::platform {
namespace {

constexpr std::string_view kSuffix = ".desktop";
constexpr const char* kHidden = "Hidden";
constexpr const char* kEnabled = "X-GNOME-Autostart-enabled";
constexpr const char* kOwn = "X-Korvane-Utilia-LoginItem";
constexpr std::chrono::milliseconds kLockTimeout{2000};
constexpr std::size_t kLongestStem = 200;  // bytes

bool exists(const std::string& path) {
    struct stat found {};
    return lstat(path.c_str(), &found) == 0;
}

bool mayBeEntry(int folder, const dirent& found) {
    if (!std::string_view(found.d_name).ends_with(kSuffix)) return false;
    if (found.d_type != DT_UNKNOWN) return found.d_type == DT_REG || found.d_type == DT_LNK;
    struct stat status {};
    return fstatat(folder, found.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode));
}

// By their names; the value is the path of the file that counts.
using Entries = std::map<std::string, std::string>;

Result<void> collectEntries(const std::string& path, Entries& entries) {
    auto folder = openFolder(path);
    if (!folder) {
        if (folder.error().isPosix(ENOENT)) return {};
        return std::move(folder).error();
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(folder->get()), &closedir);
    if (!stream) return Error::posix(errno, "read", path);
    const int descriptor = folder->release();
    for (;;) {
        errno = 0;
        const dirent* const found = readdir(stream.get());
        if (!found) break;
        if (mayBeEntry(descriptor, *found))
            entries.emplace(found->d_name, path + "/" + found->d_name);
    }
    if (errno != 0) return Error::posix(errno, "read", path);
    return {};
}

Result<Entries> entriesIn(const std::string& userFolder,
                          const std::vector<std::string>& systemFolders) {
    Entries entries;
    if (auto collected = collectEntries(userFolder, entries); !collected)
        return std::move(collected).error();
    for (const std::string& folder : systemFolders) {
        if (const auto collected = collectEntries(folder, entries);
            !collected && KUIsExtendedLoggingOn()) {
            KULogVariadic("Login items: %@", collected.error());
        }
    }
    return entries;
}

// Empty for a file that is no entry, of which there is no more to say than a verbose line.
std::optional<DesktopEntryFile> readEntry(const std::string& path) {
    auto file = DesktopEntryFile::read(path);
    if (file) return *std::move(file);
    if (KUIsExtendedLoggingOn()) KULogVariadic("Login items: %@", file.error());
    return std::nullopt;
}

bool isOff(const DesktopEntryFile& file) {
    return file.boolean(kHidden, false) || !file.boolean(kEnabled, true);
}

// Whether this session would start what the file describes, were it not switched off.
bool isForThisSession(const DesktopEntryFile& file) {
    const char* const desktops = std::getenv("XDG_CURRENT_DESKTOP");
    return file.string("Type") == "Application" && file.string("Exec") &&
           file.isShownIn(desktops ? desktops : "") && !DesktopEntry::isTryExecMissing(file);
}

std::optional<std::string> applicationOf(const DesktopEntryFile& file) {
    auto entry = DesktopEntry::of(file);
    if (!entry) return std::nullopt;
    return std::move(entry->bundlePath);
}

Result<FileLock> lockList() {
    const auto folder = ensureRuntimeFolder();
    if (!folder) return folder.error();
    return FileLock::acquire(*folder + "/login-items.lock", FileLock::Mode::Exclusive,
                             kLockTimeout);
}

Result<void> writeEntry(const std::string& path, const std::string& text) {
    auto output = FileOutput::createFor(path);
    if (!output) return std::move(output).error();
    const std::span bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    if (auto written = output->write(bytes); !written) return written;
    return output->publish();
}

Result<void> deleteEntry(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) return Error::posix(errno, "unlink", path);
    return {};
}

// The file of that name in the first folder that has one.
std::optional<DesktopEntryFile> findEntry(const std::vector<std::string>& folders,
                                          const std::string& name) {
    for (const std::string& folder : folders) {
        const std::string path = folder + "/" + name;
        if (exists(path)) return readEntry(path);
    }
    return std::nullopt;
}

// What an entry of ours is made of.
struct NewEntry {
    std::string application;
    std::string program;
    std::string identifier;
    std::string name;
    std::optional<std::string> icon;

    static Result<NewEntry> forApplication(const std::string& url);
    std::string text() const;
    std::vector<std::string> fileNames() const;
};

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

bool isUnusual(char c) {
    return !(c >= 'a' && c <= 'z') && !(c >= 'A' && c <= 'Z') && !(c >= '0' && c <= '9') &&
           c != '.' && c != '-' && c != '_';
}

Result<NewEntry> NewEntry::forApplication(const std::string& url) {
    const auto bundle = Bundle::bundleWithPath(url);
    auto program = bundle ? mainProgramOfBundle(*bundle) : std::nullopt;
    if (!program) return Error::utilia(UtiliaErrorCode::NotFound, url + ": is no application");
    // The equal sign is what the Desktop Entry Specification does not allow in a program's path.
    if (!isValidUtf8(*program) || program->find('=') != std::string::npos ||
        std::any_of(program->begin(), program->end(), isControl)) {
        return Error::utilia(UtiliaErrorCode::Refused,
                             *program + ": a desktop entry cannot hold this path");
    }
    NewEntry entry;
    entry.application = bundle->bundlePath();
    entry.program = *std::move(program);
    entry.identifier = bundle->bundleIdentifier().value_or("");
    entry.name = bundle->infoDictionary().string("CFBundleName").value_or("");
    std::erase_if(entry.name, isControl);
    if (entry.name.empty())
        entry.name = stringByDeletingPathExtension(lastPathComponent(entry.application));
    if (const auto icon = bundle->infoDictionary().string("CFBundleIconFile"))
        entry.icon = bundle->pathForResource(*icon, "");
    return entry;
}

std::string NewEntry::text() const {
    std::string lines = "[Desktop Entry]\nType=Application\n";
    lines += "Name=" + desktopEntryString(name) + "\n";
    lines += "Exec=" + desktopEntryArgument(program) + "\n";
    // Sessions pass over the entry in silence once the application has been deleted.
    lines += "TryExec=" + desktopEntryString(program) + "\n";
    if (icon) lines += "Icon=" + desktopEntryString(*icon) + "\n";
    return lines + kOwn + "=true\n";
}

// In the order of preference. The second one is no other application's.
std::vector<std::string> NewEntry::fileNames() const {
    std::vector<std::string> names;
    if (!identifier.empty() && identifier.size() <= kLongestStem &&
        std::none_of(identifier.begin(), identifier.end(), isUnusual))
        names.push_back(identifier + std::string(kSuffix));
    std::string stem = stringByDeletingPathExtension(lastPathComponent(application));
    if (stem.size() > kLongestStem) stem = "application";
    names.push_back(InstancePort::nameForBundle(stem, application) + std::string(kSuffix));
    return names;
}

}  // namespace

Result<LoginItems> LoginItems::create() {
    return orOutOfMemory("read", "the login items", []() -> Result<LoginItems> {
        LoginItems list;
        list.userFolder_ = xdgFolder("XDG_CONFIG_HOME", ".config") + "/autostart";
        for (const std::string& folder : xdgFolders("XDG_CONFIG_DIRS", "/etc/xdg")) {
            if (folder + "/autostart" != list.userFolder_)
                list.systemFolders_.push_back(folder + "/autostart");
        }
        Entries entries;
        if (auto read = collectEntries(list.userFolder_, entries); !read)
            return std::move(read).error();
        return list;
    });
}

Result<std::vector<LoginItem>> LoginItems::snapshot() const {
    return orOutOfMemory("read", userFolder_, [this]() -> Result<std::vector<LoginItem>> {
        const auto entries = entriesIn(userFolder_, systemFolders_);
        if (!entries) return entries.error();
        std::vector<LoginItem> items;
        for (const auto& [name, path] : *entries) {
            const auto file = readEntry(path);
            if (!file || isOff(*file) || !isForThisSession(*file)) continue;
            LoginItem& item = items.emplace_back();
            item.name_ = name;
            item.path_ = path;
            item.url_ = applicationOf(*file);
        }
        return items;
    });
}

Result<void> LoginItems::remove(const LoginItem& item) const {
    return orOutOfMemory("remove", item.path_, [&]() -> Result<void> {
        const auto lock = lockList();
        if (!lock) return lock.error();
        return removeNamed(item.name_);
    });
}

Result<void> LoginItems::removeNamed(const std::string& name) const {
    const std::string path = userFolder_ + "/" + name;
    const bool isUsers = exists(path);
    const auto provided = findEntry(systemFolders_, name);
    const auto own = isUsers ? readEntry(path) : std::nullopt;
    const auto& file = isUsers ? own : provided;
    if (!file || isOff(*file)) return {};
    if (isUsers && !provided && file->boolean(kOwn, false)) return deleteEntry(path);
    const auto hidden = file->withBoolean(kHidden, true);
    if (!hidden) return hidden.error();
    if (auto made = makeFolders(userFolder_, 0700); !made) return made;
    return writeEntry(path, hidden->text());
}

Result<LoginItem> LoginItems::insertAtEnd(std::string_view url) const {
    return orOutOfMemory("add login item", url, [&]() -> Result<LoginItem> {
        const auto lock = lockList();
        if (!lock) return lock.error();
        return insert(std::string(url));
    });
}

Result<LoginItem> LoginItems::insert(const std::string& url) const {
    const auto added = NewEntry::forApplication(url);
    if (!added) return added.error();
    const auto items = snapshot();
    if (!items) return items.error();
    for (const LoginItem& each : *items) {
        if (each.url_ == added->application) return each;
    }
    const auto entries = entriesIn(userFolder_, systemFolders_);
    if (!entries) return entries.error();
    if (auto made = makeFolders(userFolder_, 0700); !made) return std::move(made).error();

    LoginItem item;
    item.url_ = added->application;
    for (const auto& [name, path] : *entries) {
        auto file = readEntry(path);
        if (!file || !isOff(*file)) continue;
        const auto provided = findEntry(systemFolders_, name);
        // Who hides an entry of the system need not copy it.
        if (!file->string("Exec") && provided) file = findEntry(systemFolders_, name);
        if (!isForThisSession(*file) || applicationOf(*file) != added->application) continue;

        auto shown = file->without(kHidden);
        if (shown) shown = shown->without(kEnabled);
        if (!shown) return std::move(shown).error();
        item.name_ = name;
        item.path_ = userFolder_ + "/" + name;
        if (provided && provided->text() == shown->text()) {
            item.path_ = provided->path();
            if (auto deleted = deleteEntry(userFolder_ + "/" + name); !deleted)
                return std::move(deleted).error();
        } else if (auto written = writeEntry(item.path_, shown->text()); !written) {
            return std::move(written).error();
        }
        return item;
    }

    for (const std::string& name : added->fileNames()) {
        item.name_ = name;
        item.path_ = userFolder_ + "/" + name;
        if (const auto found = entries->find(name); found != entries->end() || exists(item.path_)) {
            const auto file = readEntry(item.path_);
            // One of ours whose application has gone makes room.
            if (!file || !file->boolean(kOwn, false) || applicationOf(*file)) continue;
        }
        if (auto written = writeEntry(item.path_, added->text()); !written)
            return std::move(written).error();
        return item;
    }
    return Error::utilia(UtiliaErrorCode::Refused, item.path_ + ": is in the way");
}

}  // namespace utilia::platform
