#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Common/Platform/FileManager.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;

Data bytesOf(std::string_view text) { return Data(text.begin(), text.end()); }

std::string textOf(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

unsigned modeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

class Umask final {
public:
    explicit Umask(mode_t mask) : before_(umask(mask)) {}
    ~Umask() { umask(before_); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    mode_t before_;
};

class FileManagerTest : public testing::Test {
protected:
    fs::path at(const char* name) const { return home_.path() / name; }
    std::size_t entries() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(home_.path()), {}));
    }

    const test::TemporaryHome home_;
    const test::TestLog log_;
};

TEST_F(FileManagerTest, MakesAFolderWithItsParentsByTheUmask) {
    const Umask mask(027);
    ASSERT_TRUE(FileManager::createDirectoryAtPath(at("a/b/c").string()));
    for (const char* name : {"a", "a/b", "a/b/c"}) EXPECT_EQ(modeOf(at(name)), 0750u);
}

TEST_F(FileManagerTest, GivesEveryNewFolderTheAskedModeWhateverTheUmask) {
    const Umask mask(077);
    fs::create_directory(at("old"));
    ASSERT_TRUE(FileManager::createDirectoryAtPath(at("old/b/c").string(), 0755));
    EXPECT_EQ(modeOf(at("old")), 0700u) << "an existing folder is left as it is";
    for (const char* name : {"old/b", "old/b/c"}) EXPECT_EQ(modeOf(at(name)), 0755u);
}

TEST_F(FileManagerTest, AnExistingFolderIsSuccessAndAFileIsNot) {
    EXPECT_TRUE(FileManager::createDirectoryAtPath(home_.path().string(), 0777));
    EXPECT_EQ(modeOf(home_.path()), 0700u);
    EXPECT_TRUE(FileManager::createDirectoryAtPath((home_.path() / "").string()));
    std::ofstream(at("file")) << "x";
    EXPECT_TRUE(FileManager::createDirectoryAtPath(at("file").string()).error().isPosix(EEXIST));
    EXPECT_TRUE(
        FileManager::createDirectoryAtPath(at("file/below").string()).error().isPosix(ENOTDIR));
    EXPECT_TRUE(FileManager::createDirectoryAtPath("").error().isPosix(ENOENT));
}

TEST_F(FileManagerTest, AFolderInAFileSystemThatMakesNoneIsAnError) {
    EXPECT_TRUE(FileManager::createDirectoryAtPath("/proc/nowhere/below").error().isPosix(ENOENT));
}

TEST_F(FileManagerTest, RemovesAFolderWithItsContentAndNeverFollowsALink) {
    fs::create_directories(at("outside/kept"));
    fs::create_directories(at("gone/a/b"));
    std::ofstream(at("gone/a/b/file")) << "x";
    fs::create_directory_symlink(at("outside"), at("gone/a/link"));
    fs::create_symlink("nowhere", at("gone/dangling"));
    ASSERT_TRUE(FileManager::removeItemAtPath(at("gone").string()));
    EXPECT_FALSE(fs::exists(at("gone")));
    EXPECT_TRUE(fs::exists(at("outside/kept")));
    fs::create_directory_symlink(at("outside"), at("link"));
    ASSERT_TRUE(FileManager::removeItemAtPath(at("link").string()));
    EXPECT_TRUE(fs::exists(at("outside/kept")));
    EXPECT_TRUE(FileManager::removeItemAtPath(at("missing").string()).error().isPosix(ENOENT));
}

TEST_F(FileManagerTest, ReadsRegularFilesUpToASize) {
    std::ofstream(at("file")) << "12345";
    EXPECT_EQ(FileManager::contentsAtPath(at("file").string(), 5).value_or(Data()),
              bytesOf("12345"));
    EXPECT_TRUE(FileManager::contentsAtPath(at("file").string(), 4).error().isPosix(EFBIG));
    EXPECT_TRUE(FileManager::contentsAtPath(at("missing").string(), 4).error().isPosix(ENOENT));
    EXPECT_TRUE(FileManager::contentsAtPath(home_.path().string(), 4).error().isPosix(EISDIR));
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    EXPECT_TRUE(FileManager::contentsAtPath(at("fifo").string(), 4).error().isPosix(EACCES))
        << "and does not wait for a writer";
    fs::create_symlink("file", at("link"));
    EXPECT_EQ(FileManager::contentsAtPath(at("link").string(), 5).value_or(Data()),
              bytesOf("12345"));
}

