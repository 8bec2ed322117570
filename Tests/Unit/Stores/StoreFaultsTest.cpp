#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "Common/Platform/FileLock.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

namespace fs = std::filesystem;
using test::FaultRun;
using test::forEachFault;

constexpr std::string_view kDomain = "com.example.tool";
constexpr std::string_view kGroup = "7QK2M9ZD4R.com.korvane.utilia";

// The names in a folder that are neither the domain's file nor its lock.
std::size_t strangersIn(const fs::path& folder) {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        count += !name.ends_with(".plist") && !name.ends_with(".plist.lock") &&
                 !name.ends_with(".plist.bak");
    }
    return count;
}

class StoreFaults : public testing::Test {
protected:
    fs::path preferences() const { return home_.config() / "korvane-utilia"; }

    // Each run sets a new number, and the next one begins with what this one left in the file.
    void updateUnderEachFault(std::span<const test::Fault> table) {
        const auto defaults = UserDefaults::initWithSuiteName(kGroup);
        std::int64_t acknowledged = 0;
        std::int64_t attempted = 0;
        bool isWritten = false;
        const std::size_t runs = forEachFault(
            table,
            [&] {
                log_.clear();
                defaults->setObject(++attempted, "number");
                isWritten = defaults->synchronize();
                if (isWritten) acknowledged = attempted;
            },
            [&](const FaultRun&) {
                EXPECT_EQ(UserDefaults::initWithSuiteName(kGroup)->integerForKey("number"),
                          acknowledged);
                EXPECT_EQ(log_.lines().size(), isWritten ? 0u : 1u);
                EXPECT_EQ(strangersIn(home_.groupContainer() / "Library/Preferences"), 0u);
                defaults->setObject(++attempted, "number");
                EXPECT_TRUE(defaults->synchronize()) << "the next call without a fault succeeds";
                acknowledged = attempted;
            });
        EXPECT_GT(runs, 0u);
    }

    // `forget` makes the next read go to the file.
    void readUnderEachFault(std::span<const test::Fault> table,
                            const std::function<void()>& forget) {
        const auto defaults = UserDefaults::initWithDomain(kDomain);
        defaults->setObject(7, "number");
        std::optional<Value> found;
        std::size_t failures = 0;
        const std::size_t runs = forEachFault(
            table,
            [&] {
                forget();
                log_.clear();
            },
            [&] { found = defaults->objectForKey("number"); },
            [&](const FaultRun&) {
                failures += found ? 0 : 1;
                EXPECT_TRUE(!found || *found == Value(7));
                EXPECT_EQ(log_.lines().size(), found ? 0u : 1u);
                EXPECT_EQ(strangersIn(preferences()), 0u)
                    << "a file that cannot be read is not damaged";
                EXPECT_EQ(defaults->integerForKey("number"), 7);
            });
        EXPECT_GT(runs, failures) << "one call that fails is tried again";
        EXPECT_GT(failures, 0u);
    }

    const test::TemporaryHome home_{test::folderInMemory()};
    test::TestLog log_;
};

TEST_F(StoreFaults, AnUpdateIsInTheFileOrIsReportedAsFailedUnderTwoFaultsToo) {
    const auto defaults = UserDefaults::initWithSuiteName(kGroup);
    std::int64_t acknowledged = 0;
    std::int64_t attempted = 0;
    bool isWritten = false;
    const std::size_t runs = test::forFaultPairs(
        test::storageFaults(), 2000, [] {},
        [&] {
            defaults->setObject(++attempted, "number");
            isWritten = defaults->synchronize();
            if (isWritten) acknowledged = attempted;
        },
        [&](const test::FaultPair&) {
            EXPECT_EQ(UserDefaults::initWithSuiteName(kGroup)->integerForKey("number"),
                      acknowledged);
            defaults->setObject(++attempted, "number");
            EXPECT_TRUE(defaults->synchronize()) << "the next call without a fault succeeds";
            acknowledged = attempted;
            EXPECT_EQ(strangersIn(home_.groupContainer() / "Library/Preferences"), 0u);
        });
    EXPECT_GT(runs, 100u);
}

