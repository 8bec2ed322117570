#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"
#include "Tests/Support/PrivateMounts.h"

// Tests of the settings file, as a process sees it that has an /etc of its own.

namespace utilia {

inline constexpr const char* kFolder = "/etc/com.korvane.utilia";
inline constexpr const char* kFile = "/etc/com.korvane.utilia/settings.conf";
inline constexpr uid_t kNobody = 65534;
inline constexpr gid_t kAdmins = 4711;

// A mode that creates; any but 1 does.
inline constexpr std::uint64_t kOpenOrCreate = 0;

inline std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void put(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path) << text;
}

inline struct stat statusOf(const std::filesystem::path& path) {
    struct stat found {};
    EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
    return found;
}

inline unsigned modeOf(const std::filesystem::path& path) { return statusOf(path).st_mode & 07777; }

inline std::vector<std::string> namesIn(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// The code that opening an existing file answers; 0 when it opens.
inline std::int64_t codeOfOpening(std::uint64_t mode = kKAVOpenExisting) {
    std::int64_t error = 77;
    const auto storage = KAVAdminStorage::init(mode, &error);
    EXPECT_EQ(storage != nullptr, error == 0);
    return error;
}

class AdminStorage : public testing::Test {
protected:
    AdminStorage() { mounts_.replaceGroups("root:x:0:\nsudo:x:27:\nadmin:x:4711:\n"); }

    test::PrivateMounts mounts_;
};

}  // namespace utilia
