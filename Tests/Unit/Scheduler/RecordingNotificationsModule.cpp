#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "Common/Platform/Linux/Modules/Desktop/NotificationsModule.h"

// Appends a line for each post to $HOME/posts: the name, and whether the store's lock was free. The
// store as it was at that moment is copied to $HOME/store-when-posted.

namespace {

std::uint32_t observe(const char*, const char*, const char*, std::uint32_t, UtiliaNotificationHeard,
                      char*) {
    return UtiliaNotificationsDone;
}

void ignore(const char*, const char*) {}

std::uint32_t post(const char*, const char* interface, const char* member, std::uint32_t, char*) {
    const std::string container = std::string(std::getenv("XDG_DATA_HOME")) +
                                  "/korvane-utilia/Group Containers/7QK2M9ZD4R.com.korvane.utilia";
    const int folder = open(container.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool isFree = folder >= 0 && flock(folder, LOCK_EX | LOCK_NB) == 0;
    close(folder);
    const std::string home = std::getenv("HOME");
    std::FILE* const posts = std::fopen((home + "/posts").c_str(), "ae");
    std::fprintf(posts, "%s.%s %s\n", interface, member, isFree ? "unlocked" : "locked");
    std::fclose(posts);
    const std::string copy = "cp '" + container +
                             "/Library/Preferences/7QK2M9ZD4R.com.korvane.utilia.plist' '" + home +
                             "/store-when-posted'";
    return std::system(copy.c_str()) == 0 ? UtiliaNotificationsDone : UtiliaNotificationsRefused;
}

}  // namespace

extern "C" __attribute__((visibility("default")))
const UtiliaNotificationsModule utiliaNotificationsModule;
const UtiliaNotificationsModule utiliaNotificationsModule = {kUtiliaNotificationsVersion, observe,
                                                             ignore, post};
