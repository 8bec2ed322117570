#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "Common/Foundation/Error.h"
#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"

// The administrator's machine-wide settings: one JSON object in the file that KAVPathHelper names
// (Documentation/Formats/AdminSettings.md).
//
// An object reads the file once, when it is opened. Changes stay in memory until saveToDisk(), and
// nothing is shared between objects. Nobody locks the file, and it is written in place: a reader can
// meet the half of it and then takes it for damaged. Whoever must never change the file opens it in
// mode kKAVOpenExisting, which neither makes nor sets aside anything and logs nothing.
//
// Where an integer error is asked for, it is 0 after a successful read, the code of the file or JSON
// error (CocoaErrorCode) when one failed, and -1 when there is no result and no such error.
//
// Threads: an object belongs to one thread.

namespace utilia {

// Keys and values of the file. Contract: never rename.
inline constexpr std::string_view kKAVUpdatesDisabled = "UpdatesDisabled";  // a boolean
inline constexpr std::string_view kKAVUsageReportingDisabled =
    "UsageReportingDisabled";                                                // a boolean
inline constexpr std::string_view kKAVWhiteToolsListKey = "WhiteToolsList";  // texts
inline constexpr std::string_view kKAVWhiteToolsList_BusinessToolsetValue =  // in that list
    "business-toolset-only";

// Open mode; every other value also creates the file when it is missing or damaged.
inline constexpr std::uint64_t kKAVOpenExisting = 1;

// Largest file that is read; a larger one is error 263.
inline constexpr std::size_t kKAVMaximumFileSize = 4u << 20;

class UTILIA_EXPORT KAVAdminStorage final {
public:
    // Null when the file is missing or damaged in mode kKAVOpenExisting, or cannot be created in the
    // others; `error` says why.
    static std::unique_ptr<KAVAdminStorage> init(std::uint64_t openMode, std::int64_t* error);

    // The object in a file; empty when it cannot be read or holds none. Links are followed, and a
    // pipe or device in its place is an error (257) that never waits.
    static std::optional<Dictionary> loadAtPath(std::string_view path, std::int64_t* error);
    // Renames the file to "PATH.backup.SECONDS", by the clock since 1970; one log line when that
    // fails.
    static void moveToBackupThePath(std::string_view path);
    // Puts a new file with an empty object in the place of whatever is at the path, which is set
    // aside first; with the folder when it is missing. Empty on failure, which is logged.
    static std::optional<Dictionary> createAtPath(std::string_view path, std::int64_t* error);

    std::optional<Value> valueForKey(std::string_view key) const;
    bool boolForKey(std::string_view key) const;  // Value::boolValue(); false when absent
    // Empty removes the key. Of contents that resetToRawData() installed nothing can be changed: the
    // setters leave them as they are, with one log line each time.
    void setValue(std::optional<Value> value, std::string_view forKey);
    void setBool(bool value, std::string_view forKey);

    // The contents themselves, not a copy; valid as long as this object.
    const Dictionary& currentAsRawData() const { return storage_; }
    const Dictionary& storage() const { return storage_; }
    // Replaces the contents by a snapshot that can be read and saved but not changed; empty stands
    // for an empty dictionary. That they cannot be changed is intended: edit through a newly opened
    // object.
    void resetToRawData(std::optional<Dictionary> contents);

    // Writes the contents into the file at KAVPathHelper::filePath(): 0, or the error's code, logged.
    // Owner, group and mode stay as they are.
    std::int64_t saveToDisk() const;

    // The object that the bytes spell. `error` is left alone on success.
    static std::optional<Dictionary> dictFromData(std::span<const std::uint8_t> data,
                                                  std::int64_t* error);
    // Pretty-printed JSON; `error` (may be null) is set on failure only.
    static std::optional<Data> dataFromDict(const Dictionary& dictionary, Error* error);
    // In place and not atomically: a failure half way leaves a cut file. A link at the path, or
    // anything but a regular file, is refused. On failure one log line.
    static bool saveToDiskAtPath(std::string_view path, const Dictionary& storage, Error* error);

private:
    explicit KAVAdminStorage(Dictionary storage);

    bool refuseChange(std::string_view key) const;

    Dictionary storage_;
    bool isModifiable_ = true;
};

}  // namespace utilia
