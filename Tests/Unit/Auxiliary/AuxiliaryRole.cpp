#include <string>

#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"
#include "Tests/Support/ChildScript.h"

// An application that pauses suggestions, reads descriptions, or just runs.

using namespace utilia;
using namespace utilia::test;

namespace {

UTILIA_CHILD_ROLE(auxiliary) {
    ChildScript script(self);
    script.on("pause", [](const auto& arguments) {
        CommonAuxiliary::sharedInstance().pauseToolsSuggestions(true, arguments[0]);
        return "";
    });
    // Over and over, as tools do that come and go.
    script.on("pause-and-resume", [](const auto& arguments) {
        for (int i = 0; i < std::stoi(arguments[1]); ++i) {
            CommonAuxiliary::sharedInstance().pauseToolsSuggestions(true, arguments[0]);
            CommonAuxiliary::sharedInstance().pauseToolsSuggestions(false, arguments[0]);
        }
        CommonAuxiliary::sharedInstance().pauseToolsSuggestions(true, arguments[0]);
        return "";
    });
    script.on("are-paused", [](const auto&) {
        return CommonAuxiliary::sharedInstance().areToolsSuggestionsPaused() ? "yes" : "no";
    });
    script.on("save", [](const auto& arguments) {
        CommonAuxiliary::saveUpdateDescription(Dictionary{{arguments[1], arguments[2]}},
                                               VersionManager::versionWithString(arguments[0]));
        return "";
    });
    script.on("description", [](const auto& arguments) {
        return CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(
                   VersionManager::versionWithString(arguments[0]))
            .value_or("nil");
    });
    return script.run();
}

// A process of an application that lets several of them run.
UTILIA_CHILD_ROLE(runningProcess) {
    if (!platform::RunningApplication::registerCurrentApplication()) return 1;
    self.say("running");
    self.waitForLine();
    return 0;
}

}  // namespace
