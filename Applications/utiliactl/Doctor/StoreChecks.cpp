#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "Applications/utiliactl/Doctor/Diagnosis.h"
#include "Applications/utiliactl/Doctor/FolderCheck.h"
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
constexpr auto kPatience = 3s;
constexpr const char* kLoss = "what is set is not kept";
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
    Diagnoses found{diagnoseFolder(kPreferences, folder, "XDG_CONFIG_HOME (or ~/.config)", kLoss)};
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

Diagnosis diagnoseContent(const fs::path& container, const fs::path& file) {
    const std::string nothing = "0 keys in " + container.string();
    if (FileManager::isNothingAtPath(container.string()))
        return {kStore, Severity::Good, nothing, ""};
    const auto lock = platform::FileLock::acquireFolder(
        container, platform::FileLock::Mode::Exclusive, kPatience);
    if (!lock && lock.error().is(UtiliaErrorCode::Busy)) {
        return {kStore, Severity::Error, lock.error().description,
                "End that process if it does not go on by itself; the system frees the lock, and "
                "nothing that was stored is lost."};
    }
    if (!lock) return unreadable(kStore, file, lock.error());
    const auto content = contentOf(file);
    if (!content) return {kStore, Severity::Good, nothing, ""};
    const Result<Dictionary>& read = *content;
    if (!read) return unreadable(kStore, file, read.error());
    return {kStore, Severity::Good, std::to_string(read->size()) + " keys in " + container.string(),
            ""};
}

// Locked is the container, and written the folder with the file in it: temporary files lie there, too.
Diagnosis diagnoseStore(const fs::path& container, const fs::path& file) {
    for (const fs::path& folder : {container, file.parent_path()}) {
        auto found = diagnoseFolder(kStore, folder, "XDG_DATA_HOME (or ~/.local/share)", kLoss);
        if (found.severity != Severity::Good) return found;
    }
    return diagnoseContent(container, file);
}

// Where a domain or suite is stored; asking makes nothing.
fs::path fileOf(const std::unique_ptr<platform::UserDefaults>& defaults) {
    return defaults ? fs::path(defaults->path()) : fs::path();
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
    found.push_back(diagnoseStore(container, store));
    add(diagnoseDamage(kStore, store.parent_path()));
    found.push_back(diagnoseFolder(
        kLogs, folderOfUser("XDG_STATE_HOME", ".local/state") / "korvane-utilia/Library/Logs",
        "XDG_STATE_HOME (or ~/.local/state)", kLoss));
    found.push_back(diagnoseRoom(nearestFolder(container)));
    return found;
}

}  // namespace utilia::control