TEST_F(StoreFaults, AnUpdateIsInTheFileOrIsReportedAsFailed) {
    updateUnderEachFault(test::storageFaults());
}

// After a power failure a name that was exchanged before its data were synced may lead to nothing.
TEST_F(StoreFaults, AnUpdateIsWrittenThenSyncedThenRenamed) {
    constexpr unsigned kNever = 1000;
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    defaults->setObject(1, "number");
    defaults->setObject(2, "number");  // the backup is made, so that only the update itself renames
    {
        const test::ArmedFault sync({.call = kUtiliaFaultSync, .error = EIO});
        const test::ArmedFault write({.call = kUtiliaFaultWrite}, kNever);
        const test::ArmedFault rename({.call = kUtiliaFaultRename}, kNever);
        defaults->setObject(3, "number");
        EXPECT_EQ(write.calls(), 1u);
        EXPECT_EQ(rename.calls(), 0u);
    }
    const test::ArmedFault rename({.call = kUtiliaFaultRename, .error = EIO});
    const test::ArmedFault sync({.call = kUtiliaFaultSync}, kNever);
    const test::ArmedFault write({.call = kUtiliaFaultWrite}, kNever);
    defaults->setObject(4, "number");
    EXPECT_EQ(rename.hits(), 1u);
    EXPECT_EQ(sync.calls(), 1u) << "the data, and not the folder";
    EXPECT_EQ(write.calls(), 1u);
}

TEST_F(StoreFaults, AReadAnswersWhatIsThereOrNothing) {
    readUnderEachFault(test::storageFaults(), [this] {
        // The same file as a new inode, as another process's write leaves it.
        const fs::path file = preferences() / (std::string(kDomain) + ".plist");
        fs::copy_file(file, preferences() / "copy");
        fs::rename(preferences() / "copy", file);
    });
}

TEST_F(StoreFaults, ARepairLosesNeitherTheDamagedFileNorTheBackup) {
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    defaults->setObject(1, "number");
    defaults->setObject(2, "number");  // leaves 1 in the backup
    const fs::path file = defaults->path();
    std::optional<Value> found;
    const auto damaged = [&](const fs::path& path) {
        std::ifstream content(path);
        return std::string(std::istreambuf_iterator<char>(content), {}) == "no property list";
    };
    std::size_t failures = 0;
    const std::size_t runs = forEachFault(
        test::storageFaults(),
        [&] {
            fs::remove(file);
            std::ofstream(file) << "no property list";
            log_.clear();
        },
        [&] { found = defaults->objectForKey("number"); },
        [&](const FaultRun&) {
            failures += found ? 0 : 1;
            EXPECT_TRUE(!found || *found == Value(1));
            std::size_t copies = damaged(file);
            for (const auto& entry : fs::directory_iterator(preferences())) {
                const bool isSetAside =
                    entry.path().string().find(".plist.damaged-") != std::string::npos;
                copies += isSetAside && damaged(entry.path());
            }
            EXPECT_GE(copies, 1u);
            EXPECT_LE(log_.lines().size(), 1u);
            EXPECT_FALSE(fs::exists(file.string() + ".new"));
            EXPECT_EQ(defaults->integerForKey("number"), 1) << "the next read without a fault";
        });
    EXPECT_GT(runs, 0u);
    EXPECT_GT(failures, 0u);
}

TEST_F(StoreFaults, AnAtomicWriteReplacesTheFileWithItsAttributeOrLeavesIt) {
    const std::string path = home_.path() / "icon.tiff";
    const Data first{1};
    const Data second{2, 2};
    const FileManager::ExtendedAttribute attribute{"NSImage.isTemplate", {1}};
    ASSERT_TRUE(FileManager::writeAtomically(path, first));
    Data expected = first;
    bool isWritten = false;
    const std::size_t before = strangersIn(home_.path());
    std::size_t failures = 0;
    const std::size_t runs = forEachFault(
        test::storageFaults(),
        [&] {
            const Data& next = expected == first ? second : first;
            isWritten = FileManager::writeAtomically(path, next, {&attribute, 1}).has_value();
            if (isWritten) expected = next;
        },
        [&](const FaultRun&) {
            failures += isWritten ? 0 : 1;
            EXPECT_EQ(FileManager::contentsAtPath(path, 10).value_or(Data()), expected);
            EXPECT_EQ(strangersIn(home_.path()), before) << "no temporary file stays";
        });
    EXPECT_GT(runs, 0u);
    EXPECT_GT(failures, 0u);
}

