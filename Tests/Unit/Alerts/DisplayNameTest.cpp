#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "Common/Platform/FileManager.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia::platform {
namespace {

using test::TemporaryHome;
using test::TestBundle;

std::string displayName(const Dictionary& info) {
    const TemporaryHome home;
    const TestBundle bundle(home, {.name = "Sample Tool", .info = info});
    return FileManager::displayNameAtPath(bundle.path());
}

TEST(DisplayName, OfAnApplicationIsTheOneItDeclares) {
    EXPECT_EQ(displayName({{"CFBundleDisplayName", "Sample"}}), "Sample.app");
    EXPECT_EQ(displayName({{"CFBundleDisplayName", "Sample 2.0"}}), "Sample 2.0.app");
}

TEST(DisplayName, OfAnApplicationThatDeclaresNoneIsItsFileName) {
    EXPECT_EQ(displayName({}), "Sample Tool.app");
    EXPECT_EQ(displayName({{"CFBundleDisplayName", ""}}), "Sample Tool.app");
    EXPECT_EQ(displayName({{"CFBundleDisplayName", 7}}), "Sample Tool.app");
    EXPECT_EQ(displayName({{"CFBundleName", "Another"}}), "Sample Tool.app");
}

TEST(DisplayName, OfEverythingElseIsItsFileName) {
    EXPECT_EQ(FileManager::displayNameAtPath("/a/b/notes.txt"), "notes.txt");
    EXPECT_EQ(FileManager::displayNameAtPath("/a/b/"), "b");
    EXPECT_EQ(FileManager::displayNameAtPath("/"), "/");
    EXPECT_EQ(FileManager::displayNameAtPath(""), "");
    EXPECT_EQ(FileManager::displayNameAtPath("/nowhere/Missing.app"), "Missing.app");
}

}  // namespace
}  // namespace utilia::platform
