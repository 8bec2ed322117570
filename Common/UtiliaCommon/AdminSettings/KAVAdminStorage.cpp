#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"

#include <string>
#include <utility>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/JSONSerialization.h"
#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"

namespace utilia {
namespace {

using platform::FileManager;

constexpr std::int64_t kNoResult = -1;

// Callers may give no place for the error.
void report(std::int64_t* error, std::int64_t code) {
    if (error) *error = code;
}

}  // namespace

KAVAdminStorage::KAVAdminStorage(Dictionary storage) : storage_(std::move(storage)) {}

std::unique_ptr<KAVAdminStorage> KAVAdminStorage::init(std::uint64_t openMode,
                                                       std::int64_t* error) {
    report(error, kNoResult);
    const std::string path = KAVPathHelper::filePath();
    auto contents = loadAtPath(path, error);
    if (!contents && openMode != kKAVOpenExisting) contents = createAtPath(path, error);
    if (!contents) return nullptr;
    return std::unique_ptr<KAVAdminStorage>(new KAVAdminStorage(*std::move(contents)));
}

std::optional<Dictionary> KAVAdminStorage::loadAtPath(std::string_view path, std::int64_t* error) {
    const auto data = FileManager::dataWithContentsOfFile(path, kKAVMaximumFileSize);
    report(error, data ? 0 : data.error().code);
    if (!data) return std::nullopt;
    return dictFromData(*data, error);
}

void KAVAdminStorage::moveToBackupThePath(std::string_view path) {
    const auto seconds = static_cast<std::int64_t>(Date::now().unixTime());
    const std::string backup = std::string(path) + ".backup." + std::to_string(seconds);
    if (const auto moved = FileManager::moveItemAtPath(path, backup); !moved)
        KULogVariadic("Unable to create backup for %@. Error %@", path, moved.error().text());
}

std::optional<Dictionary> KAVAdminStorage::createAtPath(std::string_view path,
                                                        std::int64_t* error) {
    if (!FileManager::isNothingAtPath(path)) moveToBackupThePath(path);
    Error failure;
    if (const std::string folder = stringByDeletingLastPathComponent(path);
        !FileManager::isDirectoryAtPath(folder) &&
        !KAVPathHelper::createFolderAtPath(folder, &failure)) {
        KULogVariadic("Unable to create folder '%@' due error %ld, %@", path, failure.code,
                      failure.text());
        report(error, failure.code);
        return std::nullopt;
    }
    if (!saveToDiskAtPath(path, {}, &failure)) {
        report(error, failure.code);
        return std::nullopt;
    }
    if (!KAVPathHelper::setPermissionsToFileAtPath(path, &failure)) {
        KULogVariadic("Unable to set permiss file %@. Error %@", path, failure.text());
        report(error, failure.code);
        return std::nullopt;
    }
    return loadAtPath(path, error);
}

std::optional<Value> KAVAdminStorage::valueForKey(std::string_view key) const {
    const Value* const found = storage_.find(key);
    return found ? std::optional<Value>(*found) : std::nullopt;
}

bool KAVAdminStorage::boolForKey(std::string_view key) const { return storage_.boolean(key); }

void KAVAdminStorage::setValue(std::optional<Value> value, std::string_view forKey) {
    if (refuseChange(forKey)) return;
    if (value) {
        storage_.set(forKey, *std::move(value));
    } else {
        storage_.remove(forKey);
    }
}

void KAVAdminStorage::setBool(bool value, std::string_view forKey) {
    setValue(Value(value), forKey);
}

void KAVAdminStorage::resetToRawData(std::optional<Dictionary> contents) {
    storage_ = contents ? *std::move(contents) : Dictionary();
    isModifiable_ = false;
}

std::int64_t KAVAdminStorage::saveToDisk() const {
    Error error;
    return saveToDiskAtPath(KAVPathHelper::filePath(), storage_, &error) ? 0 : error.code;
}

std::optional<Dictionary> KAVAdminStorage::dictFromData(std::span<const std::uint8_t> data,
                                                        std::int64_t* error) {
    const auto top = platform::jsonObjectFromData(data);
    if (top && top->dictionary()) return *top->dictionary();
    report(error, top ? kNoResult : top.error().code);
    return std::nullopt;
}

std::optional<Data> KAVAdminStorage::dataFromDict(const Dictionary& dictionary, Error* error) {
    auto data = platform::dataFromJSONObject(dictionary, platform::JSONForm::PrettyPrinted);
    if (data) return *std::move(data);
    if (error) *error = data.error();
    return std::nullopt;
}

bool KAVAdminStorage::saveToDiskAtPath(std::string_view path, const Dictionary& storage,
                                       Error* error) {
    Error failure;
    const auto data = dataFromDict(storage, &failure);
    if (data) {
        const auto written = FileManager::writeInPlace(path, *data);
        if (written) return true;
        failure = written.error();
    }
    KULogVariadic("Unable to write into file %@. Error %@", path, failure.text());
    if (error) *error = std::move(failure);
    return false;
}

bool KAVAdminStorage::refuseChange(std::string_view key) const {
    if (isModifiable_) return false;
    KULogVariadic("The settings are a snapshot that cannot be changed: '%@' stays as it is.", key);
    return true;
}

}  // namespace utilia
