#include "Common/UtiliaCommon/Resources/SharedResource.h"

#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

namespace utilia {
namespace {

constexpr std::string_view kWhat = "The record of a shared resource";

std::optional<std::string> textOf(const std::optional<Value>& value) {
    const std::string* const text = value ? value->string() : nullptr;
    return text ? std::optional<std::string>(*text) : std::nullopt;
}

}  // namespace

SharedResource::SharedResource(std::string_view name, std::string_view bundleId) {
    unlessOutOfMemory(kWhat, [&] {
        name_ = name;
        bundleId_ = bundleId;
        isNamed_ = true;
    });
}

std::optional<Value> SharedResource::stored(std::string_view key) const {
    std::optional<Value> value;
    if (!isNamed_) return value;
    accessAppGroupPlist([&](platform::UserDefaults& suite) {
        const auto all = suite.dictionaryForKey(kResourcesKey);
        const Value* const ofBundle = all ? all->find(bundleId_) : nullptr;
        if (!ofBundle || !ofBundle->dictionary()) return;
        const Value* const record = ofBundle->dictionary()->find(name_);
        if (!record || !record->dictionary()) return;
        if (const Value* const found = record->dictionary()->find(key)) value = *found;
    });
    return value;
}

void SharedResource::store(std::optional<Value> value, std::string_view key) const {
    if (!isNamed_) return;
    accessAppGroupPlist([&](platform::UserDefaults& suite) {
        Dictionary all = suite.dictionaryForKey(kResourcesKey).value_or(Dictionary());
        Dictionary ofBundle = all.dictionary(bundleId_).value_or(Dictionary());
        Dictionary record = ofBundle.dictionary(name_).value_or(Dictionary());
        if (value) {
            record.set(key, std::move(*value));
        } else {
            record.remove(key);
        }
        ofBundle.set(name_, std::move(record));
        all.set(bundleId_, std::move(ofBundle));
        suite.setObject(std::move(all), kResourcesKey);
        suite.synchronize();
    });
}

std::optional<Value> SharedResource::getValueForKey(std::string_view key) const {
    return unlessOutOfMemory(kWhat, [&] { return stored(key); });
}

void SharedResource::updateValue(std::optional<Value> value, std::string_view forKey) const {
    unlessOutOfMemory(kWhat, [&] { store(std::move(value), forKey); });
}

std::optional<std::string> SharedResource::path() const {
    return unlessOutOfMemory(kWhat, [&] { return textOf(stored(kResourcePathKey)); });
}

void SharedResource::setPath(const std::optional<std::string>& path) const {
    unlessOutOfMemory(
        kWhat, [&] { store(path ? std::optional<Value>(*path) : std::nullopt, kResourcePathKey); });
}

std::optional<IndexPath> SharedResource::version() const {
    return unlessOutOfMemory(kWhat, [&] {
        return VersionManager::versionWithString(textOf(stored(kResourceVersionKey)));
    });
}

void SharedResource::setVersion(const std::optional<IndexPath>& version) const {
    std::string text = VersionManager::versionToStringReportForm(version);
    // There was no memory for it, which is logged.
    if (text.empty()) return;
    updateValue(std::move(text), kResourceVersionKey);
}

}  // namespace utilia
