// What others may leave in the folder of the login items, or do to it at the same time: links,
// damage, and changes by several processes.

#include <filesystem>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "Common/Platform/FileLock.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/UniqueFd.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/LoginItems/LoginItemsFixture.h"

namespace utilia::platform {
namespace {

using test::ChildProcess;
using test::TestBundle;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace fs = std::filesystem;

class LoginItemsFolder : public LoginItemsTest {};

TEST_F(LoginItemsFolder, WhatALinkLeadsToIsLeftAlone) {
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

TEST_F(LoginItemsFolder, ALinkToAnEntryOfOursIsDeletedAlone) {
    const fs::path target = home_.path() / "elsewhere.desktop";
    writeFile(target, entryOf(app_, "X-Korvane-Utilia-LoginItem=true\n"));
    fs::create_directories(user_);
    fs::create_symlink(target, user_ / "linked.desktop");
    removeOnly();
    EXPECT_THAT(namesInFolder(), IsEmpty());
    EXPECT_TRUE(fs::exists(target));
}

TEST_F(LoginItemsFolder, TheFolderItselfMayBeALink) {
    fs::create_directory(home_.path() / "dotfiles");
    fs::create_directory_symlink(home_.path() / "dotfiles", user_);
    ASSERT_TRUE(add(app_));
    EXPECT_TRUE(fs::exists(home_.path() / "dotfiles" / ownFile_));
    removeOnly();
    EXPECT_TRUE(fs::is_symlink(user_));
}

TEST_F(LoginItemsFolder, RemovingWhatHasGoneOrWasSwitchedOffIsSuccess) {
    const auto item = add(app_);
    const auto list = LoginItems::create();
    fs::remove(item->path());
    EXPECT_TRUE(list->remove(*item));
    writeFile(item->path(), "[Desktop Entry]\nHidden=true\n");
    EXPECT_TRUE(list->remove(*item));
    EXPECT_EQ(contentOf(item->path()), "[Desktop Entry]\nHidden=true\n");
}

TEST_F(LoginItemsFolder, ASnapshotStaysWhileItsItemsAreRemoved) {
    for (int i = 0; i < 20; ++i)
        writeFile(user_ / ("item" + std::to_string(i) + ".desktop"), foreignEntry(app_));
    const auto list = LoginItems::create();
    const auto snapshot = list->snapshot();
    ASSERT_EQ(snapshot->size(), 20u);
    for (const LoginItem& item : *snapshot) EXPECT_TRUE(list->remove(item));
    EXPECT_THAT(items(), IsEmpty());
}

// None of these may block, crash or hide the one good entry.
TEST_F(LoginItemsFolder, HostileFilesAreNoItems) {
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

TEST_F(LoginItemsFolder, SaysVerboselyWhatItLeavesOut) {
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

TEST_F(LoginItemsFolder, AnAutostartFolderThatCannotBeReadIsAnError) {
    writeFile(user_, "a file in its place");
    const auto list = LoginItems::create();
    ASSERT_FALSE(list);
    EXPECT_EQ(list.error().description, "open " + user_.string() + ": Not a directory");
}

TEST_F(LoginItemsFolder, ASystemsFolderThatCannotBeReadCostsOnlyItsOwnItems) {
    writeFile(user_ / "a.desktop", entryOf(app_));
    writeFile(system_, "a file in its place");
    EXPECT_THAT(files(), ElementsAre("a.desktop"));
}

TEST_F(LoginItemsFolder, ChangesTakeTurnsAndGiveUpAfterTwoSeconds) {
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

TEST_F(LoginItemsFolder, ManyProcessesThatAddAtTheSameTimeLoseNothing) {
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
