#include "Common/Platform/Linux/PortFolder.h"

#include <cerrno>
#include <cstdio>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/Linux/Folders.h"

namespace utilia::platform {
namespace {

constexpr std::size_t kLongestName = 200;
constexpr std::string_view kLockSuffix = ".lock";

}  // namespace

bool PortFolder::isUsableName(std::string_view name) {
    if (name.empty() || name.size() > kLongestName || name == "." || name == "..") return false;
    if (name.find('/') != std::string_view::npos || name.find('\0') != std::string_view::npos)
        return false;
    return !name.ends_with(kLockSuffix);
}

std::string PortFolder::lockName(std::string_view name) {
    return std::string(name).append(kLockSuffix);
}

Result<PortFolder> PortFolder::open() {
    auto path = ensureRuntimeSubfolder("ports");
    if (!path) return std::move(path).error();
    auto descriptor = openFolder(*path);
    if (!descriptor) return std::move(descriptor).error();
    // The path was checked; what it led to a moment later is what will be used.
    struct stat folder {};
    if (fstat(descriptor->get(), &folder) != 0) return Error::posix(errno, "fstat", *path);
    if (folder.st_uid != geteuid() || (folder.st_mode & 077) != 0) {
        return Error::utilia(UtiliaErrorCode::Refused, *path + ": is not this user's alone");
    }
    PortFolder opened;
    opened.path_ = std::move(path).value();
    opened.descriptor_ = std::move(descriptor).value();
    return opened;
}

sockaddr_un PortFolder::addressOf(std::string_view shortName) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%.*s",
                  descriptor_.get(), static_cast<int>(shortName.size()), shortName.data());
    return address;
}

sockaddr_un addressOfDescriptor(int descriptor) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d", descriptor);
    return address;
}

bool isPeerOfThisUser(int socket, pid_t* process) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || length != sizeof peer)
        return false;
    if (process) *process = peer.pid;
    return peer.uid == geteuid();
}

}  // namespace utilia::platform
