#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

#include <cstdlib>
#include <optional>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileLock.h"
#include "Common/Platform/FileManager.h"

// One lock for the whole suite, on the folder and not on the file: the file is replaced by every
// write, and a lock on a replaced file guards nothing. The suite's own file lock is taken inside,
// always in this order.

namespace utilia {
namespace {

using platform::FileLock;

#ifndef NDEBUG
// A block that takes the lock again would wait for itself without a word; while developing that
// ends here.
class NestingGuard final {
public:
    NestingGuard() {
        if (inside()) {
            KULogVariadic("accessAppGroupPlist was called inside a block of accessAppGroupPlist: "
                          "the block would "
                          "wait for its own lock for ever.");
            std::abort();
        }
        inside() = true;
    }
    ~NestingGuard() { inside() = false; }
    NestingGuard(const NestingGuard&) = delete;
    NestingGuard& operator=(const NestingGuard&) = delete;

private:
    static bool& inside() {
        thread_local bool value = false;
        return value;
    }
};
#endif

std::optional<FileLock> lockContainer() {
    const auto container = platform::FileManager::containerURLForSecurityApplicationGroupIdentifier(
        kAppGroupIdentifier);
    if (!container) return std::nullopt;  // logged where it was found out
    auto lock = FileLock::acquireFolder(*container, FileLock::Mode::Exclusive);
    if (!lock) {
        KULogVariadic("The shared store is used without its lock: %@", lock.error());
        return std::nullopt;
    }
    return std::move(lock).value();
}

bool isRecordOf(const Value& value, std::string_view bundleId, std::string_view name) {
    const Dictionary* const record = value.dictionary();
    return record && record->string(kSchedulerBundleIdKey) == bundleId &&
           record->string(kSchedulerNameKey) == name;
}

}  // namespace

void accessAppGroupPlist(const AccessBlock& block) {
#ifndef NDEBUG
    const NestingGuard guard;
#endif
    const std::optional<FileLock> lock = lockContainer();
    // Declared after the lock: what the block set is written before the lock is given up.
    const auto suite = platform::UserDefaults::initWithSuiteName(kAppGroupIdentifier);
    if (block && suite) block(*suite);
}

void readSchedulerPlist(std::string_view bundleId, std::string_view name, const ReadBlock& block) {
    accessAppGroupPlist([&](platform::UserDefaults& suite) {
        const Array records = suite.arrayForKey(kSchedulerKey).value_or(Array());
        for (const Value& record : records) {
            if (!isRecordOf(record, bundleId, name)) continue;
            if (block) block(*record.dictionary());
            return;
        }
    });
}

void updateSchedulerPlist(std::string_view bundleId, std::string_view name,
                          const UpdateBlock& block) {
    accessAppGroupPlist([&](platform::UserDefaults& suite) {
        Array records = suite.arrayForKey(kSchedulerKey).value_or(Array());
        Dictionary record;
        for (const Value& candidate : records) {
            if (!isRecordOf(candidate, bundleId, name)) continue;
            const Value old = candidate;
            record = *old.dictionary();
            records.remove(old);
            break;
        }
        record.set(kSchedulerBundleIdKey, Value(bundleId));
        record.set(kSchedulerNameKey, Value(name));
        if (block) block(record);
        records.append(std::move(record));
        suite.setObject(std::move(records), kSchedulerKey);
        suite.synchronize();
    });
}

void updateSchedulerForThisTool(const UpdateBlock& block) {
    const platform::Bundle* const main = platform::Bundle::mainBundle();
    const std::optional<std::string> bundleId = main ? main->bundleIdentifier() : std::nullopt;
    if (!bundleId) {
        KULogVariadic("This program has no bundle identifier, so it has no schedule of its own.");
        return;
    }
    updateSchedulerPlist(
        *bundleId, stringByDeletingPathExtension(lastPathComponent(main->bundlePath())), block);
}

void assertAppInAppGroup() {}

}  // namespace utilia
