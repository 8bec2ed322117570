// The settings file where something fails.

#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"

#include <ctime>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/AdminSettings/AdminStorageFixture.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;

using test::TestLog;
using testing::ElementsAre;
using testing::MatchesRegex;
TEST_F(AdminStorage, SaysWhenItsFolderCannotBeMade) {
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        put(kFolder, "a file in the way");
        EXPECT_EQ(codeOfOpening(kOpenOrCreate), 516);
        EXPECT_EQ(contentOf(kFolder), "a file in the way");
        // The file's path, not the folder's.
        EXPECT_THAT(
            log.lines(),
            ElementsAre(std::string("Unable to create folder '") + kFile +
                        "' due error 516, Error Domain=NSCocoaErrorDomain Code=516 \"mkdir " +
                        kFolder + ": File exists\""));
    }));
}

TEST_F(AdminStorage, SaysWhenTheFileCannotBeWritten) {
    EXPECT_TRUE(mounts_.run(
        [] {
            const TestLog log;
            EXPECT_EQ(codeOfOpening(kOpenOrCreate), 513) << "the folder belongs to root";
            EXPECT_THAT(log.lines(),
                        ElementsAre(std::string("Unable to create folder '") + kFile +
                                    "' due error 513, Error Domain=NSCocoaErrorDomain Code=513 "
                                    "\"mkdir " +
                                    kFolder + ": Permission denied\""));
        },
        kNobody));
    fs::create_directory(mounts_.settingsFolder());
    EXPECT_TRUE(mounts_.run(
        [] {
            const TestLog log;
            EXPECT_EQ(codeOfOpening(kOpenOrCreate), 513);
            EXPECT_THAT(log.lines(),
                        ElementsAre(std::string("Unable to write into file ") + kFile +
                                    ". Error Error Domain=NSCocoaErrorDomain Code=513 \"open " +
                                    kFile + ": Permission denied\""));
        },
        kNobody));
}

TEST_F(AdminStorage, LogsTwiceWhenTheModeOfANewFileCannotBeSet) {
    fs::create_directory(mounts_.settingsFolder());
    ASSERT_EQ(chown(mounts_.settingsFolder().c_str(), kNobody, kNobody), 0);
    EXPECT_TRUE(mounts_.run(
        [] {
            const TestLog log;
            EXPECT_EQ(codeOfOpening(kOpenOrCreate), 513);
            const std::string error =
                std::string("Error Domain=NSCocoaErrorDomain Code=513 \"chown ") + kFile +
                ": Operation not permitted\"";
            EXPECT_THAT(log.lines(),
                        ElementsAre(std::string("Unable to set permissions to file '") + kFile +
                                        "' due error 513, " + error,
                                    std::string("Unable to set permiss file ") + kFile +
                                        ". Error " + error));
            EXPECT_EQ(contentOf(kFile), "{\n\n}") << "the written file stays";
        },
        kNobody));
}

TEST_F(AdminStorage, OverwritesADamagedFileThatCannotBeSetAside) {
    mounts_.writeSettings("damaged");
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        const test::ArmedFault fault({.call = kUtiliaFaultRename, .error = EPERM}, 1,
                                     test::FaultRepetition::ForEver);
        EXPECT_EQ(codeOfOpening(kOpenOrCreate), 0);
        EXPECT_EQ(contentOf(kFile), "{\n\n}");
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_EQ(log.lines()[0], std::string("Unable to create backup for ") + kFile +
                                      ". Error Error Domain=NSCocoaErrorDomain Code=513 \"rename " +
                                      kFile + ": Operation not permitted\"");
    }));
}

TEST_F(AdminStorage, SaysWhenABackupOfThisSecondIsThereAlready) {
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        fs::create_directory(kFolder);
        // Whichever second it will be.
        const auto now = std::time(nullptr);
        for (int i = 0; i < 60; ++i)
            put(std::string(kFile) + ".backup." + std::to_string(now + i), "earlier");
        put(kFile, "damaged");
        EXPECT_EQ(codeOfOpening(kOpenOrCreate), 0);
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_THAT(
            log.lines()[0],
            MatchesRegex("Unable to create backup for .* Code=516 \"rename .*: File exists\""));
        for (const std::string& name : namesIn(kFolder)) {
            if (name != "settings.conf") {
                EXPECT_EQ(contentOf(fs::path(kFolder) / name), "earlier");
            }
        }
    }));
}

