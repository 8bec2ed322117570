#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Common/Foundation/Value.h"
#include "Common/Platform/Linux/PreferencesFile.h"

namespace utilia::platform {

// Logs a problem when it begins, not each time it is met again.
class ProblemLog final {
public:
    void met(const std::string& problem);
    void isOver();

private:
    std::mutex mutex_;
    std::string last_;
};

// One preferences domain as this process knows it: its file, and the version of it that was read
// last.
//
// Threads: any.
class PreferencesDomain final {
public:
    struct Change {
        std::string key;
        std::optional<Value> value;  // empty: the key is removed
    };

    static void change(Dictionary& content, std::span<const Change> changes);

    // The domain stored at the path; the same object for all who ask in this process, so that they
    // share what was parsed.
    static std::shared_ptr<PreferencesDomain> at(const std::string& path);

    explicit PreferencesDomain(std::string path) : file_(std::move(path)) {}

    const std::string& path() const { return file_.path(); }

    // What the file holds now; empty when there is none or it cannot be read, which is logged.
    Dictionary content();
    // Fails when the file cannot be read, which is logged. As long as only a few keys of a large file
    // were asked for, the file is not parsed, and damage that does not touch them is not noticed.
    Result<std::optional<Value>> value(std::string_view key);

    // Changes these keys in the file and nothing else. False, with a log line, when that is not
    // possible; the file is then as it was.
    bool apply(std::span<const Change> changes);

private:
    using Version = std::shared_ptr<const PreferencesVersion>;
    enum class Lock { Free, Held };

    // The keys of one version that were looked up without parsing it.
    struct Glances {
        Version version;
        std::vector<std::pair<std::string, std::optional<Value>>> answers;
    };
    static constexpr std::size_t kMostGlances = 4;

    std::optional<std::optional<Value>> glance(std::string_view key);
    Result<Version> readable();
    Result<Version> current(Lock lock);
    Result<Version> repair(Lock lock);
    Version substituteFor(const Version& backup) const;
    Result<void> applyLocked(std::span<const Change> changes);
    Version remembered() const;
    Version remember(Version version);

    const PreferencesFile file_;
    mutable std::mutex mutex_;  // no file is touched under it
    Version version_;
    Glances glances_;              // guarded by mutex_; nothing while there is a version
    std::int64_t nextBackup_ = 0;  // guarded by the domain's lock
    ProblemLog readProblem_;
    ProblemLog writeProblem_;
};

}  // namespace utilia::platform
