#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"

#include <filesystem>
#include <fstream>

#include "Common/Platform/LoginItems.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

using test::TemporaryHome;
using test::TestBundle;
using test::TestLog;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace fs = std::filesystem;

TestBundle bundleAt(const TemporaryHome& home, const std::string& folder, const std::string& name) {
    test::TestBundleOptions options;
    options.name = name;
    options.folder = home.path() / folder;
    options.bundleIdentifier = "com.example." + folder;
    return TestBundle(home, options);
}

class CommonAuxiliaryTest : public testing::Test {
protected:
    // The URLs of all items, sorted.
    std::vector<std::string> items() const {
        std::vector<std::string> urls;
        const auto snapshot = platform::LoginItems::create()->snapshot();
        for (const auto& item : *snapshot) urls.push_back(item.resolvedURL().value_or("(none)"));
        std::sort(urls.begin(), urls.end());
        return urls;
    }

    void writeEntry(const std::string& name, const std::string& program) const {
        fs::create_directories(home_.config() / "autostart");
        std::ofstream(home_.config() / "autostart" / (name + ".desktop"))
            << "[Desktop Entry]\nType=Application\nName=x\nExec=\"" << program << "\"\n";
    }
    std::size_t filesInFolder() const {
        const fs::directory_iterator all(home_.config() / "autostart");
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }

    TemporaryHome home_;
    TestLog log_;
    CommonAuxiliary auxiliary_;
    TestBundle here_ = bundleAt(home_, "here", "Sample Tool");
    TestBundle there_ = bundleAt(home_, "there", "Sample Tool");
    TestBundle other_ = bundleAt(home_, "here-too", "Another Tool");
};

TEST_F(CommonAuxiliaryTest, ThereIsOneSharedInstance) {
    EXPECT_EQ(&CommonAuxiliary::sharedInstance(), &CommonAuxiliary::sharedInstance());
}

TEST_F(CommonAuxiliaryTest, AnAddedApplicationIsFoundAndARemovedOneIsNot) {
    EXPECT_FALSE(auxiliary_.findAppInLoginItems(here_.path()));
    EXPECT_TRUE(auxiliary_.addAppToLoginItems(here_.path()));
    EXPECT_TRUE(auxiliary_.findAppInLoginItems(here_.path()));
    EXPECT_THAT(items(), ElementsAre(here_.path()));
    EXPECT_TRUE(auxiliary_.removeAppFromLoginItems(here_.path()));
    EXPECT_FALSE(auxiliary_.findAppInLoginItems(here_.path()));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CommonAuxiliaryTest, AnItemOfTheSameNameAtAnotherPathIsReplaced) {
    ASSERT_TRUE(auxiliary_.addAppToLoginItems(there_.path()));
    ASSERT_TRUE(auxiliary_.addAppToLoginItems(other_.path()));
    EXPECT_TRUE(auxiliary_.addAppToLoginItems(here_.path()));
    EXPECT_THAT(items(), ElementsAre(other_.path(), here_.path()));
}

TEST_F(CommonAuxiliaryTest, AnItemAtTheSameURLStaysAndOthersOfItsNameGo) {
    // Before and after the right one: the walk goes on to its end.
    for (const auto& [name, program] :
         {std::pair{"a", there_.program()}, {"b", here_.program()}, {"c", there_.program()}}) {
        writeEntry(name, program);
    }
    EXPECT_TRUE(auxiliary_.addAppToLoginItems(here_.path()));
    EXPECT_THAT(items(), ElementsAre(here_.path()));
    EXPECT_EQ(filesInFolder(), 3u) << "nothing is inserted, and foreign entries are kept";
}

TEST_F(CommonAuxiliaryTest, ItemsWithoutURLAreNobodys) {
    writeEntry("a", "/bin/true");
    writeEntry("b", "/nowhere/Sample Tool.app/Contents/Linux/tool");
    EXPECT_TRUE(auxiliary_.addAppToLoginItems(here_.path()));
    EXPECT_TRUE(auxiliary_.removeAppFromLoginItems(here_.path()));
    EXPECT_FALSE(auxiliary_.findAppInLoginItems(std::nullopt));
    EXPECT_FALSE(auxiliary_.findAppInLoginItems("/nowhere/Sample Tool.app"));
    EXPECT_THAT(items(), ElementsAre("(none)", "(none)"));
}

TEST_F(CommonAuxiliaryTest, FindingNeedsTheExactURL) {
    ASSERT_TRUE(auxiliary_.addAppToLoginItems(there_.path()));
    EXPECT_FALSE(auxiliary_.findAppInLoginItems(here_.path()));
    EXPECT_FALSE(auxiliary_.findAppInLoginItems(there_.path() + "/"));
    EXPECT_TRUE(auxiliary_.findAppInLoginItems(there_.path()));
}

TEST_F(CommonAuxiliaryTest, RemovingGoesByTheFileNameAlone) {
    ASSERT_TRUE(auxiliary_.addAppToLoginItems(there_.path()));
    ASSERT_TRUE(auxiliary_.addAppToLoginItems(other_.path()));
    EXPECT_TRUE(auxiliary_.removeAppFromLoginItems("/nowhere/Sample Tool.app"));
    EXPECT_THAT(items(), ElementsAre(other_.path()));
}

TEST_F(CommonAuxiliaryTest, NoURLIsNoApplicationsURL) {
    ASSERT_TRUE(auxiliary_.addAppToLoginItems(here_.path()));
    EXPECT_FALSE(auxiliary_.addAppToLoginItems(std::nullopt));
    EXPECT_TRUE(auxiliary_.removeAppFromLoginItems(std::nullopt));
    EXPECT_FALSE(auxiliary_.findAppInLoginItems(std::nullopt));
    EXPECT_THAT(items(), ElementsAre(here_.path()));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CommonAuxiliaryTest, WhatIsNoApplicationCannotBeAdded) {
    EXPECT_FALSE(auxiliary_.addAppToLoginItems("/nowhere/Sample Tool.app"));
    EXPECT_THAT(log_.lines(),
                ElementsAre("Login items: /nowhere/Sample Tool.app: is no application"));
    EXPECT_THAT(items(), IsEmpty());
}

TEST_F(CommonAuxiliaryTest, AListThatCannotBeReadAnswersNo) {
    fs::create_symlink("autostart", home_.config() / "autostart");
    EXPECT_FALSE(auxiliary_.addAppToLoginItems(here_.path()));
    EXPECT_FALSE(auxiliary_.removeAppFromLoginItems(here_.path()));
    EXPECT_FALSE(auxiliary_.findAppInLoginItems(here_.path()));
    ASSERT_EQ(log_.lines().size(), 3u);
    for (const std::string& line : log_.lines())
        EXPECT_THAT(line, StartsWith("Login items: open " + home_.config().string()));
}

}  // namespace
}  // namespace utilia
