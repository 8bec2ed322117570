#include "Tests/Support/TemporaryHome.h"

#include <cstdlib>
#include <stdexcept>

#include <sys/stat.h>
#include <unistd.h>

namespace utilia::test {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder(const fs::path& within) {
    std::string pattern = (within / "utilia-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp " + pattern);
    path_ = fs::canonical(pattern);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
    if (!ignored) return;
    // A test may have taken the permissions of a folder away.
    for (auto it = fs::recursive_directory_iterator(
             path_, fs::directory_options::skip_permission_denied, ignored);
         it != fs::recursive_directory_iterator(); it.increment(ignored)) {
        if (it->is_directory(ignored)) chmod(it->path().c_str(), 0700);
    }
    fs::remove_all(path_, ignored);
}

fs::path folderInMemory() {
    const fs::path memory = "/dev/shm";
    return access(memory.c_str(), W_OK | X_OK) == 0 ? memory : fs::temp_directory_path();
}

TemporaryHome::TemporaryHome(const fs::path& within) : folder_(within) {
    const auto set = [this](const char* name, const std::optional<std::string>& value) {
        const char* old = std::getenv(name);
        before_.emplace(name, old ? std::optional<std::string>(old) : std::nullopt);
        if (value) {
            setenv(name, value->c_str(), 1);
        } else {
            unsetenv(name);
        }
    };
    for (const char* name : {"run", "config", "data", "state", "cache"}) {
        fs::create_directory(path() / name);
        chmod((path() / name).c_str(), 0700);
    }
    set("HOME", path().string());
    set("XDG_RUNTIME_DIR", runtime().string());
    set("XDG_CONFIG_HOME", config().string());
    set("XDG_DATA_HOME", data().string());
    set("XDG_STATE_HOME", state().string());
    set("XDG_CACHE_HOME", (path() / "cache").string());
    set("XDG_DATA_DIRS", (path() / "share").string());
    set("XDG_CONFIG_DIRS", systemConfig().string());
    set("XDG_CURRENT_DESKTOP", std::nullopt);
    set("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
    set("DISPLAY", std::nullopt);
    set("WAYLAND_DISPLAY", std::nullopt);
}

TemporaryHome::~TemporaryHome() {
    for (const auto& [name, value] : before_) {
        if (value) {
            setenv(name.c_str(), value->c_str(), 1);
        } else {
            unsetenv(name.c_str());
        }
    }
}

fs::path TemporaryHome::groupContainer() const {
    return data() / "korvane-utilia" / "Group Containers" / "7QK2M9ZD4R.com.korvane.utilia";
}

}  // namespace utilia::test