TEST_F(StoreFaults, ALockIsHeldOrAnErrorNamesTheCall) {
    const fs::path path = home_.path() / "lock";
    std::optional<Error> error;
    std::size_t errors = 0;
    const std::size_t runs = forEachFault(
        test::storageFaults(),
        [&] {
            auto lock =
                FileLock::acquire(path, FileLock::Mode::Exclusive, std::chrono::milliseconds(0));
            error = lock ? std::nullopt : std::optional<Error>(std::move(lock).error());
        },
        [&](const FaultRun& run) {
            errors += error ? 1 : 0;
            EXPECT_TRUE(!error || error->isPosix(run.fault.error)) << error->description;
            EXPECT_TRUE(
                FileLock::acquire(path, FileLock::Mode::Exclusive, std::chrono::milliseconds(0)));
        });
    EXPECT_GT(runs, 0u);
    EXPECT_GT(errors, 0u);
}

TEST_F(StoreFaults, AFolderLockIsHeldOrAnErrorNamesTheCall) {
    std::optional<Error> error;
    std::size_t errors = 0;
    const std::size_t runs = forEachFault(
        test::storageFaults(),
        [&] {
            auto lock = FileLock::acquireFolder(home_.path(), FileLock::Mode::Exclusive);
            error = lock ? std::nullopt : std::optional<Error>(std::move(lock).error());
        },
        [&](const FaultRun& run) {
            errors += error ? 1 : 0;
            EXPECT_TRUE(!error || error->isPosix(run.fault.error)) << error->description;
            EXPECT_TRUE(FileLock::acquireFolder(home_.path(), FileLock::Mode::Exclusive));
        });
    EXPECT_GT(runs, 0u);
    EXPECT_GT(errors, 0u);
}

TEST_F(StoreFaults, FoldersAreMadeOrAnErrorNamesTheCall) {
    const fs::path top = home_.path() / "a";
    std::optional<Error> error;
    std::size_t errors = 0;
    const std::size_t runs = forEachFault(
        test::storageFaults(), [&] { fs::remove_all(top); },
        [&] {
            const auto made = FileManager::createDirectoryAtPath((top / "b" / "c").string(), 0700);
            error = made ? std::nullopt : std::optional<Error>(made.error());
        },
        [&](const FaultRun& run) {
            errors += error ? 1 : 0;
            EXPECT_EQ(fs::is_directory(top / "b" / "c"), !error);
            EXPECT_TRUE(!error || error->isPosix(run.fault.error)) << error->description;
            EXPECT_TRUE(FileManager::createDirectoryAtPath((top / "b" / "c").string(), 0700));
        });
    EXPECT_GT(runs, 0u);
    EXPECT_GT(errors, 0u);
}

#ifndef UTILIA_FAULTS_WITHOUT_MEMORY

TEST_F(StoreFaults, AnUpdateSurvivesRunningOutOfMemory) {
    updateUnderEachFault(test::memoryFaults());
}

TEST_F(StoreFaults, AnAtomicWriteSurvivesRunningOutOfMemory) {
    const std::string path = home_.path() / "file";
    const Data first{1};
    const Data second{2, 2};
    Data expected = first;
    std::size_t failures = 0;
    ASSERT_TRUE(FileManager::writeAtomically(path, first));
    const std::size_t runs = forEachFault(
        test::memoryFaults(),
        [&] {
            const Data& next = expected == first ? second : first;
            const bool isWritten = FileManager::writeAtomically(path, next).has_value();
            if (isWritten) expected = next;
            failures += isWritten ? 0 : 1;
        },
        [&](const FaultRun&) {
            EXPECT_EQ(FileManager::contentsAtPath(path, 10).value_or(Data()), expected);
        });
    EXPECT_GT(runs, 0u);
    EXPECT_GE(failures, 1u);
}

#endif

}  // namespace
}  // namespace utilia::platform
