#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

// The store on disks and in folders that are not in order. Never a crash; what was there before
// stays.

namespace utilia::platform {
namespace {

namespace fs = std::filesystem;
using test::ChildProcess;

constexpr std::string_view kDomain = "com.example.tool";
constexpr uid_t kNobody = 65534;

Dictionary records(int count) {
    Array all;
    for (int i = 0; i < count; ++i) {
        all.append(Dictionary{{"bundleid", "com.example.tool" + std::to_string(i)},
                              {"name", "Tool " + std::to_string(i)},
                              {"launchAtDate", i % 2 == 0},
                              {"date", Date{600000000.5 + i}},
                              {"interval", 0.5 * i}});
    }
    return {{"Scheduler", all}};
}

void writeFile(const fs::path& path, const Data& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

class StoreFileStates : public testing::Test {
protected:
    fs::path folder() const { return home_.config() / "korvane-utilia"; }
    fs::path file() const { return folder() / (std::string(kDomain) + ".plist"); }
    std::vector<fs::path> setAside() const {
        std::vector<fs::path> found;
        for (const auto& entry : fs::directory_iterator(folder())) {
            if (entry.path().filename().string().find(".plist.damaged-") != std::string::npos)
                found.push_back(entry.path());
        }
        return found;
    }

    const test::TemporaryHome home_{test::folderInMemory()};
    test::TestLog log_;
    const std::unique_ptr<UserDefaults> defaults_ = UserDefaults::initWithDomain(kDomain);
};

TEST_F(StoreFileStates, ADamagedFileIsSetAsideWithOneLineAndNeverOverwritten) {
    fs::create_directories(folder());
    writeFile(file(), {'j', 'u', 'n', 'k'});
    EXPECT_FALSE(defaults_->objectForKey("key"));
    ASSERT_EQ(setAside().size(), 1u);
    EXPECT_EQ(log_.lines(),
              std::vector<std::string>{
                  "The preferences do not parse (" + file().string() +
                  ": XML property list: line 1: no plist element); they were set aside as " +
                  setAside()[0].string() + ", and the domain begins empty"});
    EXPECT_EQ(FileManager::contentsAtPath(setAside()[0].string(), 10).value_or(Data()),
              (Data{'j', 'u', 'n', 'k'}));
    defaults_->setObject(1, "key");
    EXPECT_EQ(defaults_->integerForKey("key"), 1);
    EXPECT_EQ(log_.lines().size(), 1u);
}

TEST_F(StoreFileStates, AWriterThatFindsADamagedFileGoesOnFromItsBackup) {
    defaults_->setObject("kept", "key");
    defaults_->setObject(2, "other");  // its backup holds the key alone
    writeFile(file(), Data(100, 0));
    UserDefaults::initWithDomain(kDomain)->setObject(3, "third");
    EXPECT_TRUE(defaults_->dictionaryRepresentation() ==
                (Dictionary{{"key", "kept"}, {"third", 3}}));
    ASSERT_EQ(log_.lines().size(), 1u);
    EXPECT_TRUE(log_.lines()[0].ends_with(", and the backup is used")) << log_.lines()[0];
}

TEST_F(StoreFileStates, OfTheDamagedFilesTheLastThreeAreKept) {
    fs::create_directories(folder());
    for (std::uint8_t i = 0; i < 6; ++i) {
        writeFile(file(), {i});
        EXPECT_TRUE(defaults_->dictionaryRepresentation().empty());
    }
    std::vector<std::uint8_t> kept;
    for (const fs::path& path : setAside())
        kept.push_back(FileManager::contentsAtPath(path.string(), 10).value()[0]);
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(kept, (std::vector<std::uint8_t>{3, 4, 5}));
}

TEST_F(StoreFileStates, EachCutOfAStoreIsSetAsideAndItsBackupUsed) {
    defaults_->setObject("kept", "key");
    const auto whole = dataFromPropertyList(records(8), PropertyListFormat::Binary);
    ASSERT_TRUE(whole);
    const fs::path backup = file().string() + ".bak";
    fs::copy_file(file(), backup);
    for (std::size_t length = 0; length < whole->size(); ++length) {
        fs::remove(file());
        writeFile(file(),
                  Data(whole->begin(), whole->begin() + static_cast<std::ptrdiff_t>(length)));
        log_.clear();
        ASSERT_EQ(defaults_->stringForKey("key"), "kept") << "cut at " << length;
        ASSERT_EQ(log_.lines().size(), 1u);
        ASSERT_LE(setAside().size(), 3u);
    }
}

TEST_F(StoreFileStates, EachFlippedByteIsReadOrSetAside) {
    const auto whole = dataFromPropertyList(records(5), PropertyListFormat::Binary);
    ASSERT_TRUE(whole);
    fs::create_directories(folder());
    std::size_t damaged = 0;
    for (std::size_t at = 0; at < whole->size(); ++at) {
        Data flipped = *whole;
        flipped[at] = static_cast<std::uint8_t>(~flipped[at]);
        fs::remove(file());
        writeFile(file(), flipped);
        log_.clear();
        const bool isRead = !defaults_->dictionaryRepresentation().empty();
        ASSERT_EQ(log_.lines().size(), isRead ? 0u : 1u) << "byte " << at;
        damaged += !isRead;
    }
    EXPECT_GT(damaged, 0u);
    EXPECT_LT(damaged, whole->size());
}

TEST_F(StoreFileStates, AFileOfFourGibibytesIsSetAsideUnread) {
    fs::create_directories(folder());
    std::ofstream(file()).close();
    ASSERT_EQ(truncate(file().c_str(), off_t{4} << 30), 0);
    defaults_->setObject(1, "key");
    EXPECT_EQ(defaults_->integerForKey("key"), 1);
    ASSERT_EQ(setAside().size(), 1u);
    EXPECT_EQ(fs::file_size(setAside()[0]), std::uintmax_t{4} << 30);
}

TEST_F(StoreFileStates, WhatIsNoRegularFileIsNeitherReadNorReplaced) {
    fs::create_directories(folder());
    const fs::path canary = home_.path() / "canary";
    std::ofstream(canary) << "canary";
    const std::pair<const char*, std::function<void()>> states[] = {
        {"Is a directory", [&] { fs::create_directory(file()); }},
        {"Permission denied", [&] { ASSERT_EQ(mkfifo(file().c_str(), 0600), 0); }},
        {"Permission denied",
         [&] {
             const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
             sockaddr_un address{};
             address.sun_family = AF_UNIX;
             file().string().copy(address.sun_path, sizeof address.sun_path - 1);
             ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address),
                       0);
             close(listener);
         }},
        {"Too many levels of symbolic links", [&] { fs::create_symlink(canary, file()); }},
        {"Too many levels of symbolic links", [&] { fs::create_symlink("nowhere", file()); }},
    };
    for (const auto& [reason, make] : states) {
        make();
        const fs::file_type type = fs::symlink_status(file()).type();
        log_.clear();
        auto own = UserDefaults::initWithDomain(kDomain);
        EXPECT_FALSE(own->objectForKey("key"));
        EXPECT_FALSE(own->objectForKey("other"));
        EXPECT_EQ(log_.count(reason), 1u) << "one line for any number of reads";
        own->setObject(1, "key");
        EXPECT_FALSE(own->synchronize());
        EXPECT_EQ(log_.count("is not written"), 1u) << "made without having seen the stored one";
        own->setObject(2, "key");
        EXPECT_FALSE(own->synchronize());
        EXPECT_EQ(log_.count("could not be written"), 1u);
        EXPECT_EQ(fs::symlink_status(file()).type(), type);
        EXPECT_TRUE(setAside().empty());
        own.reset();  // tries once more
        fs::remove(file());
        // All is well in between, so that the next problem is a new one.
        defaults_->setObject("fine", "key");
        EXPECT_EQ(defaults_->stringForKey("key"), "fine");
        fs::remove(file());
    }
    EXPECT_EQ(FileManager::contentsAtPath(canary.string(), 10).value_or(Data()).size(), 6u);
    EXPECT_FALSE(fs::exists(folder() / "nowhere"));
}

TEST_F(StoreFileStates, LinksInThePlaceOfItsOtherFilesLeadNowhere) {
    const fs::path canary = home_.path() / "canary";
    for (const char* suffix : {".new", ".bak", ".lock", ""}) {
        for (const bool isHard : {true, false}) {
            SCOPED_TRACE(std::string(suffix) + (isHard ? " hard" : " symbolic"));
            fs::remove_all(folder());
            fs::create_directories(folder());
            fs::remove(canary);
            std::ofstream(canary) << "<plist><dict/></plist>";
            const fs::path place = file().string() + suffix;
            if (isHard) {
                fs::create_hard_link(canary, place);
            } else {
                fs::create_symlink(canary, place);
            }
            for (int i = 0; i < 3; ++i) UserDefaults::initWithDomain(kDomain)->setObject(i, "key");
            EXPECT_EQ(FileManager::contentsAtPath(canary.string(), 100).value_or(Data()).size(),
                      22u);
        }
    }
}

TEST_F(StoreFileStates, ALeftOverUnfinishedFileIsReplaced) {
    defaults_->setObject(1, "key");
    std::ofstream(file().string() + ".new") << "half";
    defaults_->setObject(2, "key");
    EXPECT_EQ(defaults_->integerForKey("key"), 2);
    EXPECT_FALSE(fs::exists(file().string() + ".new"));
    EXPECT_TRUE(log_.lines().empty());
}

// A limit on the size of files cuts a write as a full disk does, and needs no privileges.
UTILIA_CHILD_ROLE(writeUnderASizeLimit) {
    signal(SIGXFSZ, SIG_IGN);
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    const test::TestLog log;
    bool hasFailed = false;
    bool hasSucceeded = false;
    for (rlim_t limit = 0; limit < 2000; limit += 50) {
        const rlimit size{limit, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &size);
        const auto before = UserDefaults::initWithDomain(kDomain)->dictionaryRepresentation();
        defaults->setObject(std::string(1500, 'x') + std::to_string(limit), "text");
        const bool isWritten = defaults->synchronize();
        const auto after = UserDefaults::initWithDomain(kDomain)->dictionaryRepresentation();
        if (isWritten == (after == before)) return self.say("at " + std::to_string(limit)), 1;
        (isWritten ? hasSucceeded : hasFailed) = true;
        if (fs::exists(defaults->path() + ".new"))
            return self.say("left over at " + std::to_string(limit)), 1;
    }
    if (!hasFailed || !hasSucceeded) return self.say("the limit never mattered, or always"), 1;
    // The reason was the same all the time.
    if (log.count("File too large") != 1 || log.lines().size() != 1)
        return self.say("not one line"), 1;
    return 0;
}

TEST_F(StoreFileStates, AWriteThatIsCutLeavesTheEarlierStore) {
    defaults_->setObject("kept", "key");
    auto child = ChildProcess::role("writeUnderASizeLimit");
    EXPECT_EQ(child.waitForExit(), 0) << child.waitForLine().value_or("");
    EXPECT_EQ(defaults_->stringForKey("key"), "kept");
}

// In a mount namespace of its own: a memory file system of one mebibyte, filled up to `free` pages.
UTILIA_CHILD_ROLE(writeOnAFullDisk) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return self.say("unshare"), 2;
    const fs::path config = std::getenv("XDG_CONFIG_HOME");
    if (mount("none", config.c_str(), "tmpfs", 0, "size=1m,mode=0700") != 0)
        return self.say("mount"), 2;
    const test::TestLog log;
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    defaults->setObject("kept", "key");
    bool hasFailed = false;
    bool hasSucceeded = false;
    for (std::size_t pages = 0; pages <= 64; ++pages) {
        const fs::path filler = config / "filler";
        fs::remove(filler);
        struct statfs status {};
        statfs(config.c_str(), &status);
        writeFile(filler, Data((status.f_bavail - std::min<std::size_t>(pages, status.f_bavail)) *
                               static_cast<std::size_t>(status.f_bsize)));
        const Data large(static_cast<std::size_t>(20 + pages % 2) * 4096, 7);
        defaults->setObject(large, "large");
        const bool isWritten = defaults->synchronize();
        (isWritten ? hasSucceeded : hasFailed) = true;
        const auto reader = UserDefaults::initWithDomain(kDomain);
        if (reader->stringForKey("key") != "kept")
            return self.say("lost at " + std::to_string(pages)), 1;
        if (isWritten && reader->dataForKey("large") != large)
            return self.say("not written at " + std::to_string(pages)), 1;
        if (fs::exists(defaults->path() + ".new"))
            return self.say("left over at " + std::to_string(pages)), 1;
    }
    if (!hasFailed || !hasSucceeded) return self.say("the disk was never full, or always"), 1;
    if (log.count("No space left on device") != 1 || log.lines().size() != 1)
        return self.say("not one line"), 1;
    return 0;
}

