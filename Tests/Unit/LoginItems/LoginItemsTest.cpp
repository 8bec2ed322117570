#include "Common/Platform/LoginItems.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Common/Platform/FileLock.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/UniqueFd.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

using test::ChildProcess;
using test::TemporaryHome;
using test::TestBundle;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void writeFile(const fs::path& path, const std::string& content) {
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file << content;
}

// As people and other programs write them.
std::string foreignEntry(const TestBundle& bundle, const std::string& first = "") {
    return "# mine\n\n[Desktop Entry]\n" + first +
           "Version=1.0\nType = Application\nName=x\nName[de]=y\n\n # why\nExec=\"" +
           bundle.program() + "\" --quiet\nX-Own=a;b;\n\n[Desktop Action A]\nHidden=true\n\n";
}

class LoginItemsTest : public testing::Test {
protected:
    TestBundle bundle(const std::string& folder, const std::string& name,
                      const std::string& identifier) {
        test::TestBundleOptions options;
        options.name = name;
        options.folder = home_.path() / folder;
        options.bundleIdentifier = identifier;
        return TestBundle(home_, options);
    }
    static std::string entryOf(const TestBundle& bundle, const std::string& more = "") {
        return "[Desktop Entry]\nType=Application\nName=x\nExec=\"" + bundle.program() + "\"\n" +
               more;
    }
    static std::vector<LoginItem> items() {
        const auto list = LoginItems::create();
        auto snapshot = list ? list->snapshot() : list.error();
        EXPECT_TRUE(snapshot) << (snapshot ? "" : snapshot.error().description);
        return snapshot ? *std::move(snapshot) : std::vector<LoginItem>();
    }
    static std::vector<std::string> files() {
        std::vector<std::string> names;
        for (const LoginItem& item : items()) names.push_back(fs::path(item.path()).filename());
        return names;
    }
    static std::vector<std::string> urls() {
        std::vector<std::string> all;
        for (const LoginItem& item : items()) all.push_back(item.resolvedURL().value_or("(none)"));
        return all;
    }
    static Result<LoginItem> add(const TestBundle& bundle) {
        return LoginItems::create()->insertAtEnd(bundle.path());
    }
    static void removeOnly() {
        const auto all = items();
        ASSERT_EQ(all.size(), 1u);
        const auto removed = LoginItems::create()->remove(all[0]);
        EXPECT_TRUE(removed) << removed.error().description;
    }
    std::vector<std::string> namesInFolder() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(user_))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    TemporaryHome home_;
    fs::path user_ = home_.config() / "autostart";
    fs::path system_ = home_.systemConfig() / "autostart";
    TestBundle app_ = bundle("Applications", "Sample Tool", "com.example.Sample");
    std::string ownFile_ = "com.example.Sample.desktop";
};

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

TEST_F(LoginItemsTest, WhatALinkLeadsToIsLeftAlone) {
    const fs::path target = home_.path() / "elsewhere.desktop";
    writeFile(target, foreignEntry(app_));
    fs::create_directories(user_);
    fs::create_symlink(target, user_ / "linked.desktop");
    removeOnly();
    EXPECT_EQ(contentOf(target), foreignEntry(app_));
    EXPECT_FALSE(fs::is_symlink(user_ / "linked.desktop"));
    EXPECT_EQ(contentOf(user_ / "linked.desktop"), foreignEntry(app_, "Hidden=true\n"));

    writeFile(target, foreignEntry(app_, "Hidden=true\n"));
    fs::remove(user_ / "linked.desktop");
    fs::create_symlink(target, user_ / "linked.desktop");
    ASSERT_TRUE(add(app_));
    EXPECT_EQ(contentOf(target), foreignEntry(app_, "Hidden=true\n"));
    EXPECT_EQ(contentOf(user_ / "linked.desktop"), foreignEntry(app_));
}

TEST_F(LoginItemsTest, ALinkToAnEntryOfOursIsDeletedAlone) {
    const fs::path target = home_.path() / "elsewhere.desktop";
    writeFile(target, entryOf(app_, "X-Korvane-Utilia-LoginItem=true\n"));
    fs::create_directories(user_);
    fs::create_symlink(target, user_ / "linked.desktop");
    removeOnly();
    EXPECT_THAT(namesInFolder(), IsEmpty());
    EXPECT_TRUE(fs::exists(target));
}

TEST_F(LoginItemsTest, TheFolderItselfMayBeALink) {
    fs::create_directory(home_.path() / "dotfiles");
    fs::create_directory_symlink(home_.path() / "dotfiles", user_);
    ASSERT_TRUE(add(app_));
    EXPECT_TRUE(fs::exists(home_.path() / "dotfiles" / ownFile_));
    removeOnly();
    EXPECT_TRUE(fs::is_symlink(user_));
}

TEST_F(LoginItemsTest, RemovingWhatHasGoneOrWasSwitchedOffIsSuccess) {
    const auto item = add(app_);
    const auto list = LoginItems::create();
    fs::remove(item->path());
    EXPECT_TRUE(list->remove(*item));
    writeFile(item->path(), "[Desktop Entry]\nHidden=true\n");
    EXPECT_TRUE(list->remove(*item));
    EXPECT_EQ(contentOf(item->path()), "[Desktop Entry]\nHidden=true\n");
}

