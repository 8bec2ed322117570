#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using platform::FileManager;

class PersistentDataReader : public testing::Test {
protected:
    void storeAll(const Value& value) const {
        accessAppGroupPlist(
            [&](platform::UserDefaults& suite) { suite.setObject(value, "ToolPersistentData"); });
    }
    void storeRecord(const Value& record) const {
        storeAll(Dictionary{{"com.korvane.utilia.Clock_Big Clock.app", record}});
    }
    fs::path iconFolder() const { return home_.groupContainer() / "Library/Caches/Icons"; }
    fs::path menuIconFile() const {
        return iconFolder() / "Menu_Big Clock.app_com.korvane.utilia.Clock.tiff";
    }
    static Data picture() {
        return *platform::Image::initWithBitmap({2, 1, Data{1, 2, 3, 4, 5, 6, 7, 8}})
                    ->TIFFRepresentation();
    }
    void writeMenuIcon(std::span<const FileManager::ExtendedAttribute> attributes) const {
        fs::create_directories(iconFolder());
        ASSERT_TRUE(FileManager::writeAtomically(menuIconFile().string(), picture(), attributes));
    }

    test::TemporaryHome home_;
    test::TestLog log_;
    ToolPersistentDataReader reader_{"Big Clock.app", "com.korvane.utilia.Clock"};
};

TEST_F(PersistentDataReader, NamesAreTheAgreedOnes) {
    EXPECT_EQ(kToolPersistentDataKey, "ToolPersistentData");
    EXPECT_EQ(kToolPermanentKey, "Permanent");
    EXPECT_EQ(kToolMenuTextKey, "MenuText");
    EXPECT_EQ(kTemplateAttribute, "NSImage.isTemplate");
    EXPECT_EQ(kToolIconKind, "Tool");
    EXPECT_EQ(kMenuIconKind, "Menu");
    EXPECT_EQ(reader_.toolName(), "Big Clock.app");
    EXPECT_EQ(reader_.toolId(), "com.korvane.utilia.Clock");
}

TEST_F(PersistentDataReader, MakingOneReadsAndMakesNothing) {
    EXPECT_FALSE(fs::exists(home_.data() / "korvane-utilia"));
}

TEST_F(PersistentDataReader, ToolThatStoredNothingHasNothing) {
    EXPECT_EQ(reader_.getToolDataDict(), std::nullopt);
    EXPECT_FALSE(reader_.isPermanent());
    EXPECT_EQ(reader_.menuText(), std::nullopt);
    EXPECT_EQ(reader_.toolIcon(), nullptr);
    EXPECT_EQ(reader_.menuIcon(), nullptr);
    EXPECT_EQ(log_.lines(), std::vector<std::string>{});
}

TEST_F(PersistentDataReader, EntryIsKeyedByIdentifierThenFileName) {
    storeRecord(Dictionary{{"Permanent", true}, {"MenuText", "12:30"}});
    EXPECT_EQ(reader_.getToolDataDict(), (Dictionary{{"Permanent", true}, {"MenuText", "12:30"}}));
    EXPECT_TRUE(reader_.isPermanent());
    EXPECT_EQ(reader_.menuText(), "12:30");
}

TEST_F(PersistentDataReader, ReadsTheDocumentedExample) {
    const fs::path folder = home_.groupContainer() / "Library/Preferences";
    fs::create_directories(folder);
    fs::copy_file(fs::path(test::places::kTestData) / "presentation-data.plist",
                  folder / "7QK2M9ZD4R.com.korvane.utilia.plist");
    const ToolPersistentDataReader clock("Clock.app", "com.korvane.utilia.Clock");
    EXPECT_EQ(clock.getToolDataDict(), (Dictionary{{"Permanent", true}, {"MenuText", "12:30"}}));
}

TEST_F(PersistentDataReader, OtherOrdersAndFormsOfTheKeyAreOtherTools) {
    const Dictionary record{{"Permanent", true}};
    storeAll(Dictionary{{"Big Clock.app_com.korvane.utilia.Clock", record},
                        {"com.korvane.utilia.Clock_Big Clock", record},
                        {"com.korvane.utilia.clock_Big Clock.app", record}});
    EXPECT_EQ(reader_.getToolDataDict(), std::nullopt);
}

