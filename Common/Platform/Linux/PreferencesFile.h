#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sys/stat.h>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// One version of a preferences file, as it was read or written. Immutable, and shared between
// threads.
//
// Holding its file open, it can be recognised by device and inode: nobody writes into a published
// file, and the kernel gives the number of an open inode to no new file. A path that leads to the
// same two numbers leads to this very version.
struct PreferencesVersion {
    UniqueFd file;
    struct stat status {};
    Dictionary content;
    bool isDamaged = false;  // the file does not parse and could not be set aside; content is the
                             // backup's, or empty

    // Size and time stamp are compared too, for the person who edits the file in place.
    bool isAt(const struct stat& found) const;
};

// The files of one domain and what may be done with them. The functions that change something
// expect the caller to hold the domain's lock.
class PreferencesFile final {
public:
    explicit PreferencesFile(std::string path);

    const std::string& path() const { return path_; }
    std::string lockPath() const { return path_ + ".lock"; }
    std::string backupPath() const { return path_ + ".bak"; }
    std::string stagingPath() const { return path_ + ".new"; }

    // Null when there is no file. CocoaErrorCode::PropertyListReadCorrupt when it is there and
    // damaged.
    Result<std::shared_ptr<const PreferencesVersion>> read() const;

    // What the file holds under one key, without reading the rest into memory as values: the version
    // has no content. Empty when there is no file, or when it does not answer (it is XML, damaged
    // where it was looked at, unreadable): read() then says more.
    struct Glance {
        std::shared_ptr<const PreferencesVersion> version;
        std::optional<Value> value;
    };
    std::optional<Glance> glance(std::string_view key) const;
    // The same in the version that is open already.
    static std::optional<Glance> glance(std::shared_ptr<const PreferencesVersion> version,
                                        std::string_view key);

    // Replaces the file; on failure it is as it was.
    Result<std::shared_ptr<const PreferencesVersion>> replace(Dictionary content) const;

    // Keeps the present file as backup when the last one is older than a day. A failure costs the
    // backup only. Answers when to look again, in seconds of Unix time.
    std::int64_t keepBackup(std::int64_t now) const;

    // The last backup; null when there is none. CocoaErrorCode::PropertyListReadCorrupt when it is
    // damaged.
    Result<std::shared_ptr<const PreferencesVersion>> readBackup() const;

    // Puts a damaged file under a dated name, and its backup in its place when there is one to
    // restore: then the path leads to that very version. No more than three dated files stay.
    // Answers the dated name.
    enum class Backup { Restore, Missing };
    Result<std::string> setAside(Backup backup) const;

private:
    Result<void> exchangeForBackup(const std::string& aside) const;

    std::string path_;
};

}  // namespace utilia::platform
