#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"

namespace utilia::platform {

// The URL of an application is the resolved path of its bundle, without "/" at the end, here as
// everywhere in this library. Two URLs are the same when their texts are.

// One entry of the list, as it was when the snapshot was taken.
class UTILIA_EXPORT LoginItem final {
public:
    // The application that the entry starts; empty when that cannot be told without the user: the
    // program is gone, lies in no application bundle, or is started through another one.
    const std::optional<std::string>& resolvedURL() const { return url_; }
    // The file that provides the entry.
    const std::string& path() const { return path_; }

private:
    friend class LoginItems;
    std::string name_;
    std::string path_;
    std::optional<std::string> url_;
};

// What the user's session starts when the user logs in.
//
// The list is what the session itself goes by: files that other programs write too, and that an
// administrator provides for every user. Entries that are switched off, or meant for other kinds of
// sessions, are no items. The order is that of the files' names.
//
// What others wrote is never lost: removing an item that is not of this library's making, or that
// the administrator provides, switches it off for this user, and adding its application again
// switches it on. Each change is one file that is replaced at once or not at all.
//
// Threads: any; an object belongs to one thread.
class UTILIA_EXPORT LoginItems final {
public:
    // Fails when the user's part of the list cannot be read. A part that is missing is empty.
    static Result<LoginItems> create();

    // The items, now. Entries that cannot be read are left out.
    Result<std::vector<LoginItem>> snapshot() const;

    // Success also when the item has gone in the meantime.
    Result<void> remove(const LoginItem& item) const;

    // Makes the application start at login: answers an item that it has, switches on an entry that
    // is off, or adds one. Fails with NotFound when there is no such application, with Refused
    // when its path cannot be written into an entry or its file names are taken, with Busy when
    // another process changes the list for more than 2 s.
    Result<LoginItem> insertAtEnd(std::string_view url) const;

private:
    LoginItems() = default;
    Result<void> removeNamed(const std::string& name) const;
    Result<LoginItem> insert(const std::string& url) const;

    std::string userFolder_;
    std::vector<std::string> systemFolders_;
};

}  // namespace utilia::platform
