#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

#include <cstdlib>
#include <optional>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"
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

constexpr std::string_view kWhat = "The shared store";

std::optional<FileLock> lockContainer() {
    return unlessOutOfMemory(kWhat, []() -> std::optional<FileLock> {
        const auto container =
            platform::FileManager::containerURLForSecurityApplicationGroupIdentifier(
                kAppGroupIdentifier);
        if (!container) return std::nullopt;  // logged where it was found out
        auto lock = FileLock::acquireFolder(*container, FileLock::Mode::Exclusive);
        if (!lock) {
            KULogVariadic("The shared store is used without its lock: %@", lock.error());
            return std::nullopt;
        }
        return std::move(lock).value();
    });
}

// Takes no memory of its own, so that whatever the block throws is the block's.
template <class Block>
void access(const Block& block) {
#ifndef NDEBUG
    const NestingGuard guard;
#endif
    const std::optional<FileLock> lock = lockContainer();
    // Declared after the lock: what the block set is written before the lock is given up.
    const auto suite = platform::UserDefaults::initWithSuiteName(kAppGroupIdentifier);
    if (suite) block(*suite);
}

bool isRecordOf(const Value& value, std::string_view bundleId, std::string_view name) {
    const Dictionary* const record = value.dictionary();
    return record && record->string(kSchedulerBundleIdKey) == bundleId &&
           record->string(kSchedulerNameKey) == name;
}

}  // namespace

void accessAppGroupPlist(const AccessBlock& block) {
    access([&](platform::UserDefaults& suite) {
        if (block) block(suite);
    });
}

void readSchedulerPlist(std::string_view bundleId, std::string_view name, const ReadBlock& block) {
    access([&](platform::UserDefaults& suite) {
        const auto record = unlessOutOfMemory(kWhat, [&]() -> std::optional<Dictionary> {
            const Array records = suite.arrayForKey(kSchedulerKey).value_or(Array());
            for (const Value& each : records) {
                if (isRecordOf(each, bundleId, name)) return *each.dictionary();
            }
            return std::nullopt;
        });
        if (record && block) block(*record);
    });
}

void updateSchedulerPlist(std::string_view bundleId, std::string_view name,
                          const UpdateBlock& block) {
    access([&](platform::UserDefaults& suite) {
        Array records;
        Dictionary record;
        const bool isReady = unlessOutOfMemory(kWhat, [&] {
            records = suite.arrayForKey(kSchedulerKey).value_or(Array());
            for (const Value& candidate : records) {
                if (!isRecordOf(candidate, bundleId, name)) continue;
                const Value old = candidate;
                record = *old.dictionary();
                records.remove(old);
                break;
            }
            record.set(kSchedulerBundleIdKey, Value(bundleId));
            record.set(kSchedulerNameKey, Value(name));
            return true;
        });
        if (!isReady) return;
        if (block) block(record);
        unlessOutOfMemory(kWhat, [&] {
            records.append(std::move(record));
            suite.setObject(std::move(records), kSchedulerKey);
            suite.synchronize();
        });
    });
}

void updateSchedulerForThisTool(const UpdateBlock& block) {
    struct Tool {
        std::string bundleId;
        std::string name;
    };
    const auto tool = unlessOutOfMemory(kWhat, []() -> std::optional<Tool> {
        const platform::Bundle* const main = platform::Bundle::mainBundle();
        auto bundleId = main ? main->bundleIdentifier() : std::nullopt;
        if (!bundleId) {
            KULogVariadic(
                "This program has no bundle identifier, so it has no schedule of its own.");
            return std::nullopt;
        }
        return Tool{*std::move(bundleId),
                    stringByDeletingPathExtension(lastPathComponent(main->bundlePath()))};
    });
    if (tool) updateSchedulerPlist(tool->bundleId, tool->name, block);
}

void assertAppInAppGroup() {}

}  // namespace utilia
