#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include <unistd.h>

#include "Applications/utiliactl/Doctor/Diagnosis.h"
#include "Common/Platform/FileLock.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

// Files are read as they lie there. The stores' own functions would make what is missing, and set aside what is damaged.

namespace utilia::control {
namespace {

namespace fs = std::filesystem;
using platform::FileManager;
using Severity = Diagnosis::Severity;
using namespace std::chrono_literals;

constexpr const char* kStore = "shared store";
constexpr const char* kPreferences = "preferences";
constexpr const char* kLogs = "logs";
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

// What is missing is judged by the folder that it would be made in.
fs::path nearestFolder(fs::path path) {
    while (path.has_relative_path() && FileManager::isNothingAtPath(path.string()))
        path = path.parent_path();
    return path;
}

Diagnosis diagnoseFolder(const char* check, const fs::path& folder, const std::string& variable) {
    std::error_code error;
    const fs::path nearest = nearestFolder(folder);
    const std::string advice =
        variable +
        " must be a folder that is yours and writable: look at the owner and the mode "
        "of " +
        nearest.string() + ", and whether its disk is mounted read-only.";
    if (!FileManager::isDirectoryAtPath(nearest.string()))
        return {check, Severity::Error, nearest.string() + " is not a folder", advice};
    const auto status = FileManager::attributesOfItemAtPath(fs::canonical(nearest, error).string());
    if (nearest == folder && status && status->ownerAccountId != geteuid())
        return {check, Severity::Error, nearest.string() + " belongs to another user", advice};
    if (!FileManager::isWritableFileAtPath(nearest.string())) {
        return {check, Severity::Error,
                nearest.string() + " cannot be written; what is set is not kept", advice};
    }
    return {check, Severity::Good, folder.string(), ""};
}

// Empty when there is no such file.
std::optional<Result<Dictionary>> contentOf(const fs::path& file) {
    if (FileManager::isNothingAtPath(file.string())) return std::nullopt;
    const auto bytes =
        FileManager::contentsAtPath(file.string(), platform::kPropertyListMaximumSize);
    if (!bytes) return bytes.error();
    const auto value = platform::propertyListFromData(*bytes);
    if (!value) return value.error().withContext(file.string());
    if (!value->dictionary()) {
        return Error::utilia(UtiliaErrorCode::Refused, file.string() + ": not a dictionary");
    }
    return *value->dictionary();
}

Diagnosis unreadable(const char* check, const fs::path& file, const Error& error) {
    const std::string name = file.filename().string();
    return {check, Severity::Error, error.description,
            "The next program that reads it sets it aside as " + name +
                ".damaged-DATE and goes on with the backup, " + name +
                ".bak, or without one with nothing. Copy both first if you want to look at them; "
                "if the file cannot be read at all, make it yours again."};
}

Diagnoses diagnosePreferences(const fs::path& folder) {
    Diagnoses found{diagnoseFolder(kPreferences, folder, "XDG_CONFIG_HOME (or ~/.config)")};
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        if (entry.path().extension() != ".plist") continue;
        const auto content = contentOf(entry.path());
        if (content && !*content)
            found.push_back(unreadable(kPreferences, entry.path(), content->error()));
    }
    return found;
}

Diagnosis diagnoseRoom(const fs::path& folder) {
    std::error_code error;
    const auto space = fs::space(folder, error);
    if (error) {
        return {kRoom, Severity::Error, folder.string() + ": " + error.message(),
                "Look whether its disk is mounted and in order."};
    }
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

// Under the lock, on a thread of its own, since it is waited for as long as it takes. Empty when it takes too long.
std::optional<std::optional<Result<Dictionary>>> readWithinPatience(const fs::path& container,
                                                                    const fs::path& file) {
    using Answer = std::optional<Result<Dictionary>>;
    std::promise<Answer> promise;
    auto answer = promise.get_future();
    std::thread(
        [container, file](std::promise<Answer> kept) {
            const auto lock =
                platform::FileLock::acquireFolder(container, platform::FileLock::Mode::Exclusive);
            kept.set_value(lock ? contentOf(file) : Answer(lock.error()));
        },
        std::move(promise))
        .detach();
    if (answer.wait_for(kPatience) != std::future_status::ready) return std::nullopt;
    return answer.get();
}

Diagnosis diagnoseContent(const fs::path& container, const fs::path& file) {
    const std::string nothing = "0 keys in " + container.string();
    if (FileManager::isNothingAtPath(container.string()))
        return {kStore, Severity::Good, nothing, ""};
    const auto content = readWithinPatience(container, file);
    if (!content) {
        return {kStore, Severity::Error,
                "another process has held the lock on " + container.string() + " for more than 3 s",
                "The line above names the process. End it if it does not go on by itself; the "
                "system frees the lock, and nothing that was stored is lost."};
    }
    if (!*content) return {kStore, Severity::Good, nothing, ""};
    const Result<Dictionary>& read = **content;
    if (!read) return unreadable(kStore, file, read.error());
    return {kStore, Severity::Good, std::to_string(read->size()) + " keys in " + container.string(),
            ""};
}

// Where a domain or suite is stored; asking makes nothing.
fs::path fileOf(const std::unique_ptr<platform::UserDefaults>& defaults) {
    return defaults ? fs::path(defaults->path()) : fs::path();
}

fs::path stateFolder() {
    const char* const given = std::getenv("XDG_STATE_HOME");
    if (given && given[0] == '/') return given;
    const char* const home = std::getenv("HOME");
    return fs::path(home ? home : "/") / ".local/state";
}

}  // namespace

Diagnoses checkStore() {
    Diagnoses found;
    const auto add = [&found](Diagnoses more) {
        found.insert(found.end(), more.begin(), more.end());
    };
    const fs::path preferences =
        fileOf(platform::UserDefaults::initWithDomain(kAgentBundleIdentifier)).parent_path();
    add(diagnosePreferences(preferences));
    add(diagnoseDamage(kPreferences, preferences));

    const fs::path store = fileOf(platform::UserDefaults::initWithSuiteName(kAppGroupIdentifier));
    const fs::path container = store.parent_path().parent_path().parent_path();
    const Diagnosis folder = diagnoseFolder(kStore, container, "XDG_DATA_HOME (or ~/.local/share)");
    const Diagnosis content =
        folder.severity == Severity::Good ? diagnoseContent(container, store) : folder;
    found.push_back(content);
    add(diagnoseDamage(kStore, store.parent_path()));
    found.push_back(diagnoseFolder(kLogs, stateFolder() / "korvane-utilia/Library/Logs",
                                   "XDG_STATE_HOME (or ~/.local/state)"));
    found.push_back(diagnoseRoom(nearestFolder(container)));
    return found;
}

}  // namespace utilia::control
