#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "Tests/Support/TemporaryHome.h"

// An /etc of its own for the children of a test, so that the machine-wide settings folder can be
// made, filled and damaged without touching the machine's.
//
//     const PrivateMounts mounts;                          // throws, naming the reason, without root
//     mounts.writeSettings(R"({"WhiteToolsList": []})");   // the children's settings.conf
//     auto tool = bundle.role("tool", {}, {.mounts = &mounts});
//
//     EXPECT_TRUE(mounts.run([] { EXPECT_EQ(contentOf("/etc/hostname"), "…"); }));
//
// A child gets a mount namespace before its program starts, and in it this object's folder as /etc.
// Its entries are links to those of the real /etc, which is there read-only; so accounts, the
// loader's cache and so on are as they are outside, and can be replaced. The test itself stays
// outside and sees the same files under etc(). What a child launches is inside, too.

namespace utilia::test {

class PrivateMounts final {
public:
    // Throws std::runtime_error where this process may not make mount namespaces (it takes root).
    PrivateMounts();
    PrivateMounts(const PrivateMounts&) = delete;
    PrivateMounts& operator=(const PrivateMounts&) = delete;

    // What is /etc inside. The settings folder is not there until a test, or a child, makes it.
    std::filesystem::path etc() const { return folder_.path() / "etc"; }
    std::filesystem::path settingsFolder() const { return etc() / "com.korvane.utilia"; }
    std::filesystem::path settingsFile() const { return settingsFolder() / "settings.conf"; }

    // Makes the settings folder and puts the text into the file (0755 and 0644).
    void writeSettings(const std::string& text) const;
    // What is /etc/group inside: "admin:x:4711:\n". There are no other groups then.
    void replaceGroups(const std::string& text) const;

    // For children that start from now on. `inside` is a folder as the children see it, and exists;
    // what lies in it outside is hidden by a file system of `bytes` bytes, or becomes read-only.
    void limitSpace(const std::string& inside, std::size_t bytes);
    void makeReadOnly(const std::string& inside);

    // Runs the body in a forked child that is inside, as this user; its assertions count. Answers
    // whether it came to its end without a failure. A body that takes longer than a minute is ended.
    [[nodiscard]] bool run(const std::function<void()>& body,
                           uid_t user = static_cast<uid_t>(-1)) const;

    // Moves the calling process, which must have one thread, inside; ChildProcess does it between
    // fork and exec. Makes only system calls; answers false with errno set when it fails half way,
    // and the process had better end then.
    bool enter() const;

private:
    struct Mount {
        std::string inside;
        std::string options;  // of a file system in memory; empty: read-only
    };

    TemporaryFolder folder_;
    std::string etc_;
    std::string original_;
    std::vector<Mount> mounts_;
};

}  // namespace utilia::test
