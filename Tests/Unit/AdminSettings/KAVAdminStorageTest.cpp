#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/AdminSettings/AdminStorageFixture.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;

using test::TestLog;
using testing::ElementsAre;

Data bytesOf(std::string_view text) { return Data(text.begin(), text.end()); }
TEST_F(AdminStorage, LiesWhereNoVariableMovesIt) {
    mounts_.writeSettings("{}");
    EXPECT_TRUE(mounts_.run([] {
        for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_CONFIG_DIRS", "PATH", "TMPDIR"})
            setenv(name, "/tmp/elsewhere", 1);
        ASSERT_EQ(chdir("/"), 0);
        EXPECT_EQ(KAVPathHelper::appSupportDirPath(), "/etc");
        EXPECT_EQ(KAVPathHelper::dirPath(), kFolder);
        EXPECT_EQ(KAVPathHelper::filePath(), kFile);
        EXPECT_EQ(codeOfOpening(), 0);
    }));
}

TEST_F(AdminStorage, SpellsItsKeysAsTheFileDoes) {
    EXPECT_EQ(kKAVUpdatesDisabled, "UpdatesDisabled");
    EXPECT_EQ(kKAVUsageReportingDisabled, "UsageReportingDisabled");
    EXPECT_EQ(kKAVWhiteToolsListKey, "WhiteToolsList");
    EXPECT_EQ(kKAVWhiteToolsList_BusinessToolsetValue, "business-toolset-only");
}

TEST_F(AdminStorage, AMissingFileIsNotMadeByAReader) {
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        EXPECT_EQ(codeOfOpening(), 260);
        EXPECT_FALSE(fs::exists(kFolder));
        fs::create_directory(kFolder);
        EXPECT_EQ(codeOfOpening(), 260);
        EXPECT_THAT(namesIn(kFolder), ElementsAre());
        EXPECT_THAT(log.lines(), ElementsAre());
    }));
}

TEST_F(AdminStorage, AMissingFileIsMadeWithItsFolderForAnotherMode) {
    for (const std::uint64_t mode : {0u, 2u, 7u}) {
        EXPECT_TRUE(mounts_.run([mode] {
            umask(077);
            const TestLog log;
            std::int64_t error = 77;
            const auto storage = KAVAdminStorage::init(mode, &error);
            ASSERT_TRUE(storage);
            EXPECT_EQ(error, 0);
            EXPECT_EQ(statusOf(kFolder).st_uid, 0u);
            EXPECT_EQ(statusOf(kFolder).st_gid, kAdmins);
            EXPECT_EQ(modeOf(kFolder), 0775u);
            EXPECT_EQ(contentOf(kFile), "{\n\n}");
            EXPECT_EQ(statusOf(kFile).st_gid, kAdmins);
            EXPECT_EQ(modeOf(kFile), 0664u);
            EXPECT_TRUE(storage->currentAsRawData().empty());
            storage->setBool(true, "Key");
            EXPECT_TRUE(storage->boolForKey("Key"));
            EXPECT_THAT(log.lines(), ElementsAre());
        }));
        fs::remove_all(mounts_.settingsFolder());
    }
}

TEST_F(AdminStorage, WithoutAnAdministratorsGroupTheFileIsTheRootGroups) {
    mounts_.replaceGroups("users:x:100:\n");
    EXPECT_TRUE(mounts_.run([] {
        ASSERT_EQ(setgid(100), 0);  // what a new file would belong to
        EXPECT_EQ(codeOfOpening(kOpenOrCreate), 0);
        EXPECT_EQ(statusOf(kFolder).st_gid, 0u);
        EXPECT_EQ(statusOf(kFile).st_gid, 0u);
    }));
}

TEST_F(AdminStorage, AnExistingFolderKeepsItsOwnerAndMode) {
    EXPECT_TRUE(mounts_.run([] {
        fs::create_directory(kFolder);
        fs::permissions(kFolder, fs::perms(0755));
        EXPECT_EQ(codeOfOpening(kOpenOrCreate), 0);
        EXPECT_EQ(modeOf(kFolder), 0755u);
        EXPECT_EQ(statusOf(kFolder).st_gid, 0u);
    }));
}

struct Damage {
    const char* description;
    std::string text;
    std::int64_t code;
};

