#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Common/Foundation/Value.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {

struct TestBundleOptions {
    std::string name = "Sample Tool";                                // file name, without ".app"
    std::string bundleIdentifier = "com.korvane.utilia.SampleTool";  // not declared when empty
    std::optional<std::string> canonicalName = {};                   // of "ToolCapabilities"
    std::string program = "tool";
    std::filesystem::path folder =
        {};  // where the bundle lies; "Applications" in the home when empty
    // A file in the same file system with what the test binary has: a link to it costs nothing where
    // one to the test binary is a copy.
    std::string copy = {};
    Dictionary info = {};  // further keys of the Info.plist; they replace those above
};

// A real application bundle around this test binary: NAME.app/Contents/Linux/PROGRAM is a link to
// the binary (a copy where the file system has no links), so that its child roles run as that
// application. The framework's own bundle is found from there as it is from the binary.
class TestBundle final {
public:
    using Options = TestBundleOptions;

    explicit TestBundle(const TemporaryHome& home, Options options = {});

    // As the running program sees them: no symbolic links inside, no "/" at the end.
    std::string path() const { return path_.string(); }
    std::string program() const { return (path_ / "Contents/Linux" / options_.program).string(); }
    const Options& options() const { return options_; }

    // Starts a child role as this application.
    ChildProcess role(const std::string& name, std::vector<std::string> arguments = {},
                      ChildProcessOptions options = {}) const;

    // Makes the application known to the launcher: a desktop entry in the home's data folder that
    // runs the role with these arguments. A program that is launched has no channel to the test.
    void install(const std::string& role, const std::vector<std::string>& arguments = {}) const;

private:
    const TemporaryHome& home_;
    Options options_;
    std::filesystem::path path_;
};

}  // namespace utilia::test