TEST_F(FileManagerTest, AnAtomicWriteMakesANewFileByTheUmaskAndKeepsAnExistingMode) {
    const Umask mask(027);
    ASSERT_TRUE(FileManager::writeAtomically(at("file").string(), bytesOf("first")));
    EXPECT_EQ(modeOf(at("file")), 0640u);
    fs::permissions(at("file"), fs::perms(0604));
    ASSERT_TRUE(FileManager::writeAtomically(at("file").string(), bytesOf("second")));
    EXPECT_EQ(modeOf(at("file")), 0604u);
    EXPECT_EQ(textOf(at("file")), "second");
}

TEST_F(FileManagerTest, AnAtomicWriteReplacesALinkAndNotWhatItLeadsTo) {
    std::ofstream(at("canary")) << "canary";
    fs::create_symlink("canary", at("link"));
    fs::create_hard_link(at("canary"), at("hard"));
    ASSERT_TRUE(FileManager::writeAtomically(at("link").string(), bytesOf("new")));
    ASSERT_TRUE(FileManager::writeAtomically(at("hard").string(), bytesOf("new")));
    EXPECT_EQ(textOf(at("canary")), "canary");
    EXPECT_FALSE(fs::is_symlink(at("link")));
}

TEST_F(FileManagerTest, AFailedAtomicWriteLeavesNothingBehind) {
    const std::size_t before = entries();
    fs::create_directory(at("folder"));
    EXPECT_TRUE(
        FileManager::writeAtomically(at("folder").string(), bytesOf("x")).error().isPosix(EISDIR));
    EXPECT_TRUE(FileManager::writeAtomically(at("missing/file").string(), bytesOf("x"))
                    .error()
                    .isPosix(ENOENT));
    EXPECT_EQ(entries(), before + 1);
}

TEST_F(FileManagerTest, AnAtomicWriteCarriesItsAttributes) {
    const FileManager::ExtendedAttribute isTemplate{"NSImage.isTemplate", {1}};
    ASSERT_TRUE(
        FileManager::writeAtomically(at("icon").string(), bytesOf("icon"), {&isTemplate, 1}));
    EXPECT_EQ(FileManager::extendedAttribute(at("icon").string(), "NSImage.isTemplate", 1)
                  .value_or(Data()),
              Data{1});
    ASSERT_TRUE(FileManager::writeAtomically(at("icon").string(), bytesOf("again")));
    EXPECT_TRUE(FileManager::extendedAttribute(at("icon").string(), "NSImage.isTemplate", 1)
                    .error()
                    .isPosix(ENODATA));
}

TEST_F(FileManagerTest, AKillAtAnySystemCallOfAnAtomicWriteLeavesTheOldOrTheNewFile) {
    const std::string path = at("file").string();
    const Data first = bytesOf("the first content");
    const Data second = bytesOf("the second");
    ASSERT_TRUE(FileManager::writeAtomically(path, first));
    const std::size_t before = entries();
    std::size_t leftOvers = 0;
    const std::size_t points = test::forEachKillPoint(
        3, [&] { (void)FileManager::writeAtomically(path, second); },
        [&](const test::KillPoint&) {
            const Data found = FileManager::contentsAtPath(path, 100).value_or(Data());
            EXPECT_TRUE(found == first || found == second) << textOf(path);
            leftOvers += entries() - before;
            EXPECT_TRUE(FileManager::writeAtomically(path, first));
            EXPECT_EQ(entries(), before) << "the next write clears up";
        });
    EXPECT_GE(points, 10u);
    EXPECT_GE(leftOvers, 1u) << "else nothing of the kind was tried";
}

TEST_F(FileManagerTest, AnAtomicWriteRemovesAThousandFilesOfKilledWriters) {
    const std::size_t before = entries();
    for (int i = 0; i < 1000; ++i) {
        // No process has so high a number.
        std::ofstream(at((".utilia-" + std::to_string(INT_MAX - i) + "-7").c_str())) << "half";
    }
    ASSERT_EQ(entries(), before + 1000);
    EXPECT_TRUE(FileManager::writeAtomically(at("file").string(), bytesOf("new")));
    EXPECT_EQ(entries(), before + 1);
}