std::vector<Damage> damages() {
    return {{"not JSON", "WhiteToolsList = Timer", 3840},
            {"empty", "", 3840},
            {"half-written", "{\"WhiteToolsList\": [\"Timer\"", 3840},
            {"an array", "[\"Timer\"]", -1},
            {"a text", "\"Timer\"", 3840},
            {"not UTF-8", "{\"a\": \"\xE9\"}", 3840},
            {"too deep", "{\"a\":" + std::string(512, '[') + std::string(512, ']') + "}", 3840},
            {"too large", "{" + std::string(kKAVMaximumFileSize - 1, ' ') + "}", 263}};
}

TEST_F(AdminStorage, ADamagedFileIsRefusedByAReaderAndStaysAsItIs) {
    for (const Damage& damage : damages()) {
        SCOPED_TRACE(damage.description);
        mounts_.writeSettings(damage.text);
        EXPECT_TRUE(mounts_.run([&] {
            const TestLog log;
            EXPECT_EQ(codeOfOpening(), damage.code);
            EXPECT_THAT(namesIn(kFolder), ElementsAre("settings.conf"));
            EXPECT_TRUE(contentOf(kFile) == damage.text);
            EXPECT_THAT(log.lines(), ElementsAre());
        }));
    }
}

TEST_F(AdminStorage, ADamagedFileIsSetAsideByAnotherMode) {
    for (const Damage& damage : damages()) {
        SCOPED_TRACE(damage.description);
        fs::remove_all(mounts_.settingsFolder());
        mounts_.writeSettings(damage.text);
        EXPECT_TRUE(mounts_.run([&] {
            const TestLog log;
            // Not by time(), which lags behind by some milliseconds.
            using Clock = std::chrono::system_clock;
            const auto before = Clock::to_time_t(Clock::now());
            EXPECT_EQ(codeOfOpening(kOpenOrCreate), 0);
            const auto after = Clock::to_time_t(Clock::now());
            const auto names = namesIn(kFolder);
            ASSERT_EQ(names.size(), 2u);
            const std::string prefix = "settings.conf.backup.";
            ASSERT_TRUE(names[1].starts_with(prefix)) << names[1];
            const long seconds = std::stol(names[1].substr(prefix.size()));
            EXPECT_GE(seconds, before);
            EXPECT_LE(seconds, after);
            EXPECT_TRUE(contentOf(fs::path(kFolder) / names[1]) == damage.text);
            EXPECT_EQ(contentOf(kFile), "{\n\n}");
            EXPECT_EQ(modeOf(kFile), 0664u);
            EXPECT_EQ(statusOf(kFile).st_gid, kAdmins);
            EXPECT_THAT(log.lines(), ElementsAre());
        }));
    }
}

TEST_F(AdminStorage, TheLargestAndTheDeepestFileIsRead) {
    mounts_.writeSettings("{" + std::string(kKAVMaximumFileSize - 2, ' ') + "}");
    EXPECT_TRUE(mounts_.run([] { EXPECT_EQ(codeOfOpening(), 0); }));
    mounts_.writeSettings("{\"a\":" + std::string(511, '[') + std::string(511, ']') + "}");
    EXPECT_TRUE(mounts_.run([] { EXPECT_EQ(codeOfOpening(), 0); }));
}

TEST_F(AdminStorage, APipeInThePlaceOfTheFileKeepsNobodyWaiting) {
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        fs::create_directory(kFolder);
        ASSERT_EQ(mkfifo(kFile, 0666), 0);
        EXPECT_EQ(codeOfOpening(), 257);
        EXPECT_THAT(log.lines(), ElementsAre());
        EXPECT_EQ(codeOfOpening(kOpenOrCreate), 0);
        EXPECT_TRUE(S_ISREG(statusOf(kFile).st_mode));
        EXPECT_EQ(namesIn(kFolder).size(), 2u) << "the pipe is set aside";
    }));
}

TEST_F(AdminStorage, AFolderInThePlaceOfTheFileIsRefusedOrSetAside) {
    EXPECT_TRUE(mounts_.run([] {
        fs::create_directories(kFile);
        EXPECT_EQ(codeOfOpening(), 256);
        EXPECT_EQ(codeOfOpening(kOpenOrCreate), 0);
        EXPECT_TRUE(fs::is_regular_file(kFile));
    }));
}

