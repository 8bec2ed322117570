#include "Applications/utiliactl/AdminSettingsFile.h"

#include <cstdint>
#include <string>
#include <utility>

#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"
#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"

// The settings are saved in place, as the framework does it, so that owner, group and mode stay and
// every administrator's group may save: emptied first, then written. A disk that is full just then
// leaves nothing or a piece, and tools that start meanwhile are not restricted. So a copy is put on
// the disk first, and only when that is there is the file touched; whoever fails after that has the
// copy, and most often its room, to put everything back.

namespace utilia::control {
namespace {

using platform::FileManager;

bool isMissing(const Error& error) {
    return error.code == static_cast<int>(CocoaErrorCode::FileReadNoSuchFile);
}

Error unchangeable(const std::string& reason) {
    return Error::utilia(UtiliaErrorCode::Unavailable,
                         KAVPathHelper::filePath() + " cannot be changed: " + reason);
}

std::string reasonOf(const Error& error) {
    if (error.code != static_cast<int>(CocoaErrorCode::FileWriteNoPermission))
        return error.description;
    return error.description + " (it takes root, or membership in the administrators' group)";
}

std::string previousPath() { return KAVPathHelper::filePath() + ".previous"; }

// Whoever may read the settings may read what they were. For a moment, or when the system refuses the
// mode, that is the usual mode of a new file; settings are no secrets.
Result<void> keepPrevious(const Data& bytes) {
    const std::string path = KAVPathHelper::filePath();
    const auto status = FileManager::attributesOfItemAtPath(path);
    if (!status) return unchangeable(status.error().description);
    if (const auto kept = FileManager::writeAtomically(previousPath(), bytes); !kept) {
        return unchangeable(reasonOf(Error::cocoa(kept.error(), Error::FileAccess::Writing)));
    }
    (void)FileManager::setAttributes({.groupOwnerAccountId = status->groupOwnerAccountId,
                                      .posixPermissions = status->posixPermissions},
                                     previousPath());
    return {};
}

Error cannotOpen(bool existed, std::int64_t code) {
    if (existed) return unchangeable("it was changed meanwhile");
    if (code == static_cast<int>(CocoaErrorCode::FileWriteNoPermission))
        return unchangeable("making it takes root");
    return unchangeable("it cannot be made (error " + std::to_string(code) + ")");
}

// After a save that failed.
Error undo(const AdminSettings& before, std::int64_t code) {
    const std::string failed = "the write failed (error " + std::to_string(code) + ")";
    if (before.exists && FileManager::writeInPlace(KAVPathHelper::filePath(), before.bytes))
        return unchangeable(failed + "; it is as it was");
    if (!before.exists) return unchangeable(failed);
    return unchangeable(failed + " and left it damaged; what it held is in " + previousPath());
}

}  // namespace

Result<AdminSettings> readAdminSettings(platform::JSONNotes* notes) {
    const std::string path = KAVPathHelper::filePath();
    auto bytes = FileManager::dataWithContentsOfFile(path, kKAVMaximumFileSize);
    if (!bytes) {
        if (isMissing(bytes.error())) return AdminSettings{};
        return bytes.error().withContext(path);
    }
    auto top = platform::jsonObjectFromData(*bytes, notes);
    if (!top) return top.error().withContext(path);
    if (!top->dictionary()) {
        return Error::utilia(UtiliaErrorCode::Refused,
                             path + ": the settings are an array and no object");
    }
    return AdminSettings{true, *std::move(bytes), *top->dictionary()};
}

Result<Dictionary> changeAdminSettings(std::string_view key, const std::optional<Value>& value) {
    const auto before = readAdminSettings();
    if (!before) {
        return Error::utilia(UtiliaErrorCode::Refused,
                             before.error().description +
                                 "; correct it or move it away before it is changed");
    }
    if (!before->exists && !value) return before->settings;
    constexpr std::uint64_t kCreate = 0;
    std::int64_t code = 0;
    const auto storage = KAVAdminStorage::init(before->exists ? kKAVOpenExisting : kCreate, &code);
    if (!storage) return cannotOpen(before->exists, code);
    storage->setValue(value, key);
    if (before->exists) {
        if (storage->currentAsRawData() == before->settings) return before->settings;
        if (auto kept = keepPrevious(before->bytes); !kept) return std::move(kept).error();
    }
    if (code = storage->saveToDisk(); code != 0) return undo(*before, code);
    return storage->currentAsRawData();
}

}  // namespace utilia::control
