#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia::test {

inline constexpr const char* kLooking = "looking";
inline constexpr const char* kDocuments = "documents:";

// Asks the roles of UsageRoles.cpp.
class UsageTest : public testing::Test {
protected:
    using Lines = std::vector<std::string>;

    UsageTest() {
        // The texts of the agent.
        std::filesystem::create_directory_symlink(
            std::filesystem::path(test::places::kAgentProgram).parent_path() / "../Resources",
            std::filesystem::path(bundle_.path()) / "Contents/Resources");
    }
    void SetUp() override { ASSERT_EQ(CEPLogInit(), 0); }

    static Lines linesOf(ChildProcess& role) {
        Lines lines;
        while (const auto line = role.waitForLine()) lines.push_back(*line);
        EXPECT_EQ(role.waitForExit(), 0);
        return lines;
    }
    Lines page(ChildProcessOptions options = {}) const {
        options.environment["LANGUAGE"] = "en";
        auto role = bundle_.role("sayUsagePage", {}, options);
        return linesOf(role);
    }
    ChildProcess startPreview(ChildProcessOptions options = {}, Lines removed = {}) const {
        options.environment["LANGUAGE"] = "en";
        removed.insert(removed.begin(), shown_.path());
        return bundle_.role("sayPreview", removed, options);
    }
    Lines preview(const ChildProcessOptions& options = {}, const Lines& removed = {}) const {
        auto role = startPreview(options, removed);
        while (const auto line = role.waitForLine()) {
            if (line == kLooking) break;
        }
        role.say("go on");
        return linesOf(role);
    }
    static std::string contentOf(const std::filesystem::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // What the preview has shown in its last call.
    Lines shown() const {
        Lines documents;
        for (int row = 0;; ++row) {
            const auto path = std::filesystem::path(shown_.path()) / std::to_string(row);
            if (!std::filesystem::exists(path)) return documents;
            documents.push_back(contentOf(path));
        }
    }
    static void leaveReport(const std::string& name, const std::string& content) {
        std::filesystem::create_directories(reportFolder());
        std::ofstream(std::filesystem::path(reportFolder()) / name, std::ios::binary) << content;
    }
    static void switchOff() {
        platform::UserDefaults::initWithDomain("com.korvane.utilia")
            ->setObject(true, kCEPDisabledKey);
    }

    TemporaryHome home_;
    TemporaryFolder shown_;
    TestBundle bundle_{home_};
};

}  // namespace utilia::test