TEST_F(PersistentDataReader, EveryAnswerIsReadAfresh) {
    storeRecord(Dictionary{{"MenuText", "first"}});
    EXPECT_EQ(reader_.menuText(), "first");
    storeRecord(Dictionary{{"MenuText", "second"}, {"Permanent", true}});
    EXPECT_EQ(reader_.menuText(), "second");
    EXPECT_TRUE(reader_.isPermanent());
    storeAll(Dictionary{});
    EXPECT_EQ(reader_.menuText(), std::nullopt);
}

TEST_F(PersistentDataReader, MissingKeysReadAsNotPermanentAndNoText) {
    storeRecord(Dictionary{});
    EXPECT_EQ(reader_.getToolDataDict(), Dictionary{});
    EXPECT_FALSE(reader_.isPermanent());
    EXPECT_EQ(reader_.menuText(), std::nullopt);
    storeRecord(Dictionary{{"MenuText", "text of a tool that is not permanent"}});
    EXPECT_FALSE(reader_.isPermanent());
    EXPECT_EQ(reader_.menuText(), "text of a tool that is not permanent");
}

TEST_F(PersistentDataReader, PermanentIsReadAsABoolean) {
    const struct {
        Value value;
        bool expected;
    } cases[] = {
        {true, true},     {false, false},   {1, true},         {0, false},
        {2.5, true},      {0.0, false},     {"YES", true},     {"no", false},
        {"1", true},      {Data{1}, false}, {Array{1}, false}, {Dictionary{{"a", 1}}, false},
        {Date{1}, false},
    };
    for (const auto& each : cases) {
        storeRecord(Dictionary{{"Permanent", each.value}});
        EXPECT_EQ(reader_.isPermanent(), each.expected) << (&each - cases);
    }
}

TEST_F(PersistentDataReader, ValuesOfOtherTypesReadAsAbsent) {
    for (const Value& value : {Value(7), Value(true), Value(Data{'x'}), Value(Array{"x"}),
                               Value(Dictionary{{"x", "y"}}), Value(Date{0})}) {
        storeRecord(Dictionary{{"MenuText", value}});
        EXPECT_EQ(reader_.menuText(), std::nullopt);
    }
    storeRecord("no dictionary");
    EXPECT_EQ(reader_.getToolDataDict(), std::nullopt);
    storeRecord(Array{1, 2});
    EXPECT_FALSE(reader_.isPermanent());
    storeAll("no dictionary");
    EXPECT_EQ(reader_.menuText(), std::nullopt);
    storeAll(Array{Dictionary{{"Permanent", true}}});
    EXPECT_FALSE(reader_.isPermanent());
}

TEST_F(PersistentDataReader, IconPathsPutTheFileNameBeforeTheIdentifier) {
    const std::string folder = iconFolder().string();
    EXPECT_EQ(reader_.getToolIconPath(),
              folder + "/Tool_Big Clock.app_com.korvane.utilia.Clock.tiff");
    EXPECT_EQ(reader_.getMenuIconPath(),
              folder + "/Menu_Big Clock.app_com.korvane.utilia.Clock.tiff");
    EXPECT_EQ(reader_.getIconPath("Other"),
              folder + "/Other_Big Clock.app_com.korvane.utilia.Clock.tiff");
}

TEST_F(PersistentDataReader, AskingForAPathMakesTheFolderEachTime) {
    EXPECT_FALSE(fs::exists(iconFolder()));
    (void)reader_.getToolIconPath();
    EXPECT_TRUE(fs::is_directory(iconFolder()));
    fs::remove_all(home_.groupContainer() / "Library");
    (void)reader_.getMenuIconPath();
    EXPECT_TRUE(fs::is_directory(iconFolder()));
}

TEST_F(PersistentDataReader, FolderThatCannotBeMadeStillHasAPath) {
    fs::create_directories(home_.groupContainer());
    std::ofstream(home_.groupContainer() / "Library") << "in the way";
    EXPECT_EQ(reader_.getToolIconPath(),
              (iconFolder() / "Tool_Big Clock.app_com.korvane.utilia.Clock.tiff").string());
    EXPECT_EQ(reader_.toolIcon(), nullptr);
}

