#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Foundation/Value.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia::test {

// Tools that load the shared library, before whose main its checks run. Everything is private to the
// test: the user's folders, /etc, and the library with its framework bundle, which the tools find
// from where they lie.
//
//     PREFIX/lib/libUtiliaCommon.so.N, UtiliaCommon.framework/…
//     PREFIX/Applications/NAME.app/Contents/…
class StartUpFixture : public testing::Test {
protected:
    static constexpr const char* kListed = "com.korvane.utilia.Timer";  // in the catalogue
    static constexpr const char* kAgent = "com.korvane.utilia";

    StartUpFixture();

    std::filesystem::path prefix() const { return home_.path() / "prefix"; }
    std::filesystem::path framework() const { return prefix() / "lib/UtiliaCommon.framework"; }

    // NAME.app with the tool's program in it.
    TestBundle tool(const std::string& name, const std::string& identifier, Dictionary info = {});
    static Dictionary needingTheAgent();

    // A process of the tool, with the fixture's /etc and its stderr in log().
    ChildProcess start(const TestBundle& tool, const std::vector<std::string>& arguments = {},
                       ChildProcessOptions options = {});
    std::vector<std::string> log() const;
    // Log lines that contain the text.
    std::size_t countInLog(const std::string& text) const;
    // What the process says until it ends, and how it ends.
    struct Course {
        std::vector<std::string> lines;
        std::optional<int> status;
    };
    static Course courseOf(ChildProcess& process);
    Course courseOf(const TestBundle& tool, const std::vector<std::string>& arguments = {},
                    const ChildProcessOptions& options = {});

    // White-list of the private /etc; short names.
    void allowOnly(const std::vector<std::string>& names);

    // From now on alerts have a display, and are answered: "button 0" is the first button.
    void answerAlerts(const std::string& answer);
    // The fields of every question that was asked, in lines.
    std::string questions() const;

    // Whether some process was ever listed as this application.
    bool wasEverListed(const std::string& identifier) const;

    // The migration has been done, so that it neither logs nor writes.
    void markAsMigrated() const;

    const TemporaryHome home_;
    PrivateMounts mounts_;

private:
    std::map<std::string, std::string> environment_;
};

}  // namespace utilia::test