TEST_F(LoginItemsTest, ASnapshotStaysWhileItsItemsAreRemoved) {
    for (int i = 0; i < 20; ++i)
        writeFile(user_ / ("item" + std::to_string(i) + ".desktop"), foreignEntry(app_));
    const auto list = LoginItems::create();
    const auto snapshot = list->snapshot();
    ASSERT_EQ(snapshot->size(), 20u);
    for (const LoginItem& item : *snapshot) EXPECT_TRUE(list->remove(item));
    EXPECT_THAT(items(), IsEmpty());
}

// None of these may block, crash or hide the one good entry.
TEST_F(LoginItemsTest, HostileFilesAreNoItems) {
    writeFile(user_ / "good.desktop", entryOf(app_));
    writeFile(user_ / "huge.desktop", entryOf(app_) + std::string(10 << 20, '#') + "\n");
    writeFile(user_ / "nul.desktop", entryOf(app_) + std::string(3, '\0'));
    writeFile(user_ / "exec-nul.desktop", "[Desktop Entry]\nType=Application\nExec=" +
                                              app_.program() + std::string(1, '\0') + "x\n");
    fs::create_symlink("cycle2.desktop", user_ / "cycle1.desktop");
    fs::create_symlink("cycle1.desktop", user_ / "cycle2.desktop");
    fs::create_symlink("/dev/zero", user_ / "zero.desktop");
    fs::create_symlink("pipe.desktop", user_ / "pipe-link.desktop");
    ASSERT_EQ(mkfifo((user_ / "pipe.desktop").c_str(), 0600), 0);
    fs::create_directory(user_ / "folder.desktop");
    writeFile(user_ / "lines.desktop", "[Desktop Entry]\n" + std::string(200'000, '\n'));
    writeFile(user_ / "groups.desktop", [] {
        std::string text;
        for (int i = 0; i < 20'000; ++i) text += "[" + std::to_string(i) + "]\n";
        return text;
    }());
    writeFile(user_ / (std::string(247, 'x') + ".desktop"), "damaged");
    writeFile(user_ / ".desktop", "damaged");
    UniqueFd socketEnd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = user_ / "s.desktop";
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    ASSERT_EQ(bind(socketEnd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    EXPECT_THAT(files(), ElementsAre("good.desktop"));
    const auto added = add(bundle("other", "Other", "com.example.Other"));
    EXPECT_TRUE(added);
}

TEST_F(LoginItemsTest, SaysVerboselyWhatItLeavesOut) {
    writeFile(user_ / "damaged.desktop", "damaged");
    const test::TestLog log;
    EXPECT_THAT(items(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
    setExtendedLoggingProbe([] { return true; });
    EXPECT_THAT(items(), IsEmpty());
    setExtendedLoggingProbe({});
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_THAT(log.lines()[0],
                StartsWith("Login items: " + (user_ / "damaged.desktop").string() + ": "));
}

TEST_F(LoginItemsTest, AnAutostartFolderThatCannotBeReadIsAnError) {
    writeFile(user_, "a file in its place");
    const auto list = LoginItems::create();
    ASSERT_FALSE(list);
    EXPECT_EQ(list.error().description, "open " + user_.string() + ": Not a directory");
}

TEST_F(LoginItemsTest, ASystemsFolderThatCannotBeReadCostsOnlyItsOwnItems) {
    writeFile(user_ / "a.desktop", entryOf(app_));
    writeFile(system_, "a file in its place");
    EXPECT_THAT(files(), ElementsAre("a.desktop"));
}

TEST_F(LoginItemsTest, ChangesTakeTurnsAndGiveUpAfterTwoSeconds) {
    const auto folder = FileManager::runtimeFolder();
    ASSERT_TRUE(folder);
    const auto held = FileLock::acquire(*folder + "/login-items.lock", FileLock::Mode::Exclusive,
                                        std::chrono::milliseconds(0));
    ASSERT_TRUE(held);
    const auto added = add(app_);
    ASSERT_FALSE(added);
    EXPECT_TRUE(added.error().is(UtiliaErrorCode::Busy)) << added.error().description;
    EXPECT_FALSE(fs::exists(user_));
}

UTILIA_CHILD_ROLE(addLoginItem) {
    self.say("ready");
    self.waitForLine();
    const auto list = LoginItems::create();
    const auto added = list ? list->insertAtEnd(self.arguments.at(0)) : list.error();
    self.say(added ? "added" : added.error().description);
    return 0;
}

TEST_F(LoginItemsTest, ManyProcessesThatAddAtTheSameTimeLoseNothing) {
    std::vector<TestBundle> copies;
    std::vector<std::string> expected;
    for (int i = 0; i < 8; ++i) {
        copies.push_back(bundle("copy" + std::to_string(i), "Sample Tool", "com.example.Sample"));
        expected.push_back(copies.back().path());
    }
    std::vector<ChildProcess> children;
    for (int i = 0; i < 16; ++i)  // each application is added by two processes
        children.push_back(ChildProcess::role("addLoginItem", {expected[std::size_t(i) % 8]}));
    for (ChildProcess& child : children) ASSERT_EQ(child.waitForLine(), "ready");
    for (ChildProcess& child : children) child.say("go");
    for (ChildProcess& child : children) EXPECT_EQ(child.waitForLine(), "added");
    auto found = urls();
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, expected);
}

}  // namespace
}  // namespace utilia::platform
