#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace utilia::test {

// A folder of its own for one test, removed with everything in it.
class TemporaryFolder final {
public:
    explicit TemporaryFolder(
        const std::filesystem::path& within = std::filesystem::temp_directory_path());
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// A folder in memory where the system has one, for tests that replace files thousands of times.
std::filesystem::path folderInMemory();

// A private user: home, XDG folders and runtime folder in a folder of its own, put into this
// process's environment (and so into every child's) for as long as the object lives. No real home,
// session bus or journal is touched.
class TemporaryHome final {
public:
    explicit TemporaryHome(
        const std::filesystem::path& within = std::filesystem::temp_directory_path());
    ~TemporaryHome();

    std::filesystem::path path() const { return folder_.path(); }
    std::filesystem::path runtime() const { return folder_.path() / "run"; }    // XDG_RUNTIME_DIR
    std::filesystem::path config() const { return folder_.path() / "config"; }  // XDG_CONFIG_HOME
    std::filesystem::path data() const { return folder_.path() / "data"; }      // XDG_DATA_HOME
    std::filesystem::path state() const { return folder_.path() / "state"; }    // XDG_STATE_HOME
    // XDG_CONFIG_DIRS; not there until a test makes it.
    std::filesystem::path systemConfig() const { return folder_.path() / "xdg"; }
    std::filesystem::path groupContainer() const;  // where the suite's container belongs

private:
    TemporaryFolder folder_;
    std::map<std::string, std::optional<std::string>> before_;
};

}  // namespace utilia::test