TEST_F(AdminStorage, AFullDiskIsReportedAndTheDamagedFileIsSetAsideByTheNextWriter) {
    mounts_.writeSettings("{}");
    mounts_.limitSpace(kFolder, 8192);
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        ASSERT_EQ(codeOfOpening(kOpenOrCreate), 0);
        std::int64_t error = 77;
        const auto storage = KAVAdminStorage::init(kKAVOpenExisting, &error);
        storage->setValue(Value(std::string(100'000, 'x')), "Large");
        EXPECT_EQ(storage->saveToDisk(), 640);
        EXPECT_THAT(log.lines(),
                    ElementsAre(std::string("Unable to write into file ") + kFile +
                                ". Error Error Domain=NSCocoaErrorDomain Code=640 \"write " +
                                kFile + ": No space left on device\""));
        EXPECT_EQ(codeOfOpening(), 3840) << "a reader meets a damaged file";
        EXPECT_THAT(namesIn(kFolder), ElementsAre("settings.conf"));
    }));
}

TEST_F(AdminStorage, SaysWhenTheSettingsCannotBeSaid) {
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        ASSERT_EQ(codeOfOpening(kOpenOrCreate), 0);
        std::int64_t error = 77;
        const auto storage = KAVAdminStorage::init(kOpenOrCreate, &error);
        storage->setValue(Value(Date{}), "Date");
        EXPECT_EQ(storage->saveToDisk(), 3852);
        EXPECT_EQ(contentOf(kFile), "{\n\n}") << "nothing is written";
        EXPECT_EQ(log.lines().size(), 1u);
    }));
}

TEST_F(AdminStorage, NoFailingCallLosesADamagedFile) {
    EXPECT_TRUE(mounts_.run([] {
        TestLog log;
        std::vector<test::Fault> table(test::storageFaults().begin(), test::storageFaults().end());
        table.push_back({.call = kUtiliaFaultMode, .error = EPERM});
        table.push_back({.call = kUtiliaFaultOwner, .error = EPERM});
        std::int64_t error = 0;
        bool isOpen = false;
        const std::size_t runs = test::forEachFault(
            table,
            [&] {
                fs::remove_all(kFolder);
                fs::create_directory(kFolder);
                put(kFile, "damaged");
                log.clear();
            },
            [&] { isOpen = KAVAdminStorage::init(kOpenOrCreate, &error) != nullptr; },
            [&](const test::FaultRun& run) {
                EXPECT_EQ(isOpen, error == 0);
                std::size_t copies = 0;
                for (const std::string& name : namesIn(kFolder))
                    copies += contentOf(fs::path(kFolder) / name) == "damaged" ? 1u : 0u;
                // Only a rename that fails may cost it, and is logged.
                const bool mayBeLost = run.fault.call == kUtiliaFaultRename ||
                                       run.fault.call == kUtiliaFaultAnySystemCall;
                EXPECT_TRUE(!mayBeLost || copies == 1 || log.count("Unable to create backup") > 0);
                EXPECT_TRUE(copies == 1 || mayBeLost);
            });
        EXPECT_GT(runs, 20u);
    }));
}

// A file that is written in place can be met half-written, or empty; a reader restricts nothing then,
// and the next writer begins anew without losing it.
TEST_F(AdminStorage, AWriterKilledAtAnyCallIsStoodByReadersAndWriters) {
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        const auto write = [] {
            std::int64_t error = 0;
            if (const auto storage = KAVAdminStorage::init(kOpenOrCreate, &error)) {
                storage->setBool(true, "Key");
                storage->saveToDisk();
            }
        };
        std::size_t damaged = 0;
        const std::size_t points = test::forEachKillPoint(1, write, [&](const test::KillPoint&) {
            const std::int64_t code = codeOfOpening();
            EXPECT_TRUE(code == 0 || code == 260 || code == 3840) << code;
            damaged += code == 3840 ? 1 : 0;
            EXPECT_EQ(codeOfOpening(kOpenOrCreate), 0);
            fs::remove_all(kFolder);
        });
        EXPECT_GT(points, 10u);
        EXPECT_GT(damaged, 0u) << "the file is emptied before it is filled";
        EXPECT_THAT(log.lines(), ElementsAre());
    }));
}

}  // namespace
}  // namespace utilia
