#pragma once

#include <filesystem>
#include <stdexcept>

#include <sys/types.h>
#include <unistd.h>

#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {

// Somebody whom file permissions stop: this user, or "nobody" when the test runs as root. The home
// is his from now on; bundles in it stay as they are, readable by all.
class UnprivilegedUser final {
public:
    explicit UnprivilegedUser(const TemporaryHome& home) {
        for (const char* name : {"", "run", "config", "data", "state", "cache"})
            own(home.path() / name);
    }

    uid_t id() const { return geteuid() == 0 ? kNobody : static_cast<uid_t>(-1); }

    // Gives him a folder and everything in it.
    void own(const std::filesystem::path& path) const {
        if (geteuid() != 0) return;
        give(path);
        if (path.filename().empty() || !std::filesystem::is_directory(path)) return;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path))
            give(entry.path());
    }

private:
    static constexpr uid_t kNobody = 65534;

    static void give(const std::filesystem::path& path) {
        if (lchown(path.c_str(), kNobody, kNobody) != 0)
            throw std::runtime_error("chown " + path.string());
    }
};

}  // namespace utilia::test
