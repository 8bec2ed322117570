// Everything that a loss of power may leave of an installation.

#include <cstdio>
#include <set>

#include <fcntl.h>
#include <unistd.h>

#include "Common/Platform/PropertyListSerialization.h"
#include "Common/Platform/UniqueFd.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"
#include "Tests/Support/PowerLoss.h"
#include "Tests/Unit/Resources/ResourceFixture.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::DiskState;
using test::PowerLossRecorder;

constexpr int kInstallations = 12;

// Of several blocks, and no two alike.
std::string content(int number) {
    return std::to_string(number) + std::string(3000, static_cast<char>('a' + number));
}

// As an application writes what it is about to install: nobody has synced it.
void writeUnsynced(const fs::path& path, const std::string& bytes) {
    const platform::UniqueFd file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    ASSERT_EQ(write(file.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

class ResourcePowerLoss : public test::ResourceFixture, public testing::WithParamInterface<bool> {
protected:
    fs::path givenFolder() const { return GetParam() ? elsewhere_.path() : home_.groupContainer(); }
    std::string below(const fs::path& path) const {
        return fs::relative(path, home_.groupContainer()).string();
    }
    // Of the record in a state; 0 without one.
    std::uint64_t recordedNumber(const DiskState& state) const {
        const fs::path suite =
            home_.groupContainer() / "Library/Preferences" / "7QK2M9ZD4R.com.korvane.utilia.plist";
        const auto store = state.files.find(below(suite));
        if (store == state.files.end()) return 0;
        const auto list =
            platform::propertyListFromData(Data(store->second.begin(), store->second.end()));
        if (!list || !list->dictionary()) {
            ADD_FAILURE() << "the store is damaged";
            return 0;
        }
        const auto text = list->dictionary()
                              ->dictionary("Resources")
                              .value_or(Dictionary())
                              .dictionary(kBundleId)
                              .value_or(Dictionary())
                              .dictionary(kName)
                              .value_or(Dictionary())
                              .string("Version");
        const auto version = text ? VersionManager::versionWithString(*text) : std::nullopt;
        return version ? version->indexAtPosition(3) : 0;
    }

    const test::TemporaryFolder elsewhere_;
};

INSTANTIATE_TEST_SUITE_P(From, ResourcePowerLoss, testing::Bool(), [](const auto& from) {
    return from.param ? "AnotherFileSystem" : "TheSameFileSystem";
});

TEST_P(ResourcePowerLoss, LeavesAWholeCopyAndARecordThatDoesNotRunAheadOfIt) {
    install(content(0), IndexPath{9, 0, 0, 0});
    PowerLossRecorder recorder(home_.groupContainer());
    const fs::path given = givenFolder() / "given";
    for (int i = 1; i <= kInstallations; ++i) {
        writeUnsynced(given, content(i));
        ResourceManager::addResourceFile(given.string(), kName,
                                         IndexPath{9, 0, 0, static_cast<std::uint64_t>(i)},
                                         kExecutableResourceType, kBundleId);
    }
    recorder.stop();
    ASSERT_EQ(log_.lines(), std::vector<std::string>());

    const std::string place = below(installed());
    std::set<int> seen;
    const std::size_t states = recorder.forEachState([&](const DiskState& state) {
        SCOPED_TRACE(state.description);
        const auto copy = state.files.find(place);
        ASSERT_NE(copy, state.files.end());
        const int number = std::atoi(copy->second.c_str());
        EXPECT_EQ(copy->second, content(number));
        EXPECT_LE(recordedNumber(state), static_cast<std::uint64_t>(number));
        seen.insert(number);
    });
    EXPECT_EQ(seen.size(), std::size_t{kInstallations} + 1) << "each";
    EXPECT_GE(states, seen.size() * 3) << "the copy, its path, its version";
    std::printf("%zu changes, %zu states\n", recorder.changes(), states);
}

}  // namespace
}  // namespace utilia
