#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

#include "Common/Platform/UniqueFd.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ReportPipe.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia::launcher {

// Tools and an agent for a launcher to start. They run the roles of ToolLauncherRoles.cpp, report
// through one pipe, come up when the gate is opened, and end with the test.
class ToolLauncherTest : public testing::Test {
protected:
    ToolLauncherTest() {
        for (const std::string& path : {gate_, leash_}) {
            if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo " + path);
        }
        leashEnd_.reset(open(leash_.c_str(), O_RDWR | O_CLOEXEC));
    }

    void openGate() { gateEnd_.reset(open(gate_.c_str(), O_RDWR | O_CLOEXEC)); }

    static std::string identifierOf(const std::string& name) {
        return "com.korvane.utilia." + name;
    }
    test::TestBundle bundleOf(const std::string& name, Dictionary info = {}) {
        test::TestBundleOptions options;
        options.name = name;
        options.bundleIdentifier = identifierOf(name);
        options.info = std::move(info);
        return test::TestBundle(home_, options);
    }
    std::vector<std::string> argumentsOf(const std::string& identifier) const {
        return {reports_.path(), gate_, leash_, identifier};
    }
    test::TestBundle install(const std::string& name, const std::string& role = "listedTool",
                             Dictionary info = {}) {
        test::TestBundle bundle = bundleOf(name, std::move(info));
        bundle.install(role, argumentsOf(identifierOf(name)));
        return bundle;
    }
    test::TestBundle installAgent(const std::string& role = "slowAgent") {
        test::TestBundleOptions options;
        options.name = "Korvane Utilia";
        options.bundleIdentifier = "com.korvane.utilia";
        test::TestBundle bundle(home_, options);
        bundle.install(role, argumentsOf("com.korvane.utilia"));
        return bundle;
    }
    static Dictionary agentNeeded() {
        return {{"ToolCapabilities", Dictionary{{"NeedAgentForWork", true}}}};
    }
    void list(const std::vector<std::string>& names) {
        Array tools;
        for (const std::string& name : names) tools.append(identifierOf(name));
        UtiliaToolLauncher::getDefaults()->setObject(tools, kLaunchAtLoginToolsKey);
    }
    test::ChildProcess start(const test::TestBundle& bundle) {
        auto arguments = argumentsOf(bundle.options().bundleIdentifier);
        arguments.push_back("with a channel");
        auto child = bundle.role("listedTool", arguments);
        EXPECT_EQ(child.waitForLine(), "up");
        return child;
    }
    std::vector<std::string> nextReports(std::size_t count) {
        std::vector<std::string> lines;
        while (lines.size() < count) lines.push_back(reports_.waitForLine().value_or("(none)"));
        return lines;
    }
    static bool isRunning(const std::string& name) {
        return !platform::RunningApplication::runningApplicationsWithBundleIdentifier(
                    identifierOf(name))
                    .empty();
    }

    test::TemporaryHome home_;
    test::TestLog log_;
    test::ReportPipe reports_{home_.path()};
    std::string gate_ = home_.path() / "gate";
    std::string leash_ = home_.path() / "leash";
    platform::UniqueFd gateEnd_;
    platform::UniqueFd leashEnd_;
};

}  // namespace utilia::launcher