TEST_F(FileManagerTest, AnAtomicWriteLeavesWhatIsNoFileOfAKilledWriter) {
    const std::string dead = ".utilia-" + std::to_string(INT_MAX);
    const std::string living = ".utilia-" + std::to_string(getpid());
    std::ofstream(at("canary")) << "canary";
    fs::create_symlink("canary", at((dead + "-1").c_str()));
    fs::create_directory(at((dead + "-2").c_str()));
    ASSERT_EQ(mkfifo(at((dead + "-3").c_str()).c_str(), 0600), 0);
    for (const std::string& name :
         {living + "-4000000000", dead, dead + "-", dead + "-x", dead + "-1x", dead + "--1",
          std::string(".utilia-0-1"), std::string(".utilia--5-1"), "x" + dead + "-1"}) {
        std::ofstream(at(name.c_str())) << "kept";
    }
    const fs::path foreign = at((dead + "-4").c_str());
    std::ofstream(foreign) << "kept";
    if (geteuid() == 0) {
        ASSERT_EQ(chown(foreign.c_str(), kNobody, kNobody), 0);
    } else {
        fs::remove(foreign);  // only root can give a file away
    }
    const std::size_t before = entries();
    EXPECT_TRUE(FileManager::writeAtomically(at("file").string(), bytesOf("new")));
    EXPECT_EQ(entries(), before + 1);
    EXPECT_EQ(textOf(at("canary")), "canary");
}

TEST_F(FileManagerTest, AnAttributeIsReadUpToASize) {
    std::ofstream(at("file")) << "x";
    const std::string path = at("file").string();
    ASSERT_TRUE(FileManager::setExtendedAttribute(path, "name", Data{1, 2}));
    EXPECT_EQ(FileManager::extendedAttribute(path, "name", 2).value_or(Data()), (Data{1, 2}));
    EXPECT_TRUE(FileManager::extendedAttribute(path, "name", 1).error().isPosix(ERANGE));
    EXPECT_TRUE(FileManager::extendedAttribute(path, "other", 1).error().isPosix(ENODATA));
    EXPECT_TRUE(FileManager::setExtendedAttribute(at("missing").string(), "name", Data{1})
                    .error()
                    .isPosix(ENOENT));
}

TEST_F(FileManagerTest, TheUsersFoldersLieWhereTheStandardVariablesSay) {
    EXPECT_EQ(FileManager::preferencesFolder(), (home_.config() / "korvane-utilia").string());
    EXPECT_EQ(FileManager::containerURLForSecurityApplicationGroupIdentifier(
                  "7QK2M9ZD4R.com.korvane.utilia"),
              home_.groupContainer().string());
    EXPECT_EQ(FileManager::runtimeFolder(), (home_.runtime() / "com.korvane.utilia").string());
    EXPECT_EQ(*FileManager::findRuntimeFolder(), (home_.runtime() / "com.korvane.utilia").string());
    for (const fs::path& made : {home_.config() / "korvane-utilia", home_.groupContainer(),
                                 home_.runtime() / "com.korvane.utilia"}) {
        EXPECT_EQ(modeOf(made), 0700u);
    }
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(FileManager::preferencesFolder(), (home_.path() / ".config/korvane-utilia").string());
    setenv("XDG_CONFIG_HOME", "relative", 1);
    EXPECT_EQ(FileManager::preferencesFolder(), (home_.path() / ".config/korvane-utilia").string());
}

TEST_F(FileManagerTest, TheDesktopIsWhereTheUserPutIt) {
    EXPECT_EQ(FileManager::desktopDirectory(), (home_.path() / "Desktop").string());
    const fs::path configuration = home_.config() / "user-dirs.dirs";
    std::ofstream(configuration)
        << "# comment\nXDG_MUSIC_DIR=\"/m\"\nXDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n";
    EXPECT_EQ(FileManager::desktopDirectory(), (home_.path() / "Schreibtisch").string());
    std::ofstream(configuration) << "XDG_DESKTOP_DIR=\"/srv/desk/\"\n";
    EXPECT_EQ(FileManager::desktopDirectory(), "/srv/desk");
    std::ofstream(configuration) << "XDG_DESKTOP_DIR=\"relative\"\n";
    EXPECT_EQ(FileManager::desktopDirectory(), (home_.path() / "Desktop").string());
}

