#pragma once

#include <string>
#include <string_view>

#include <sys/un.h>

#include "Common/Foundation/Result.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// The folder of the runtime folder in which ports are registered: for each name a socket NAME, and
// NAME.lock.
class PortFolder final {
public:
    // Whether a name can be registered at all: 1 to 200 bytes, one path component, and no lock
    // file's name.
    static bool isUsableName(std::string_view name);
    static std::string lockName(std::string_view name);

    // Makes the folder when it is missing; fails when it, or the runtime folder, is not the user's
    // alone.
    static Result<PortFolder> open();

    int descriptor() const { return descriptor_.get(); }
    const std::string& path() const { return path_; }
    // For messages about what lies in the folder.
    std::string pathOf(std::string_view name) const { return path_ + "/" + std::string(name); }

    // The address of an entry of at most 80 bytes, however long the folder's own path is.
    sockaddr_un addressOf(std::string_view shortName) const;

private:
    std::string path_;
    UniqueFd descriptor_;
};

// The address of what a descriptor stands for, as /proc names it.
sockaddr_un addressOfDescriptor(int descriptor);

// Whether the peer of a connected socket is a process of this user; `process` gets its id.
bool isPeerOfThisUser(int socket, pid_t* process);

}  // namespace utilia::platform