TEST_F(PersistentDataReader, WithoutContainerThereAreNoPathsAndNoIcons) {
    fs::create_directories(home_.groupContainer().parent_path());
    std::ofstream(home_.groupContainer()) << "in the way";
    EXPECT_EQ(reader_.getToolIconPath(), std::nullopt);
    EXPECT_EQ(reader_.getMenuIconPath(), std::nullopt);
    EXPECT_EQ(reader_.toolIcon(), nullptr);
    EXPECT_EQ(reader_.menuIcon(), nullptr);
    EXPECT_FALSE(reader_.isPermanent());
    EXPECT_EQ(reader_.menuText(), std::nullopt);
}

TEST_F(PersistentDataReader, NamesThatWouldLeaveTheFolderHaveNoPath) {
    using namespace std::string_view_literals;
    for (const auto& [name, identifier] : {std::pair{"../../x.app"sv, "id"sv},
                                           {"a/b.app"sv, "id"sv},
                                           {"a.app"sv, "i/d"sv},
                                           {"a\0b.app"sv, "id"sv},
                                           {"a.app"sv, "id\0"sv}}) {
        const ToolPersistentDataReader reader(name, identifier);
        EXPECT_EQ(reader.getToolIconPath(), std::nullopt);
        EXPECT_EQ(reader.menuIcon(), nullptr);
    }
}

TEST_F(PersistentDataReader, ReadsTheIconsFromTheirFiles) {
    ASSERT_TRUE(FileManager::createDirectoryAtPath(iconFolder().string()));
    ASSERT_TRUE(FileManager::writeAtomically(*reader_.getToolIconPath(), picture()));
    const auto icon = reader_.toolIcon();
    ASSERT_TRUE(icon);
    EXPECT_EQ(icon->pixelsWide(), 2u);
    EXPECT_EQ(icon->representation(0)->rgba, (Data{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_FALSE(icon->isTemplate());
    EXPECT_EQ(reader_.menuIcon(), nullptr);
}

TEST_F(PersistentDataReader, FileIsReadWhenItsPictureIsAskedFor) {
    ASSERT_TRUE(FileManager::createDirectoryAtPath(iconFolder().string()));
    std::ofstream(*reader_.getToolIconPath()) << "not yet a picture";
    const auto icon = reader_.toolIcon();
    ASSERT_TRUE(icon);
    ASSERT_TRUE(FileManager::writeAtomically(*reader_.getToolIconPath(), picture()));
    EXPECT_EQ(icon->pixelsWide(), 2u);
}

TEST_F(PersistentDataReader, DamagedIconFileIsAnIconWithoutPicture) {
    ASSERT_TRUE(FileManager::createDirectoryAtPath(iconFolder().string()));
    std::ofstream(*reader_.getToolIconPath()) << "damaged";
    const auto icon = reader_.toolIcon();
    ASSERT_TRUE(icon);
    EXPECT_FALSE(icon->isValid());
}

TEST_F(PersistentDataReader, TemplateFlagIsOneByteOfTheMenuIconsFile) {
    const struct {
        Data attribute;
        bool expected;
    } cases[] = {{{1}, true}, {{0}, false}, {{0xff}, true}, {{2}, true}, {{}, false}};
    for (const auto& each : cases) {
        const FileManager::ExtendedAttribute flag{"NSImage.isTemplate", each.attribute};
        writeMenuIcon(std::span(&flag, 1));
        ASSERT_TRUE(reader_.menuIcon());
        EXPECT_EQ(reader_.menuIcon()->isTemplate(), each.expected) << (&each - cases);
    }
}

TEST_F(PersistentDataReader, FlagThatIsTooLongReadsAsNo) {
    const FileManager::ExtendedAttribute flag{"NSImage.isTemplate", Data{1, 1}};
    writeMenuIcon(std::span(&flag, 1));
    EXPECT_FALSE(reader_.menuIcon()->isTemplate());
}

TEST_F(PersistentDataReader, MenuIconWithoutFlagIsNoTemplateWhateverItsName) {
    writeMenuIcon({});
    EXPECT_FALSE(reader_.menuIcon()->isTemplate());
    const ToolPersistentDataReader named("Clock.app", "Template");
    ASSERT_TRUE(FileManager::writeAtomically(*named.getMenuIconPath(), picture()));
    EXPECT_FALSE(named.menuIcon()->isTemplate());
}

}  // namespace
}  // namespace utilia