TEST_F(FileManagerTest, ARuntimeFolderThatOthersMayEnterIsNotUsed) {
    fs::create_directory(home_.runtime() / "com.korvane.utilia");
    fs::permissions(home_.runtime() / "com.korvane.utilia", fs::perms(0755));
    const std::string reason = (home_.runtime() / "com.korvane.utilia").string() +
                               ": other users may enter it (its mode must be 0700)";
    EXPECT_EQ(FileManager::findRuntimeFolder().error().description, reason);
    EXPECT_EQ(log_.lines(), std::vector<std::string>()) << "whoever asked so tells it";
    EXPECT_FALSE(FileManager::runtimeFolder());
    EXPECT_FALSE(FileManager::runtimeFolder());
    EXPECT_EQ(log_.lines(), std::vector<std::string>{reason});
}

TEST_F(FileManagerTest, AnotherUsersGroupContainerIsNotUsed) {
    constexpr const char* kGroup = "7QK2M9ZD4R.com.korvane.utilia";
    const fs::path container = home_.groupContainer();
    fs::create_directories(container);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(container.c_str(), kNobody, kNobody), 0);
    } else {
        fs::remove(container);  // only root can give a folder away; "/" is root's
        fs::create_directory_symlink("/", container);
    }
    EXPECT_FALSE(FileManager::containerURLForSecurityApplicationGroupIdentifier(kGroup));
    EXPECT_FALSE(FileManager::containerURLForSecurityApplicationGroupIdentifier(kGroup));
    EXPECT_EQ(log_.lines(),
              std::vector<std::string>{container.string() + ": belongs to another user"});
}

TEST_F(FileManagerTest, ListsWhatLiesInAFolderAndBelow) {
    fs::create_directories(at("folder/inner/innermost"));
    std::ofstream(at("folder/a"));
    std::ofstream(at("folder/inner/b"));
    fs::create_directory_symlink(home_.path(), at("folder/link"));
    ASSERT_EQ(mkfifo(at("folder/pipe").c_str(), 0600), 0);
    const auto listed = FileManager::subpathsOfDirectoryAtPath(at("folder").string());
    ASSERT_TRUE(listed);
    EXPECT_THAT(*listed, testing::UnorderedElementsAre("a", "inner", "inner/b", "inner/innermost",
                                                       "link", "pipe"));
}

TEST_F(FileManagerTest, ListsNoFolderThatIsNone) {
    std::ofstream(at("file"));
    EXPECT_EQ(FileManager::subpathsOfDirectoryAtPath(at("missing").string()).error().code,
              static_cast<int>(CocoaErrorCode::FileReadNoSuchFile));
    EXPECT_EQ(FileManager::subpathsOfDirectoryAtPath(at("file").string()).error().code,
              static_cast<int>(CocoaErrorCode::FileReadUnknown));
}

TEST_F(FileManagerTest, EndsItsListAtSixtyFourFoldersBelow) {
    std::string deep = at("folder").string();
    for (int depth = 0; depth < 70; ++depth) deep += "/d";
    fs::create_directories(deep);
    const auto listed = FileManager::subpathsOfDirectoryAtPath(at("folder").string());
    ASSERT_TRUE(listed);
    EXPECT_EQ(listed->size(), 65u);
}

TEST_F(FileManagerTest, AsksTheSystemWhatThisUserMayDo) {
    std::ofstream(at("program")) << "#!/bin/sh\n";
    EXPECT_TRUE(FileManager::fileExistsAtPath(at("program").string()));
    EXPECT_FALSE(FileManager::fileExistsAtPath(at("missing").string()));
    EXPECT_FALSE(FileManager::isExecutableFileAtPath(at("program").string()));
    fs::permissions(at("program"), fs::perms(0755));
    EXPECT_TRUE(FileManager::isExecutableFileAtPath(at("program").string()));
    EXPECT_TRUE(FileManager::isExecutableFileAtPath(home_.path().string()))
        << "a folder that can be searched";
    EXPECT_TRUE(FileManager::isWritableFileAtPath(at("program").string()));
    EXPECT_FALSE(FileManager::isWritableFileAtPath(at("missing").string()));
    fs::create_symlink("nowhere", at("dangling"));
    EXPECT_FALSE(FileManager::fileExistsAtPath(at("dangling").string()));
}

}  // namespace
}  // namespace utilia::platform
