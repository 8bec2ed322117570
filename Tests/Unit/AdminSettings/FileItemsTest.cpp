// The file functions of FileManager that answer with the original platform's error codes.

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Common/Platform/FileManager.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::platform {
namespace {

namespace fs = std::filesystem;

using test::PrivateMounts;

constexpr uid_t kNobody = 65534;

Data bytesOf(std::string_view text) { return Data(text.begin(), text.end()); }

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void put(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }

struct stat statusOf(const fs::path& path) {
    struct stat found {};
    EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
    return found;
}

unsigned modeOf(const fs::path& path) { return statusOf(path).st_mode & 07777; }

// The code of a failure in the domain of file errors; 0 for success.
template <class T>
int codeOf(const Result<T>& result) {
    if (result) return 0;
    EXPECT_EQ(result.error().domain, kCocoaErrorDomain);
    EXPECT_NE(result.error().underlyingPosixCode, 0);
    return result.error().code;
}

class FileItems : public testing::Test {
protected:
    FileItems() {
        fs::permissions(folder_.path(), fs::perms(0755));
        umask(022);
    }

    fs::path at(const std::string& name) const { return folder_.path() / name; }
    int write(const fs::path& path, std::string_view text) {
        return codeOf(FileManager::writeInPlace(path.string(), bytesOf(text)));
    }

    const test::TemporaryFolder folder_;
};

TEST_F(FileItems, WritesANewFileWithTheUsualMode) {
    EXPECT_EQ(write(at("new"), "text"), 0);
    EXPECT_EQ(contentOf(at("new")), "text");
    EXPECT_EQ(modeOf(at("new")), 0644u);
}

TEST_F(FileItems, WritesAnExistingFileInPlace) {
    put(at("file"), "a longer text");
    fs::permissions(at("file"), fs::perms(0600));
    fs::create_hard_link(at("file"), at("other name"));
    const ino_t before = statusOf(at("file")).st_ino;
    EXPECT_EQ(write(at("file"), "short"), 0);
    EXPECT_EQ(contentOf(at("other name")), "short");
    EXPECT_EQ(statusOf(at("file")).st_ino, before);
    EXPECT_EQ(modeOf(at("file")), 0600u);
}

TEST_F(FileItems, NeverWritesThroughALink) {
    put(at("victim"), "kept");
    fs::create_symlink(at("victim"), at("link"));
    fs::create_symlink(at("nowhere"), at("dangling"));
    EXPECT_EQ(write(at("link"), "text"), 512);
    EXPECT_EQ(write(at("dangling"), "text"), 512);
    EXPECT_EQ(contentOf(at("victim")), "kept");
    EXPECT_FALSE(fs::exists(at("nowhere")));
}

TEST_F(FileItems, RefusesToWriteWhatIsNoFileAndNeverWaits) {
    ASSERT_EQ(mkfifo(at("pipe").c_str(), 0666), 0);
    EXPECT_EQ(write(at("pipe"), "text"), 513);
    const int reader = open(at("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(write(at("pipe"), "text"), 513) << "somebody reads it";
    close(reader);
    EXPECT_EQ(write("/dev/null", "text"), 513);
    EXPECT_EQ(write(folder_.path(), "text"), 512);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    at("socket").string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(write(at("socket"), "text"), 513);
    close(listener);
}

TEST_F(FileItems, SavesThroughLinksAndInPlace) {
    const auto save = [](const fs::path& path, std::string_view text) {
        return codeOf(FileManager::writeToFile(path.string(), bytesOf(text)));
    };
    EXPECT_EQ(save(at("new"), "text"), 0);
    EXPECT_EQ(modeOf(at("new")), 0644u);
    fs::permissions(at("new"), fs::perms(0600));
    const ino_t before = statusOf(at("new")).st_ino;
    fs::create_symlink("new", at("link"));
    EXPECT_EQ(save(at("link"), "s"), 0);
    EXPECT_EQ(contentOf(at("new")), "s");
    EXPECT_EQ(statusOf(at("new")).st_ino, before);
    EXPECT_EQ(modeOf(at("new")), 0600u);
    fs::create_symlink("nowhere", at("dangling"));
    EXPECT_EQ(save(at("dangling"), "made"), 0);
    EXPECT_EQ(contentOf(at("nowhere")), "made");
    fs::create_symlink("loop", at("loop"));
    EXPECT_EQ(save(at("loop"), "text"), 512);
    EXPECT_EQ(save(folder_.path(), "text"), 512);
    EXPECT_EQ(save("/dev/null", "text"), 513);
    ASSERT_EQ(mkfifo(at("pipe").c_str(), 0666), 0);
    EXPECT_EQ(save(at("pipe"), "text"), 513);
    EXPECT_EQ(save(at("missing/file"), "text"), 4);
}

TEST_F(FileItems, RemovesWhatItCouldNotSaveUnlessItWasThere) {
    const test::Fault full{.call = kUtiliaFaultWrite, .error = ENOSPC};
    const auto save = [&](const std::string& name) {
        const std::string path = at(name).string();
        const Data text = bytesOf("a text");
        const test::ArmedFault fault(full, 1);
        return FileManager::writeToFile(path, text).has_value();
    };
    fs::create_symlink("target", at("dangling"));
    put(at("there"), "before");
    EXPECT_FALSE(save("new"));
    EXPECT_FALSE(save("dangling"));
    EXPECT_FALSE(save("there"));
    EXPECT_FALSE(fs::exists(at("new")));
    EXPECT_FALSE(fs::exists(at("target")));
    EXPECT_TRUE(fs::is_symlink(at("dangling")));
    EXPECT_TRUE(fs::exists(at("there")));
}

TEST_F(FileItems, SaysWhyAFileCannotBeWritten) {
    put(at("file"), "");
    EXPECT_EQ(write(at("missing/file"), "text"), 4);
    EXPECT_EQ(write(at("file/below"), "text"), 512);
    EXPECT_EQ(write(at(std::string(300, 'x')), "text"), 514);
    const auto refused = FileManager::writeInPlace(at("missing/file").string(), bytesOf("text"));
    EXPECT_EQ(refused.error().text(), "Error Domain=NSCocoaErrorDomain Code=4 \"open " +
                                          at("missing/file").string() +
                                          ": No such file or directory\"");
}

TEST_F(FileItems, SaysWhyAFileCannotBeRead) {
    const auto read = [](const fs::path& path) {
        return codeOf(FileManager::dataWithContentsOfFile(path.string(), 4));
    };
    put(at("four"), "1234");
    put(at("five"), "12345");
    fs::create_symlink(at("four"), at("link"));
    ASSERT_EQ(mkfifo(at("pipe").c_str(), 0666), 0);
    EXPECT_EQ(read(at("four")), 0);
    EXPECT_EQ(read(at("link")), 0);
    EXPECT_EQ(read(at("five")), 263);
    EXPECT_EQ(read(at("missing")), 260);
    EXPECT_EQ(read(at("four/below")), 256);
    EXPECT_EQ(read(folder_.path()), 256);
    EXPECT_EQ(read(at("pipe")), 257);
    EXPECT_EQ(read("/dev/null"), 257);
    EXPECT_EQ(read(at(std::string(300, 'x'))), 258);
    EXPECT_EQ(FileManager::dataWithContentsOfFile("", 4).error().code, 258);
}

TEST_F(FileItems, GivesItsAttributesToEveryNewFolder) {
    const FileAttributes attributes{.ownerAccountId = 0, .posixPermissions = 0775};
    fs::create_directory(at("old"));
    fs::permissions(at("old"), fs::perms(0700));
    EXPECT_EQ(codeOf(FileManager::createDirectoryAtPath(at("old/a/b").string(), attributes)), 0);
    EXPECT_EQ(modeOf(at("old/a")), 0775u);
    EXPECT_EQ(modeOf(at("old/a/b")), 0775u);
    EXPECT_EQ(modeOf(at("old")), 0700u);
    EXPECT_EQ(codeOf(FileManager::createDirectoryAtPath(at("old").string(), attributes)), 0);
    EXPECT_EQ(modeOf(at("old")), 0700u) << "what exists is left as it is";
}

TEST_F(FileItems, SaysWhyAFolderCannotBeMade) {
    put(at("file"), "");
    EXPECT_EQ(codeOf(FileManager::createDirectoryAtPath(at("file").string(), FileAttributes{})),
              516);
    EXPECT_EQ(codeOf(FileManager::createDirectoryAtPath(at("file/a").string(), FileAttributes{})),
              512);
}

TEST_F(FileItems, GivesAttributesToAFile) {
    put(at("file"), "");
    EXPECT_EQ(codeOf(FileManager::setAttributes({.posixPermissions = 0664}, at("file").string())),
              0);
    EXPECT_EQ(modeOf(at("file")), 0664u);
    EXPECT_EQ(codeOf(FileManager::setAttributes({}, at("file").string())), 0);
    EXPECT_EQ(codeOf(FileManager::setAttributes({.posixPermissions = 0664}, at("no").string())), 4);
    put(at("victim"), "");
    fs::permissions(at("victim"), fs::perms(0600));
    fs::create_symlink(at("victim"), at("link"));
    EXPECT_EQ(codeOf(FileManager::setAttributes({.posixPermissions = 0666}, at("link").string())),
              512);
    EXPECT_EQ(modeOf(at("victim")), 0600u);
}

TEST_F(FileItems, AGroupThatDoesNotExistIsLeftOutAndAnIdWins) {
    const PrivateMounts mounts;
    mounts.replaceGroups("root:x:0:\nwheel:x:4711:\n");
    put(at("file"), "");
    const std::string file = at("file").string();
    EXPECT_TRUE(mounts.run([&] {
        EXPECT_EQ(FileManager::idOfGroup("wheel"), 4711u);
        EXPECT_EQ(FileManager::idOfGroup("nonesuch"), std::nullopt);
        EXPECT_EQ(codeOf(FileManager::setAttributes({.groupOwnerAccountName = "wheel"}, file)), 0);
        EXPECT_EQ(statusOf(file).st_gid, 4711u);
        EXPECT_EQ(codeOf(FileManager::setAttributes(
                      {.groupOwnerAccountName = "nonesuch", .posixPermissions = 0640}, file)),
                  0);
        EXPECT_EQ(statusOf(file).st_gid, 4711u);
        EXPECT_EQ(modeOf(file), 0640u);
        EXPECT_EQ(codeOf(FileManager::setAttributes(
                      {.groupOwnerAccountId = 4712, .groupOwnerAccountName = "wheel"}, file)),
                  0);
        EXPECT_EQ(statusOf(file).st_gid, 4712u);
    }));
}

TEST_F(FileItems, TheAdministratorsGroupIsTheFirstOfThreeThatExists) {
    const PrivateMounts mounts;
    const auto groupIs = [&](const std::string& groups, std::optional<std::string> expected) {
        mounts.replaceGroups(groups);
        return mounts.run([&] { EXPECT_EQ(FileManager::administratorsGroup(), expected); });
    };
    EXPECT_TRUE(groupIs("wheel:x:3:\nsudo:x:2:\nadmin:x:1:\n", "admin"));
    EXPECT_TRUE(groupIs("wheel:x:3:\nsudo:x:2:\n", "sudo"));
    EXPECT_TRUE(groupIs("wheel:x:3:\nadministrators:x:1:\n", "wheel"));
    EXPECT_TRUE(groupIs("root:x:0:\n", std::nullopt));
}

TEST_F(FileItems, WhoMayNotGiveAFileAwayIsTold) {
    const PrivateMounts mounts;
    fs::create_directory(at("mine"));
    ASSERT_EQ(chown(at("mine").c_str(), kNobody, kNobody), 0);
    put(at("theirs"), "");
    EXPECT_TRUE(mounts.run(
        [&] {
            put(at("mine/file"), "");
            const std::string mine = at("mine/file").string();
            EXPECT_EQ(codeOf(FileManager::setAttributes({.groupOwnerAccountId = 0}, mine)), 513);
            EXPECT_EQ(codeOf(FileManager::setAttributes({.posixPermissions = 0666},
                                                        at("theirs").string())),
                      513);
            // For a new folder it is no failure.
            const FileAttributes roots{.ownerAccountId = 0, .posixPermissions = 0775};
            EXPECT_EQ(codeOf(FileManager::createDirectoryAtPath(at("mine/a").string(), roots)), 0);
            EXPECT_EQ(statusOf(at("mine/a")).st_uid, kNobody);
            EXPECT_EQ(modeOf(at("mine/a")), 0775u);
            EXPECT_EQ(codeOf(FileManager::dataWithContentsOfFile("/proc/1/mem", 4)), 257);
            EXPECT_EQ(write(at("theirs"), "text"), 513);
        },
        kNobody));
}

TEST_F(FileItems, AModeWithoutOwnerWriteComesAfterTheOwner) {
    using test::ArmedFault;
    put(at("file"), "");
    fs::permissions(at("file"), fs::perms(0600));
    const ArmedFault noOwner({.call = kUtiliaFaultOwner, .error = EPERM}, 1,
                             test::FaultRepetition::ForEver);
    const std::string file = at("file").string();
    EXPECT_EQ(
        codeOf(FileManager::setAttributes({.ownerAccountId = 1, .posixPermissions = 0444}, file)),
        513);
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(
        codeOf(FileManager::setAttributes({.ownerAccountId = 1, .posixPermissions = 0644}, file)),
        513);
    EXPECT_EQ(modeOf(file), 0644u);
}

TEST_F(FileItems, MovesWithoutReplacing) {
    put(at("a"), "a");
    put(at("b"), "b");
    const auto move = [&](const char* from, const char* to) {
        return codeOf(FileManager::moveItemAtPath(at(from).string(), at(to).string()));
    };
    EXPECT_EQ(move("a", "b"), 516);
    EXPECT_EQ(contentOf(at("a")) + contentOf(at("b")), "ab");
    EXPECT_EQ(move("missing", "c"), 4);
    EXPECT_EQ(move("a", "missing/c"), 4);
    EXPECT_EQ(move("a", "c"), 0);
    EXPECT_EQ(contentOf(at("c")), "a");
    EXPECT_FALSE(fs::exists(at("a")));
}

TEST_F(FileItems, MovesWithoutReplacingWhereTheFileSystemCannotDoItInOneStep) {
    put(at("a"), "a");
    put(at("b"), "b");
    const auto move = [&](const char* from, const char* to) {
        const test::ArmedFault fault({.call = kUtiliaFaultRename, .error = EINVAL});
        return codeOf(FileManager::moveItemAtPath(at(from).string(), at(to).string()));
    };
    EXPECT_EQ(move("a", "b"), 516);
    EXPECT_EQ(move("a", "c"), 0);
    EXPECT_EQ(contentOf(at("c")), "a");
}

TEST_F(FileItems, TellsWhatAnItemIs) {
    put(at("file"), "12345");
    fs::permissions(at("file"), fs::perms(0640));
    fs::create_symlink(at("nowhere"), at("link"));
    ASSERT_EQ(mkfifo(at("pipe").c_str(), 0666), 0);
    const auto file = FileManager::attributesOfItemAtPath(at("file").string());
    ASSERT_TRUE(file);
    EXPECT_EQ(file->type, ItemStatus::Type::RegularFile);
    EXPECT_EQ(file->size, 5u);
    EXPECT_EQ(file->posixPermissions, 0640u);
    EXPECT_EQ(file->ownerAccountId, geteuid());
    EXPECT_EQ(FileManager::attributesOfItemAtPath(at("link").string())->type,
              ItemStatus::Type::SymbolicLink);
    EXPECT_EQ(FileManager::attributesOfItemAtPath(at("pipe").string())->type,
              ItemStatus::Type::Other);
    EXPECT_EQ(FileManager::attributesOfItemAtPath(folder_.path().string())->type,
              ItemStatus::Type::Directory);
    EXPECT_EQ(codeOf(FileManager::attributesOfItemAtPath(at("missing").string())), 260);
}

TEST_F(FileItems, AFullDiskLeavesACutFileAndSaysSo) {
    PrivateMounts mounts;
    mounts.writeSettings("");
    mounts.limitSpace(mounts.settingsFolder().string(), 4096);
    const std::string file = mounts.settingsFile().string();
    EXPECT_TRUE(mounts.run([&] {
        EXPECT_EQ(write(file, std::string(10'000, 'x')), 640);
        EXPECT_LT(fs::file_size(file), 10'000u);
        EXPECT_EQ(write(file, "short"), 0);
        EXPECT_EQ(contentOf(file), "short");
    }));
}

TEST_F(FileItems, AReadOnlyFileSystemSaysSo) {
    PrivateMounts mounts;
    mounts.writeSettings("{}");
    mounts.makeReadOnly(mounts.settingsFolder().string());
    const std::string folder = mounts.settingsFolder().string();
    EXPECT_TRUE(mounts.run([&] {
        EXPECT_EQ(write(folder + "/settings.conf", "x"), 642);
        EXPECT_EQ(write(folder + "/new", "x"), 642);
        EXPECT_EQ(codeOf(FileManager::moveItemAtPath(folder + "/settings.conf", folder + "/b")),
                  642);
        EXPECT_EQ(codeOf(FileManager::createDirectoryAtPath(folder + "/sub", FileAttributes{})),
                  642);
        EXPECT_EQ(codeOf(FileManager::setAttributes({.posixPermissions = 0600},
                                                    folder + "/settings.conf")),
                  642);
        EXPECT_EQ(contentOf(folder + "/settings.conf"), "{}");
    }));
}

TEST_F(FileItems, EveryFailingCallIsAnErrorAndLeavesNoDescriptor) {
    constexpr std::array kOwnership{test::Fault{.call = kUtiliaFaultMode, .error = EPERM},
                                    test::Fault{.call = kUtiliaFaultOwner, .error = EPERM}};
    std::vector<test::Fault> table(test::storageFaults().begin(), test::storageFaults().end());
    table.insert(table.end(), test::memoryFaults().begin(), test::memoryFaults().end());
    table.insert(table.end(), kOwnership.begin(), kOwnership.end());
    const std::string folder = at("folder").string();
    const std::string file = at("folder/file").string();
    const std::string moved = at("folder/moved").string();
    const Data text = bytesOf("a text");
    bool done = false;
    const std::size_t runs = test::forEachFault(
        table, [&] { fs::remove_all(at("folder")); },
        [&] {
            done = FileManager::createDirectoryAtPath(folder, {.posixPermissions = 0755}) &&
                   FileManager::writeInPlace(file, text) &&
                   FileManager::setAttributes(
                       {.ownerAccountId = geteuid(), .posixPermissions = 0600}, file) &&
                   FileManager::dataWithContentsOfFile(file, 100) &&
                   FileManager::attributesOfItemAtPath(file) &&
                   FileManager::moveItemAtPath(file, moved);
        },
        [&](const test::FaultRun& run) {
            // Nothing stands in for the file's attributes; a new folder gets its own, the first ones,
            // as far as they can be given. Of other calls one may be tried again.
            const bool isForEver = run.repetition == test::FaultRepetition::ForEver;
            const int call = run.fault.call;
            if (call == kUtiliaFaultOwner ||
                (call == kUtiliaFaultMode && (isForEver || run.ordinal > 1)) ||
                (isForEver && (call == kUtiliaFaultRename || call == kUtiliaFaultMkdir))) {
                EXPECT_FALSE(done);
            }
            if (!done) return;
            EXPECT_EQ(contentOf(moved), "a text");
        });
    EXPECT_GT(runs, 20u);
}

}  // namespace
}  // namespace utilia::platform