TEST_F(AdminStorage, ALinkIsReadButNeverWrittenThrough) {
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        fs::create_directory(kFolder);
        put("/etc/elsewhere", "{\"Key\": true}");
        fs::create_symlink("/etc/elsewhere", kFile);
        std::int64_t error = 77;
        const auto storage = KAVAdminStorage::init(kKAVOpenExisting, &error);
        ASSERT_TRUE(storage);
        EXPECT_TRUE(storage->boolForKey("Key"));
        storage->setBool(false, "Key");
        EXPECT_EQ(storage->saveToDisk(), 512);
        EXPECT_EQ(contentOf("/etc/elsewhere"), "{\"Key\": true}");
        EXPECT_THAT(log.lines(),
                    ElementsAre(std::string("Unable to write into file ") + kFile +
                                ". Error Error Domain=NSCocoaErrorDomain Code=512 \"open " + kFile +
                                ": Too many levels of symbolic links\""));
    }));
}

TEST_F(AdminStorage, ALinkThatLeadsNowhereIsSetAsideAndNotFollowed) {
    EXPECT_TRUE(mounts_.run([] {
        fs::create_directory(kFolder);
        fs::create_symlink("/etc/elsewhere", kFile);
        EXPECT_EQ(codeOfOpening(kOpenOrCreate), 0);
        EXPECT_FALSE(fs::exists("/etc/elsewhere"));
        EXPECT_TRUE(S_ISREG(statusOf(kFile).st_mode));
        EXPECT_EQ(namesIn(kFolder).size(), 2u);
    }));
}

TEST_F(AdminStorage, SavesPrettyPrintedAndLeavesOwnerGroupAndModeAlone) {
    mounts_.writeSettings("{\"Other\": [1, 2.5, \"a/b\", null]}");
    ASSERT_EQ(chown(mounts_.settingsFile().c_str(), 1234, 1235), 0);
    fs::permissions(mounts_.settingsFile(), fs::perms(0640));
    EXPECT_TRUE(mounts_.run([] {
        std::int64_t error = 77;
        const auto storage = KAVAdminStorage::init(kKAVOpenExisting, &error);
        ASSERT_TRUE(storage);
        storage->setBool(true, kKAVUpdatesDisabled);
        EXPECT_EQ(contentOf(kFile), "{\"Other\": [1, 2.5, \"a/b\", null]}")
            << "saved only when asked";
        EXPECT_EQ(storage->saveToDisk(), 0);
        EXPECT_EQ(contentOf(kFile),
                  "{\n  \"Other\" : [\n    1,\n    2.5,\n    \"a\\/b\",\n    null\n  "
                  "],\n  \"UpdatesDisabled\" : true\n}");
        EXPECT_EQ(statusOf(kFile).st_uid, 1234u);
        EXPECT_EQ(statusOf(kFile).st_gid, 1235u);
        EXPECT_EQ(modeOf(kFile), 0640u);
    }));
}

TEST_F(AdminStorage, SetsReadsAndRemovesValues) {
    mounts_.writeSettings(R"({"Text": "x", "Number": 2, "No": "off", "Null": null})");
    EXPECT_TRUE(mounts_.run([] {
        std::int64_t error = 77;
        const auto storage = KAVAdminStorage::init(kKAVOpenExisting, &error);
        ASSERT_TRUE(storage);
        EXPECT_EQ(storage->valueForKey("Text"), Value("x"));
        EXPECT_EQ(storage->valueForKey("Missing"), std::nullopt);
        EXPECT_EQ(storage->valueForKey("Null"), Value(nullptr));
        EXPECT_FALSE(storage->boolForKey("Missing"));
        EXPECT_TRUE(storage->boolForKey("Number"));
        EXPECT_FALSE(storage->boolForKey("No"));
        const Dictionary& raw = storage->currentAsRawData();
        storage->setValue(Value(Array{"Timer"}), kKAVWhiteToolsListKey);
        EXPECT_EQ(raw.array("WhiteToolsList"), Array{"Timer"}) << "the contents, not a copy";
        EXPECT_EQ(&raw, &storage->storage());
        storage->setBool(true, "Flag");
        EXPECT_EQ(storage->valueForKey("Flag"), Value(true));
        storage->setValue(std::nullopt, "Text");
        storage->setValue(std::nullopt, "Missing");
        EXPECT_FALSE(raw.contains("Text"));
        EXPECT_EQ(raw.size(), 5u);
    }));
}

