#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include "Applications/utiliactl/Doctor/Diagnosis.h"
#include "Applications/utiliactl/SharedStore.h"
#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

namespace utilia::control {
namespace {

namespace fs = std::filesystem;
using platform::FileManager;
using Severity = Diagnosis::Severity;
using namespace std::chrono_literals;

constexpr const char* kStore = "shared store";
constexpr const char* kPreferences = "preferences";
constexpr const char* kRoom = "disk space";
// The holder of a lock is logged after 2 s.
constexpr auto kPatience = 3s;
constexpr std::string_view kSetAside = ".plist.damaged-";
constexpr std::uintmax_t kLittleRoom = 100u * 1024 * 1024;
constexpr std::uintmax_t kNoRoom = 5u * 1024 * 1024;

// What lies in the folder because it could not be read.
Diagnoses diagnoseDamage(const char* check, const fs::path& folder) {
    Diagnoses found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        if (entry.path().filename().string().find(kSetAside) == std::string::npos) continue;
        found.push_back({check, Severity::Notice,
                         "a damaged file was set aside: " + entry.path().string(),
                         "Remove it when nothing in it is needed any more."});
    }
    return found;
}

Diagnosis diagnoseRoom(const fs::path& folder) {
    std::error_code error;
    const auto space = fs::space(folder, error);
    if (error) return {kRoom, Severity::Error, folder.string() + ": " + error.message(), ""};
    const std::string room =
        std::to_string(space.available / (1024 * 1024)) + " MiB free at " + folder.string();
    if (space.available < kNoRoom) {
        return {kRoom, Severity::Error, room,
                "Make room: nothing can be stored, and what is stored stays as it is."};
    }
    if (space.available < kLittleRoom)
        return {kRoom, Severity::Warning, room, "Make room before nothing can be stored."};
    return {kRoom, Severity::Good, room, ""};
}

// On a thread of its own, since the lock is waited for as long as it takes.
std::optional<Result<Dictionary>> readWithinPatience() {
    std::promise<Result<Dictionary>> promise;
    auto answer = promise.get_future();
    std::thread([](std::promise<Result<Dictionary>> kept) { kept.set_value(readSharedStore()); },
                std::move(promise))
        .detach();
    if (answer.wait_for(kPatience) != std::future_status::ready) return std::nullopt;
    return answer.get();
}

Diagnosis diagnoseContent(const std::string& container) {
    const auto content = readWithinPatience();
    if (!content) {
        return {kStore, Severity::Error,
                "another process has held the lock on " + container + " for more than 3 s",
                "The line above names the process. End it if it does not go on by itself; the "
                "system frees the lock, and nothing that was stored is lost."};
    }
    if (!*content) return {kStore, Severity::Error, content->error().description, ""};
    return {kStore, Severity::Good, std::to_string((*content)->size()) + " keys in " + container,
            ""};
}

}  // namespace

Diagnoses checkStore() {
    Diagnoses found;
    const auto add = [&found](Diagnoses more) {
        found.insert(found.end(), more.begin(), more.end());
    };
    const auto preferences = FileManager::preferencesFolder();
    if (preferences) {
        found.push_back({kPreferences, Severity::Good, *preferences, ""});
        add(diagnoseDamage(kPreferences, *preferences));
    } else {
        found.push_back({kPreferences, Severity::Error, "their folder cannot be used",
                         "XDG_CONFIG_HOME, or .config in the home folder, must be yours and "
                         "writable."});
    }
    const auto container =
        FileManager::containerURLForSecurityApplicationGroupIdentifier(kAppGroupIdentifier);
    if (!container) {
        found.push_back({kStore, Severity::Error,
                         "its folder cannot be used; the line above says why",
                         "XDG_DATA_HOME, or .local/share in the home folder, must be yours and "
                         "writable."});
        return found;
    }
    found.push_back(diagnoseContent(*container));
    add(diagnoseDamage(kStore, fs::path(*container) / "Library/Preferences"));
    found.push_back(diagnoseRoom(*container));
    return found;
}

}  // namespace utilia::control