// Writes and reads in a folder that lets it do only one of them, or neither.
UTILIA_CHILD_ROLE(useALockedFolder) {
    const test::TestLog log;
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    const bool canRead = self.arguments[0] == "readable";
    if ((defaults->stringForKey("key") == "kept") != canRead) return self.say("reads wrongly"), 1;
    for (int i = 0; i < 3; ++i) defaults->setObject(i, "number");
    if (defaults->synchronize()) return self.say("claims to have written"), 1;
    if (log.count("could not be written") != 1) return self.say("not one line for the writes"), 1;
    if (log.lines().size() != (canRead ? 1u : 2u)) return self.say("not one line for the reads"), 1;
    return 0;
}

// Damage that nobody can repair, because the folder takes no change.
UTILIA_CHILD_ROLE(readADamagedFileInALockedFolder) {
    const test::TestLog log;
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    for (int i = 0; i < 5; ++i) {
        if (defaults->stringForKey("key") != "kept") return self.say("the backup is not used"), 1;
    }
    if (log.lines().size() != 1 || log.count("could not be set aside") != 1)
        return self.say("not one line"), 1;
    defaults->setObject(1, "number");
    return defaults->synchronize() ? 1 : 0;
}

// With the tests' own rights where those are not above all permissions, else as another user.
class StoreFileStatesUnprivileged : public StoreFileStates {
protected:
    ChildProcess unprivileged(const char* role, std::vector<std::string> arguments = {}) {
        test::ChildProcessOptions options;
        if (geteuid() == 0) {
            options.user = kNobody;
            for (const auto& entry : fs::recursive_directory_iterator(home_.path())) {
                EXPECT_EQ(lchown(entry.path().c_str(), kNobody, kNobody), 0);
            }
            EXPECT_EQ(chown(home_.path().c_str(), kNobody, kNobody), 0);
            options.program = test::ownProgramPath();
            options.environment = {{"HOME", home_.path()}};
        }
        return ChildProcess::role(role, std::move(arguments), std::move(options));
    }
};

