#pragma once

#include <optional>
#include <string_view>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/JSONSerialization.h"

namespace utilia::control {

// The administrator's settings file, for people who want to know what is wrong with it.
struct AdminSettings {
    bool exists = false;
    Data bytes;
    Dictionary settings;  // empty when there is no file
};

// The file at KAVPathHelper::filePath(). A missing one is no error; one that cannot be read, or is
// no JSON object, is, and its description begins with the path. `notes` (may be null) tells where.
Result<AdminSettings> readAdminSettings(platform::JSONNotes* notes = nullptr);

// Sets a key, or removes it without a value, and saves; answers the settings as they are then. A
// missing file is made first (but not in order to remove a key from it), a damaged one is refused and
// left alone. What the file held is in "settings.conf.previous" beside it before anything is
// written, and a write that fails half way is undone where that is possible.
Result<Dictionary> changeAdminSettings(std::string_view key, const std::optional<Value>& value);

}  // namespace utilia::control
