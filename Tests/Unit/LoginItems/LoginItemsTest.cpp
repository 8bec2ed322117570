#include "Common/Platform/LoginItems.h"

#include <filesystem>

#include <sys/stat.h>

#include "Tests/Unit/LoginItems/LoginItemsFixture.h"

namespace utilia::platform {
namespace {

using test::TestBundle;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace fs = std::filesystem;

TEST_F(LoginItemsTest, WithoutAnyFolderTheListIsEmpty) {
    EXPECT_THAT(items(), IsEmpty());
    EXPECT_FALSE(fs::exists(user_));
}

TEST_F(LoginItemsTest, ItemsOfUserAndSystemAreWalkedByFileName) {
    writeFile(system_ / "b.desktop", entryOf(app_));
    writeFile(user_ / "c.desktop", entryOf(app_));
    writeFile(user_ / "a.desktop", entryOf(app_));
    writeFile(user_ / "d.txt", entryOf(app_));
    EXPECT_THAT(files(), ElementsAre("a.desktop", "b.desktop", "c.desktop"));
    EXPECT_THAT(urls(), ElementsAre(app_.path(), app_.path(), app_.path()));
}

TEST_F(LoginItemsTest, TheFirstSystemFolderCountsBeforeTheLater) {
    const fs::path later = home_.path() / "later";
    setenv("XDG_CONFIG_DIRS",
           (home_.systemConfig().string() + ":relative::" + later.string()).c_str(), 1);
    writeFile(system_ / "a.desktop", entryOf(app_));
    writeFile(later / "autostart/a.desktop", entryOf(app_, "Hidden=true\n"));
    writeFile(later / "autostart/b.desktop", entryOf(app_));
    EXPECT_THAT(files(), ElementsAre("a.desktop", "b.desktop"));
}

TEST_F(LoginItemsTest, AFileOfTheUserHidesTheSystemsWhateverIsInIt) {
    const char* const names[] = {"empty.desktop",   "hidden.desktop",  "bytes.desktop",
                                 "linked.desktop",  "nothing.desktop", "link.desktop",
                                 "visible.desktop", "null.desktop"};
    for (const char* name : names) writeFile(system_ / name, entryOf(app_));
    writeFile(user_ / "empty.desktop", "");
    writeFile(user_ / "hidden.desktop", "[Desktop Entry]\nHidden=true\n");
    writeFile(user_ / "bytes.desktop", std::string("\x7f"
                                                   "ELF\0\0",
                                                   6));
    writeFile(user_ / "link.desktop", "[Desktop Entry]\nType=Link\nURL=http://example.com\n");
    fs::create_symlink("nowhere", user_ / "linked.desktop");
    fs::create_symlink("/dev/null", user_ / "null.desktop");
    EXPECT_THAT(files(), ElementsAre("nothing.desktop", "visible.desktop"));
}

TEST_F(LoginItemsTest, EntriesThatTheSessionWouldNotStartAreNoItems) {
    setenv("XDG_CURRENT_DESKTOP", "ubuntu:GNOME", 1);
    const struct {
        const char* keys;
        bool isItem;
    } table[] = {
        {"", true},
        {"Hidden=false\n", true},
        {"Hidden=true\n", false},
        {"X-GNOME-Autostart-enabled=true\n", true},
        {"X-GNOME-Autostart-enabled=false\n", false},
        {"NoDisplay=true\n", true},
        {"OnlyShowIn=GNOME;\n", true},
        {"OnlyShowIn=KDE;\n", false},
        {"NotShowIn=KDE;\n", true},
        {"NotShowIn=GNOME;\n", false},
        {"TryExec=/bin/true\n", true},
        {"TryExec=/nonexistent\n", false},
    };
    for (const auto& row : table) {
        writeFile(user_ / "a.desktop", entryOf(app_, row.keys));
        EXPECT_EQ(items().size(), row.isItem ? 1u : 0u) << row.keys;
    }
    unsetenv("XDG_CURRENT_DESKTOP");
}

TEST_F(LoginItemsTest, ItemsThatStartNoApplicationHaveNoURL) {
    const TestBundle gone = bundle("Applications", "Gone", "com.example.Gone");
    const std::string start = "[Desktop Entry]\nType=Application\nName=x\nExec=";
    writeFile(user_ / "a.desktop", start + "/bin/true\n");
    writeFile(user_ / "b.desktop", entryOf(gone));
    writeFile(user_ / "c.desktop", start + "env A=B \"" + app_.program() + "\"\n");
    writeFile(user_ / "d.desktop", start + "\"unbalanced\n");
    writeFile(user_ / "e.desktop", start + "\"" + app_.program() + "\" --argument %U\n");
    fs::remove_all(gone.path());
    EXPECT_THAT(files(),
                ElementsAre("a.desktop", "b.desktop", "c.desktop", "d.desktop", "e.desktop"));
    EXPECT_THAT(urls(), ElementsAre("(none)", "(none)", "(none)", "(none)", app_.path()));
}

TEST_F(LoginItemsTest, URLsAreResolved) {
    fs::create_directory_symlink(app_.path(), home_.path() / "Link.app");
    writeFile(user_ / "a.desktop", "[Desktop Entry]\nType=Application\nName=x\nExec=" +
                                       (home_.path() / "Link.app/Contents/Linux/tool").string() +
                                       "\n");
    EXPECT_THAT(urls(), ElementsAre(app_.path()));
    EXPECT_EQ(
        LoginItems::create()->insertAtEnd((home_.path() / "Link.app/").string())->resolvedURL(),
        app_.path());
}

TEST_F(LoginItemsTest, ANewEntrySaysWhatASessionNeeds) {
    const auto item = add(app_);
    ASSERT_TRUE(item) << item.error().description;
    EXPECT_EQ(item->path(), (user_ / ownFile_).string());
    EXPECT_EQ(item->resolvedURL(), app_.path());
    EXPECT_EQ(contentOf(item->path()), "[Desktop Entry]\n"
                                       "Type=Application\n"
                                       "Name=Sample Tool\n"
                                       "Exec=\"" +
                                           app_.program() +
                                           "\"\n"
                                           "TryExec=" +
                                           app_.program() +
                                           "\n"
                                           "X-Korvane-Utilia-LoginItem=true\n");
    EXPECT_EQ(fs::status(user_).permissions(), fs::perms(0700));
    EXPECT_THAT(urls(), ElementsAre(app_.path()));
    EXPECT_THAT(namesInFolder(), ElementsAre(ownFile_));
}

TEST_F(LoginItemsTest, ANewEntryHasNameAndIconOfItsApplication) {
    test::TestBundleOptions options;
    options.name = "File Name";
    options.info = {{"CFBundleName", "Shown\n\\Name "}, {"CFBundleIconFile", "icon.png"}};
    const TestBundle named(home_, options);
    EXPECT_THAT(contentOf(add(named)->path()), HasSubstr("\nName=Shown\\\\Name \nExec="));
    const fs::path icon = fs::path(named.path()) / "Contents/Resources/icon.png";
    writeFile(icon, "");
    fs::remove_all(user_);
    EXPECT_THAT(contentOf(add(named)->path()), HasSubstr("\nIcon=" + icon.string() + "\n"));
}

TEST_F(LoginItemsTest, TwoApplicationsNeverShareAFile) {
    const TestBundle copy = bundle("copy", "Sample Tool", "com.example.Sample");
    const TestBundle nameless = bundle("Applications", "Nameless", "");
    const TestBundle namelessToo = bundle("copy", "Nameless", "");
    const TestBundle strange = bundle("Applications", "Strange", "a\tb");
    for (const TestBundle* each :
         std::vector<const TestBundle*>{&app_, &copy, &nameless, &namelessToo, &strange}) {
        const auto added = add(*each);
        ASSERT_TRUE(added) << added.error().description;
    }
    EXPECT_THAT(urls(), UnorderedElementsAre(app_.path(), copy.path(), nameless.path(),
                                             namelessToo.path(), strange.path()));
    EXPECT_EQ(namesInFolder().size(), 5u);
}

TEST_F(LoginItemsTest, AddingAnItemAgainChangesNothing) {
    writeFile(user_ / "a.desktop", foreignEntry(app_, "Hidden=true\n"));
    writeFile(user_ / "b.desktop", foreignEntry(app_));
    const auto added = add(app_);
    ASSERT_TRUE(added);
    EXPECT_EQ(added->path(), (user_ / "b.desktop").string());
    EXPECT_EQ(contentOf(user_ / "a.desktop"), foreignEntry(app_, "Hidden=true\n"));
    EXPECT_EQ(contentOf(user_ / "b.desktop"), foreignEntry(app_));
    EXPECT_THAT(namesInFolder(), ElementsAre("a.desktop", "b.desktop"));
}

TEST_F(LoginItemsTest, AFileOfSomebodyElseIsLeftAlone) {
    const std::string foreign = "[Desktop Entry]\nType=Application\nName=x\nExec=/bin/true\n";
    for (const std::string& content : {foreign, std::string("damaged"), std::string()}) {
        writeFile(user_ / ownFile_, content);
        const auto added = add(app_);
        ASSERT_TRUE(added) << added.error().description;
        EXPECT_THAT(fs::path(added->path()).filename().string(), StartsWith("Sample Tool.app."));
        EXPECT_EQ(contentOf(user_ / ownFile_), content);
        EXPECT_TRUE(LoginItems::create()->remove(*added));
        EXPECT_THAT(namesInFolder(), ElementsAre(ownFile_));
    }
}

TEST_F(LoginItemsTest, WhateverTakesBothNamesIsInTheWay) {
    fs::create_directories(user_ / ownFile_);
    const auto first = add(app_);
    ASSERT_TRUE(first);
    fs::remove(first->path());
    ASSERT_EQ(mkfifo(first->path().c_str(), 0600), 0);
    const auto second = add(app_);
    ASSERT_FALSE(second);
    EXPECT_EQ(second.error().description, first->path() + ": is in the way");
}

TEST_F(LoginItemsTest, AnEntryOfOursMakesRoomOnceItsApplicationHasGone) {
    const TestBundle moved = bundle("old", "Sample Tool", "com.example.Sample");
    ASSERT_TRUE(add(moved));
    fs::remove_all(moved.path());
    ASSERT_TRUE(add(app_));
    EXPECT_THAT(namesInFolder(), ElementsAre(ownFile_));
    EXPECT_THAT(urls(), ElementsAre(app_.path()));
}

TEST_F(LoginItemsTest, WhatIsNoApplicationIsNotAdded) {
    const TestBundle programless = bundle("Applications", "Programless", "com.example.None");
    fs::remove(programless.program());
    for (const std::string& url :
         {std::string(), std::string("/nowhere/X.app"), home_.path().string(), programless.path(),
          std::string("relative.app"), std::string("a\0b", 3)}) {
        const auto added = LoginItems::create()->insertAtEnd(url);
        ASSERT_FALSE(added) << url;
        EXPECT_TRUE(added.error().is(UtiliaErrorCode::NotFound)) << added.error().description;
    }
    EXPECT_FALSE(fs::exists(user_));
}

TEST_F(LoginItemsTest, APathThatAnEntryCannotHoldIsRefused) {
    for (const char* folder : {"a=b", "line\nbreak", "tab\t", "\xff\xfe"}) {
        const TestBundle strange = bundle(folder, "Sample Tool", "com.example.Sample");
        const auto added = add(strange);
        ASSERT_FALSE(added) << folder;
        EXPECT_TRUE(added.error().is(UtiliaErrorCode::Refused)) << added.error().description;
    }
    EXPECT_FALSE(fs::exists(user_));
}

TEST_F(LoginItemsTest, AnItemOfOursIsDeletedWhenItIsRemoved) {
    ASSERT_TRUE(add(app_));
    removeOnly();
    EXPECT_THAT(namesInFolder(), IsEmpty());
    EXPECT_THAT(items(), IsEmpty());
}

TEST_F(LoginItemsTest, AnItemOfSomebodyElseIsSwitchedOffAndOnWithoutATrace) {
    writeFile(user_ / "foreign.desktop", foreignEntry(app_));
    removeOnly();
    EXPECT_EQ(contentOf(user_ / "foreign.desktop"), foreignEntry(app_, "Hidden=true\n"));
    EXPECT_THAT(items(), IsEmpty());
    const auto added = add(app_);
    ASSERT_TRUE(added) << added.error().description;
    EXPECT_EQ(added->path(), (user_ / "foreign.desktop").string());
    EXPECT_EQ(contentOf(user_ / "foreign.desktop"), foreignEntry(app_));
    EXPECT_THAT(namesInFolder(), ElementsAre("foreign.desktop"));
}

TEST_F(LoginItemsTest, AddingTakesBothMarksAway) {
    for (const std::string& marks :
         {std::string("Hidden=true\n"), std::string("X-GNOME-Autostart-enabled=false\n"),
          std::string("X-GNOME-Autostart-enabled=false\nHidden=true\n")}) {
        writeFile(user_ / "foreign.desktop", foreignEntry(app_, marks));
        ASSERT_TRUE(add(app_));
        EXPECT_EQ(contentOf(user_ / "foreign.desktop"), foreignEntry(app_));
        EXPECT_THAT(namesInFolder(), ElementsAre("foreign.desktop"));
    }
}

TEST_F(LoginItemsTest, AnItemOfTheSystemIsHiddenByACopyAndShownByDeletingIt) {
    writeFile(system_ / "provided.desktop", foreignEntry(app_));
    removeOnly();
    EXPECT_EQ(contentOf(system_ / "provided.desktop"), foreignEntry(app_));
    EXPECT_EQ(contentOf(user_ / "provided.desktop"), foreignEntry(app_, "Hidden=true\n"));
    EXPECT_THAT(items(), IsEmpty());
    const auto added = add(app_);
    ASSERT_TRUE(added) << added.error().description;
    EXPECT_EQ(added->path(), (system_ / "provided.desktop").string());
    EXPECT_THAT(namesInFolder(), IsEmpty());
    EXPECT_THAT(urls(), ElementsAre(app_.path()));
}

TEST_F(LoginItemsTest, AUsersOwnCopyOfASystemsItemIsHiddenAndNotDeleted) {
    writeFile(system_ / ownFile_, foreignEntry(app_));
    writeFile(user_ / ownFile_, entryOf(app_, "X-Korvane-Utilia-LoginItem=true\n"));
    removeOnly();
    EXPECT_THAT(items(), IsEmpty()) << "deleting it would uncover the system's";
    ASSERT_TRUE(add(app_));
    EXPECT_EQ(contentOf(user_ / ownFile_), entryOf(app_, "X-Korvane-Utilia-LoginItem=true\n"));
}

TEST_F(LoginItemsTest, ABareMarkOfTheUserIsTakenAwayFromASystemsItem) {
    writeFile(system_ / "provided.desktop", foreignEntry(app_));
    writeFile(user_ / "provided.desktop", "[Desktop Entry]\nHidden=true\n");
    ASSERT_TRUE(add(app_));
    EXPECT_THAT(namesInFolder(), IsEmpty());
    EXPECT_THAT(urls(), ElementsAre(app_.path()));
}

TEST_F(LoginItemsTest, AnItemThatTheSystemSwitchedOffIsSwitchedOnByACopy) {
    writeFile(system_ / "provided.desktop", foreignEntry(app_, "Hidden=true\n"));
    ASSERT_TRUE(add(app_));
    EXPECT_EQ(contentOf(user_ / "provided.desktop"), foreignEntry(app_));
    EXPECT_EQ(contentOf(system_ / "provided.desktop"), foreignEntry(app_, "Hidden=true\n"));
}

TEST_F(LoginItemsTest, AnItemForAnotherDesktopIsNotTouched) {
    writeFile(user_ / ownFile_, foreignEntry(app_, "OnlyShowIn=KDE;\nHidden=true\n"));
    ASSERT_TRUE(add(app_));
    EXPECT_EQ(contentOf(user_ / ownFile_), foreignEntry(app_, "OnlyShowIn=KDE;\nHidden=true\n"));
    EXPECT_THAT(urls(), ElementsAre(app_.path()));
}

}  // namespace
}  // namespace utilia::platform
