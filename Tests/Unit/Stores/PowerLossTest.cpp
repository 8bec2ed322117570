// Everything that a loss of power may leave of the stores, opened with their own reader: each is one
// of its versions, whole. (Which one is not promised: folders are not synced.)

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Common/Platform/UniqueFd.h"
#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/PowerLoss.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

namespace fs = std::filesystem;
using test::DiskState;
using test::PowerLossRecorder;

constexpr int kOperations = 200;
constexpr int kDomains = 4;

// So that a store is several blocks long.
const std::string kFilling(9000, 'f');

std::string domainOf(int number) { return "com.example.power" + std::to_string(number); }

// Puts the state in the folder's place.
void restore(const fs::path& folder, const DiskState& state) {
    for (const auto& entry : fs::directory_iterator(folder)) fs::remove_all(entry.path());
    for (const auto& [path, bytes] : state.files)
        std::ofstream(folder / path, std::ios::binary) << bytes;
}

class PowerLoss : public testing::Test {
protected:
    const test::TemporaryHome home_{test::folderInMemory()};
    test::TestLog log_;
};

TEST_F(PowerLoss, LeavesPreferencesAsOneOfTheirVersions) {
    const fs::path folder = *FileManager::preferencesFolder();
    PowerLossRecorder recorder(folder);
    for (int i = 0; i < kOperations; ++i) {
        const auto defaults = UserDefaults::initWithDomain(domainOf(i % kDomains));
        defaults->setObject(Dictionary{{"number", i}, {"filling", kFilling}}, "record");
    }
    recorder.stop();
    EXPECT_GE(recorder.changes(), std::size_t{kOperations} * 4);

    std::set<std::int64_t> versions;
    const std::size_t states = recorder.forEachState([&](const DiskState& state) {
        SCOPED_TRACE(state.description);
        restore(folder, state);
        for (int i = 0; i < kDomains; ++i) {
            const auto found =
                UserDefaults::initWithDomain(domainOf(i))->dictionaryRepresentation();
            const auto intact = state.intact.find(domainOf(i) + ".plist");
            if (intact == state.intact.end()) {
                EXPECT_EQ(found, Dictionary());
                continue;
            }
            const auto expected =
                propertyListFromData(Data(intact->second.begin(), intact->second.end()));
            ASSERT_TRUE(expected && expected->dictionary());
            EXPECT_EQ(found, *expected->dictionary());
            const auto record = found.dictionary("record");
            ASSERT_TRUE(record && record->find("number"));
            EXPECT_EQ(record->string("filling"), kFilling);
            versions.insert(record->find("number")->longLongValue());
        }
        EXPECT_EQ(log_.lines(), std::vector<std::string>()) << "something was damaged";
    });
    EXPECT_EQ(versions.size(), std::size_t{kOperations}) << "each version is there at some moment";
    EXPECT_GE(states, 4000u);
    std::printf("%zu changes, %zu states\n", recorder.changes(), states);
}

TEST_F(PowerLoss, LeavesAStoreThatCanBeWritten) {
    const fs::path folder = *FileManager::preferencesFolder();
    PowerLossRecorder recorder(folder);
    for (int i = 0; i < 3; ++i)
        UserDefaults::initWithDomain(domainOf(0))->setObject(kFilling, "key" + std::to_string(i));
    recorder.stop();
    const std::size_t states = recorder.forEachState([&](const DiskState& state) {
        SCOPED_TRACE(state.description);
        restore(folder, state);
        UserDefaults::initWithDomain(domainOf(0))->setObject(7, "next");
        EXPECT_EQ(UserDefaults::initWithDomain(domainOf(0))->integerForKey("next"), 7);
        EXPECT_EQ(log_.lines(), std::vector<std::string>());
        for (const auto& entry : fs::directory_iterator(folder))
            EXPECT_NE(entry.path().extension(), ".new");
    });
    EXPECT_GT(states, 10u);
}

TEST_F(PowerLoss, LeavesAnAtomicallyWrittenFileAsOneOfItsVersions) {
    const test::TemporaryFolder folder(test::folderInMemory());
    const std::string path = folder.path() / "icon.tiff";
    PowerLossRecorder recorder(folder.path());
    std::set<std::string> versions;
    for (int i = 0; i < 20; ++i) {
        const std::string bytes(2000 + static_cast<std::size_t>(i), static_cast<char>('a' + i));
        versions.insert(bytes);
        ASSERT_TRUE(FileManager::writeAtomically(path, Data(bytes.begin(), bytes.end())));
    }
    recorder.stop();
    const std::size_t states = recorder.forEachState([&](const DiskState& state) {
        const auto found = state.files.find("icon.tiff");
        EXPECT_TRUE(found == state.files.end() || versions.contains(found->second))
            << state.description;
    });
    EXPECT_GE(states, versions.size());
}

// Without the sync, or in place, the same states are not all whole: the recorder can tell.
std::size_t brokenStates(void (*replace)(const std::string& path, const std::string& bytes)) {
    const test::TemporaryFolder folder(test::folderInMemory());
    PowerLossRecorder recorder(folder.path());
    std::set<std::string> versions;
    for (char c = 'a'; c < 'e'; ++c) {
        versions.emplace(2000, c);
        replace(folder.path() / "file", std::string(2000, c));
    }
    recorder.stop();
    std::size_t broken = 0;
    const std::size_t states = recorder.forEachState([&](const DiskState& state) {
        const auto found = state.files.find("file");
        broken += found != state.files.end() && !versions.contains(found->second);
    });
    EXPECT_GT(states, versions.size());
    return broken;
}

void writeTo(const std::string& path, const std::string& bytes, bool isSynced) {
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (write(file.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        ADD_FAILURE() << path;
    if (isSynced) fdatasync(file.get());
}

TEST(PowerLossRecorder, TellsSafeWritersFromOthers) {
    EXPECT_EQ(brokenStates([](const std::string& path, const std::string& bytes) {
                  writeTo(path + ".new", bytes, true);
                  rename((path + ".new").c_str(), path.c_str());
              }),
              0u);
    EXPECT_GE(brokenStates([](const std::string& path, const std::string& bytes) {
                  writeTo(path + ".new", bytes, false);
                  rename((path + ".new").c_str(), path.c_str());
              }),
              10u);
    EXPECT_GE(brokenStates([](const std::string& path, const std::string& bytes) {
                  writeTo(path, bytes, true);
              }),
              10u);
}

}  // namespace
}  // namespace utilia::platform
