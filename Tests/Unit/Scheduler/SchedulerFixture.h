#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include "Common/Platform/UniqueFd.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia::test {

// The tool "Clipboard History", whose module for notifications writes down what is posted.
class SchedulerFixture : public testing::Test {
protected:
    SchedulerFixture() {
        const std::filesystem::path library = tool_.path() + "/Contents/lib";
        std::filesystem::remove(library);
        const auto modules = library / "UtiliaCommon.framework" / "Modules";
        std::filesystem::create_directories(modules);
        std::filesystem::copy_file(test::places::kRecordingModule, modules / "Desktop.so");
        // Where a bus is looked for; the module does not speak to it.
        std::ofstream(home_.runtime() / "bus") << "a bus";
    }

    ScriptedChild startTool() { return ScriptedChild(tool_.role("scheduler")); }

    // What has been posted since the last call.
    std::vector<std::string> takePosts() {
        std::vector<std::string> lines;
        {
            std::ifstream file(postsFile());
            for (std::string line; std::getline(file, line);) lines.push_back(line);
        }
        std::filesystem::remove(postsFile());
        return lines;
    }

    static Array records() {
        Array all;
        accessAppGroupPlist([&all](platform::UserDefaults& suite) {
            all = suite.arrayForKey("Scheduler").value_or(Array());
        });
        return all;
    }
    static void store(Array records) {
        accessAppGroupPlist([&records](platform::UserDefaults& suite) {
            suite.setObject(std::move(records), "Scheduler");
        });
    }

    bool isStoreLocked() const {
        const platform::UniqueFd folder(
            open(home_.groupContainer().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return flock(folder.get(), LOCK_EX | LOCK_NB) != 0;
    }

    static constexpr const char* kPosted = "com.apple.utilia.agentUpdateScheduler unlocked";

    TemporaryHome home_;
    TestBundle tool_{home_,
                     {.name = "Clipboard History", .bundleIdentifier = "com.korvane.utilia.clip"}};

private:
    std::filesystem::path postsFile() const { return home_.path() / "posts"; }
};

}  // namespace utilia::test