TEST_F(StoreFileStatesUnprivileged, AReadOnlyFolderIsReadAndNotWritten) {
    defaults_->setObject("kept", "key");
    fs::remove(file().string() + ".lock");
    fs::permissions(folder(), fs::perms(0500));
    auto child = unprivileged("useALockedFolder", {"readable"});
    EXPECT_EQ(child.waitForExit(), 0) << child.waitForLine().value_or("");
    fs::permissions(folder(), fs::perms(0700));
    EXPECT_TRUE(UserDefaults::initWithDomain(kDomain)->dictionaryRepresentation() ==
                (Dictionary{{"key", "kept"}}));
}

TEST_F(StoreFileStatesUnprivileged, AFolderThatMayNotBeEnteredReadsAsEmptyAndIsLeftAlone) {
    defaults_->setObject("kept", "key");
    fs::permissions(folder(), fs::perms::none);
    auto child = unprivileged("useALockedFolder", {"closed"});
    EXPECT_EQ(child.waitForExit(), 0) << child.waitForLine().value_or("");
    fs::permissions(folder(), fs::perms(0700));
    EXPECT_TRUE(UserDefaults::initWithDomain(kDomain)->dictionaryRepresentation() ==
                (Dictionary{{"key", "kept"}}));
}

TEST_F(StoreFileStatesUnprivileged, DamageThatCannotBeRepairedIsReadFromTheBackupWithOneLine) {
    defaults_->setObject("kept", "key");
    defaults_->setObject(1, "number");
    writeFile(file(), {'j', 'u', 'n', 'k'});
    fs::permissions(folder(), fs::perms(0500));
    auto child = unprivileged("readADamagedFileInALockedFolder");
    EXPECT_EQ(child.waitForExit(), 0) << child.waitForLine().value_or("");
    fs::permissions(folder(), fs::perms(0700));
    EXPECT_EQ(FileManager::contentsAtPath(file().string(), 10).value_or(Data()),
              (Data{'j', 'u', 'n', 'k'}));
}

TEST_F(StoreFileStates, AFullDiskLeavesTheEarlierStore) {
    if (geteuid() != 0) {
        // Without the right to mount, a refused quota is the nearest to a full disk.
        defaults_->setObject("kept", "key");
        const test::ArmedFault full({.call = kUtiliaFaultWrite, .error = EDQUOT}, 1,
                                    test::FaultRepetition::ForEver);
        defaults_->setObject("new", "key");
        EXPECT_FALSE(defaults_->synchronize());
        EXPECT_EQ(UserDefaults::initWithDomain(kDomain)->stringForKey("key"), "kept");
        return;
    }
    auto child = ChildProcess::role("writeOnAFullDisk");
    EXPECT_EQ(child.waitForExit(std::chrono::seconds(60)), 0) << child.waitForLine().value_or("");
}

}  // namespace
}  // namespace utilia::platform
