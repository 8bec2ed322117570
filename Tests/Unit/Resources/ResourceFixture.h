#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/UtiliaCommon/Resources/ResourceManager.h"
#include "Common/UtiliaCommon/Resources/SharedResource.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia::test {

inline std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

inline void writeFile(const std::filesystem::path& path, const std::string& content,
                      mode_t mode = 0644) {
    std::ofstream(path, std::ios::binary) << content;
    if (chmod(path.c_str(), mode) != 0) throw std::runtime_error("chmod " + path.string());
}

inline mode_t modeOf(const std::filesystem::path& path) {
    struct stat found {};
    return lstat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

inline constexpr const char* kResourceName = "converter";
inline constexpr const char* kInnerResourceName = "helpers/linux/converter";

// A private container, an application of version 5.1.2 (3456), and a resource of it.
class ResourceFixture : public testing::Test {
protected:
    static constexpr const char* kBundleId = "com.korvane.utilia.SampleTool";
    static constexpr const char* kName = kResourceName;

    explicit ResourceFixture(const std::filesystem::path& within = folderInMemory(),
                             std::string name = kName)
        : name_(std::move(name)), home_(within) {}
    ~ResourceFixture() override { setExtendedLoggingProbe(nullptr); }

    std::filesystem::path folder() const { return home_.groupContainer() / "Resources"; }
    std::filesystem::path installed() const { return folder() / kBundleId / name_; }
    std::filesystem::path internal() const {
        return std::filesystem::path(files_.path()) / "Contents/Resources" / name_;
    }
    // A file that is to be installed.
    std::filesystem::path given(const std::string& content, mode_t mode = 0644) const {
        const auto path = home_.path() / "given";
        writeFile(path, content, mode);
        return path;
    }
    void install(const std::string& content, const IndexPath& version,
                 std::int64_t type = kExecutableResourceType) const {
        ResourceManager::addResourceFile(given(content).string(), name_, version, type, kBundleId);
    }
    std::string chosenPath() const {
        return ResourceManager::getMostActualResourcePath(name_, *bundle_);
    }

    const std::string name_;
    const TemporaryHome home_;
    TestLog log_;
    const TestBundle files_{
        home_,
        {.info = Dictionary{{"CFBundleShortVersionString", "5.1.2"}, {"CFBundleVersion", "3456"}}}};
    const std::unique_ptr<platform::Bundle> bundle_ =
        platform::Bundle::bundleWithPath(files_.path());
    const SharedResource record_{name_, kBundleId};
};

}  // namespace utilia::test
