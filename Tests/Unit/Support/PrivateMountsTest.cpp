#include "Tests/Support/PrivateMounts.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include <grp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// "written", or why not.
std::string writeAnswer(const std::string& path, std::size_t bytes) {
    errno = 0;
    std::ofstream file(path, std::ios::binary);
    file << std::string(bytes, 'x') << std::flush;
    return file ? "written" : std::strerror(errno);
}

UTILIA_CHILD_ROLE(lookInside) {
    const std::string& file = self.arguments[0];
    self.say(contentOf(file));
    self.say(writeAnswer(file + ".new", 8192));
    self.say(getgrnam("admin") ? "admin" : "no admin");
    self.say(std::to_string(geteuid()));
    return 0;
}

constexpr const char* kSettings = "/etc/com.korvane.utilia/settings.conf";

TEST(PrivateMounts, AChildSeesAndChangesTheTestsFolderAndNotTheMachines) {
    const PrivateMounts mounts;
    mounts.writeSettings("{}");
    mounts.replaceGroups("root:x:0:\nadmin:x:4711:\n");
    auto child = ChildProcess::role("lookInside", {kSettings}, {.mounts = &mounts});
    EXPECT_EQ(child.waitForLine(), "{}");
    EXPECT_EQ(child.waitForLine(), "written");
    EXPECT_EQ(child.waitForLine(), "admin");
    EXPECT_EQ(child.waitForExit(), 0);
    EXPECT_EQ(contentOf(mounts.settingsFolder() / "settings.conf.new").size(), 8192u);
    EXPECT_FALSE(fs::exists(std::string(kSettings) + ".new"));
}

TEST(PrivateMounts, EntriesOfTheRealFolderCannotBeWritten) {
    const PrivateMounts mounts;
    const auto isFolder = [](const fs::directory_entry& entry) {
        return entry.is_directory() && !entry.is_symlink();
    };
    std::string folder;
    for (const auto& entry : fs::directory_iterator("/etc"))
        if (isFolder(entry)) folder = entry.path().string();
    ASSERT_NE(folder, "");
    auto child = ChildProcess::role("lookInside", {folder + "/utilia-test"}, {.mounts = &mounts});
    child.waitForLine();
    EXPECT_EQ(child.waitForLine(), "Read-only file system");
}

TEST(PrivateMounts, AFolderCanBeFullOrReadOnly) {
    PrivateMounts full;
    full.writeSettings("{}");
    full.limitSpace("/etc/com.korvane.utilia", 4096);
    auto filler = ChildProcess::role("lookInside", {kSettings}, {.mounts = &full});
    EXPECT_EQ(filler.waitForLine(), "");
    EXPECT_EQ(filler.waitForLine(), "No space left on device");

    PrivateMounts readOnly;
    readOnly.writeSettings("{}");
    readOnly.makeReadOnly("/etc/com.korvane.utilia");
    auto reader = ChildProcess::role("lookInside", {kSettings}, {.mounts = &readOnly});
    EXPECT_EQ(reader.waitForLine(), "{}");
    EXPECT_EQ(reader.waitForLine(), "Read-only file system");
}

TEST(PrivateMounts, AnotherUserReadsWhatHeMayRead) {
    const PrivateMounts mounts;
    mounts.writeSettings("{}");
    auto child = ChildProcess::role("lookInside", {kSettings}, {.user = 65534, .mounts = &mounts});
    EXPECT_EQ(child.waitForLine(), "{}");
    EXPECT_EQ(child.waitForLine(), "Permission denied");
    child.waitForLine();
    EXPECT_EQ(child.waitForLine(), "65534");
}

// Runs as "nobody", who may not make a namespace.
UTILIA_CHILD_ROLE(makeMounts) {
    try {
        const PrivateMounts mounts;
        self.say("made");
    } catch (const std::exception& exception) {
        self.say(exception.what());
    }
    return 0;
}

TEST(PrivateMounts, WithoutRootTheReasonIsNamed) {
    auto child = ChildProcess::role("makeMounts", {}, {.user = 65534});
    EXPECT_EQ(child.waitForLine(), "this test needs a mount namespace of its own, which takes root "
                                   "(CAP_SYS_ADMIN): Operation not permitted");
}

}  // namespace
}  // namespace utilia::test