TEST_F(AdminStorage, ContentsThatWereResetCannotBeChangedButSaved) {
    mounts_.writeSettings("{\"Old\": 1}");
    EXPECT_TRUE(mounts_.run([] {
        const TestLog log;
        std::int64_t error = 77;
        const auto storage = KAVAdminStorage::init(kKAVOpenExisting, &error);
        ASSERT_TRUE(storage);
        storage->resetToRawData(Dictionary{{"New", 2}});
        storage->setValue(Value(3), "New");
        storage->setBool(true, "Flag");
        storage->setValue(std::nullopt, "New");
        EXPECT_EQ(storage->currentAsRawData(), (Dictionary{{"New", 2}}));
        EXPECT_THAT(
            log.lines(),
            ElementsAre(
                "The settings are a snapshot that cannot be changed: 'New' stays as it is.",
                "The settings are a snapshot that cannot be changed: 'Flag' stays as it is.",
                "The settings are a snapshot that cannot be changed: 'New' stays as it is."));
        EXPECT_EQ(storage->saveToDisk(), 0);
        EXPECT_EQ(contentOf(kFile), "{\n  \"New\" : 2\n}");
        storage->resetToRawData(std::nullopt);
        EXPECT_TRUE(storage->currentAsRawData().empty());
        EXPECT_EQ(storage->saveToDisk(), 0);
        EXPECT_EQ(contentOf(kFile), "{\n\n}");
        const auto again = KAVAdminStorage::init(kKAVOpenExisting, &error);
        again->setBool(true, "Flag");
        EXPECT_TRUE(again->boolForKey("Flag")) << "opened anew, it can be changed";
    }));
}

// Documentation/Formats/AdminSettings.md shows this text.
TEST_F(AdminStorage, WritesTheDocumentedExample) {
    const Dictionary settings{{std::string(kKAVUpdatesDisabled), true},
                              {std::string(kKAVWhiteToolsListKey), Array{"Timer", "moonphase"}}};
    EXPECT_EQ(KAVAdminStorage::dataFromDict(settings, nullptr),
              bytesOf("{\n  \"UpdatesDisabled\" : true,\n  \"WhiteToolsList\" : [\n    \"Timer\",\n"
                      "    \"moonphase\"\n  ]\n}"));
}

TEST_F(AdminStorage, ParsesWithTheDocumentedErrors) {
    std::int64_t error = 77;
    EXPECT_EQ(KAVAdminStorage::dictFromData(bytesOf("{\"a\": 1}"), &error), (Dictionary{{"a", 1}}));
    EXPECT_EQ(error, 77) << "left alone";
    EXPECT_EQ(KAVAdminStorage::dictFromData(bytesOf("[]"), &error), std::nullopt);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(KAVAdminStorage::dictFromData(bytesOf("{"), &error), std::nullopt);
    EXPECT_EQ(error, 3840);
    EXPECT_EQ(KAVAdminStorage::dictFromData(bytesOf("{"), nullptr), std::nullopt);
}

TEST_F(AdminStorage, PassesErrorObjectsThrough) {
    Error error;
    EXPECT_EQ(KAVAdminStorage::dataFromDict(Dictionary{{"a", 1}}, &error),
              bytesOf("{\n  \"a\" : 1\n}"));
    EXPECT_EQ(error, Error());
    EXPECT_EQ(KAVAdminStorage::dataFromDict(Dictionary{{"a", Data{1}}}, &error), std::nullopt);
    EXPECT_EQ(error.code, 3852);
    const TestLog log;
    EXPECT_FALSE(KAVAdminStorage::saveToDiskAtPath("/nonexistent/settings.conf", {}, &error));
    EXPECT_EQ(error.code, 4);
    EXPECT_FALSE(KAVAdminStorage::saveToDiskAtPath("/nonexistent/settings.conf", {}, nullptr));
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(AdminStorage, WorksWithoutAPlaceForTheError) {
    EXPECT_TRUE(mounts_.run([] {
        EXPECT_EQ(KAVAdminStorage::init(kKAVOpenExisting, nullptr), nullptr);
        EXPECT_NE(KAVAdminStorage::init(kOpenOrCreate, nullptr), nullptr);
    }));
}

TEST_F(AdminStorage, AnotherUserReadsWhatAllMayRead) {
    mounts_.writeSettings("{\"Key\": true}");
    EXPECT_TRUE(mounts_.run([] { EXPECT_EQ(codeOfOpening(), 0); }, kNobody));
    fs::permissions(mounts_.settingsFile(), fs::perms(0660));
    EXPECT_TRUE(mounts_.run(
        [] {
            const TestLog log;
            EXPECT_EQ(codeOfOpening(), 257);
            EXPECT_THAT(log.lines(), ElementsAre());
        },
        kNobody));
}

}  // namespace
}  // namespace utilia
