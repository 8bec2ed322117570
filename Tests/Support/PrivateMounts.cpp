#include "Tests/Support/PrivateMounts.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file) throw std::runtime_error("write " + path.string());
}

bool makeMountReadOnly(const char* path) {
    return mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
}

// ECHILD for a child that did not end by itself.
int exitStatus(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : ECHILD;
}

// 0, or the errno of the step that a child of this process cannot do.
int tryToEnter(const PrivateMounts& mounts) {
    const pid_t child = fork();
    if (child < 0) return errno;
    if (child == 0) _exit(mounts.enter() ? 0 : errno);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : ECHILD;
}

}  // namespace

PrivateMounts::PrivateMounts() : etc_(etc().string()), original_(folder_.path() / "system-etc") {
    // Children may run as another user.
    fs::permissions(folder_.path(), fs::perms(0755));
    fs::create_directory(original_);
    fs::create_directory(etc_);
    fs::permissions(etc_, fs::perms(0755));
    for (const auto& entry : fs::directory_iterator("/etc")) {
        const fs::path name = entry.path().filename();
        if (name == "com.korvane.utilia") continue;
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), etc() / name);
        } else {
            fs::create_symlink(fs::path(original_) / name, etc() / name);
        }
    }
    if (const int error = tryToEnter(*this); error != 0) {
        throw std::runtime_error("this test needs a mount namespace of its own, which takes root "
                                 "(CAP_SYS_ADMIN): " +
                                 std::string(std::strerror(error)));
    }
}

void PrivateMounts::writeSettings(const std::string& text) const {
    fs::create_directories(settingsFolder());
    fs::permissions(settingsFolder(), fs::perms(0755));
    writeFile(settingsFile(), text);
    fs::permissions(settingsFile(), fs::perms(0644));
}

void PrivateMounts::replaceGroups(const std::string& text) const {
    fs::remove(etc() / "group");
    writeFile(etc() / "group", text);
    fs::permissions(etc() / "group", fs::perms(0644));
}

void PrivateMounts::limitSpace(const std::string& inside, std::size_t bytes) {
    mounts_.push_back({inside, "mode=0755,size=" + std::to_string(bytes)});
}

void PrivateMounts::makeReadOnly(const std::string& inside) { mounts_.push_back({inside, {}}); }

bool PrivateMounts::run(const std::function<void()>& body, uid_t user) const {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) return false;
    if (child == 0) {
        alarm(180);
        if (!enter() || (user != static_cast<uid_t>(-1) &&
                         (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0))) {
            std::perror("PrivateMounts");
            _exit(1);
        }
        try {
            body();
        } catch (const std::exception& exception) {
            ADD_FAILURE() << exception.what();
        }
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return exitStatus(child) == 0;
}

bool PrivateMounts::enter() const {
    if (unshare(CLONE_NEWNS) != 0) return false;
    // Nothing that is mounted from now on reaches the namespace outside.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    if (mount("/etc", original_.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0 ||
        !makeMountReadOnly(original_.c_str()) ||
        mount(etc_.c_str(), "/etc", nullptr, MS_BIND, nullptr) != 0) {
        return false;
    }
    for (const Mount& each : mounts_) {
        const char* const path = each.inside.c_str();
        const bool done =
            each.options.empty()
                ? mount(path, path, nullptr, MS_BIND, nullptr) == 0 && makeMountReadOnly(path)
                : mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV, each.options.c_str()) == 0;
        if (!done) return false;
    }
    return true;
}

}  // namespace utilia::test
