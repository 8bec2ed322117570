// The agent's list under the command of its test.

#include <algorithm>
#include <memory>

#include "Applications/Agent/Model/ToolList.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataServerProvider.h"
#include "Tests/Process/SampleImage.h"
#include "Tests/Support/ChildScript.h"

namespace utilia::agent {
namespace {

using test::ChildScript;
using Arguments = ChildScript::Arguments;

const char* conditionName(ToolEntry::Condition condition) {
    switch (condition) {
    case ToolEntry::Condition::Ready:
        return "ready";
    case ToolEntry::Condition::Restricted:
        return "restricted";
    case ToolEntry::Condition::Damaged:
        return "damaged";
    case ToolEntry::Condition::Missing:
        return "missing";
    }
    return "?";
}

std::string describe(const ToolEntry* entry) {
    if (!entry) return "none";
    return entry->name + ", " + conditionName(entry->condition) + ", " +
           (entry->isRunning ? "runs" : "off") + ", " + std::to_string(entry->status) + ", " +
           entry->menuText + ", " + test::describe(entry->toolIcon) + ", " +
           test::describe(entry->menuIcon);
}

std::string outcome(const Result<void>& result) {
    return result ? "done" : result.error().description;
}

UTILIA_CHILD_ROLE(toolListAgent) {
    ChildScript script(self);
    auto list =
        std::make_unique<ToolList>(std::chrono::milliseconds(std::stoi(self.arguments.at(0))));
    std::string changes;
    Handle observation = list->observe([&](const ToolList::Change& change) {
        changes += change.isListChanged ? "[list" : "[";
        for (const auto& tool : change.tools) changes += " " + tool.substr(tool.rfind('.') + 1);
        for (const auto& tool : change.gone) changes += " -" + tool.substr(tool.rfind('.') + 1);
        changes += "]";
    });
    script.on("reload", [&](const Arguments&) {
        list->reload();
        return std::string();
    });
    // With whatever was told in that time, which is shorter than changes are gathered.
    script.on("wait-for-text-and-reload", [&](const Arguments& a) {
        const auto isThere = [&] {
            const auto tools = ToolDataServerProvider::sharedInstance().tools();
            return std::any_of(tools.begin(), tools.end(),
                               [&](const auto& tool) { return tool->menuText() == a.at(0); });
        };
        const bool isSaid = ChildScript::waitUntil(isThere);
        list->reload();
        return std::string(isSaid ? "said" : "not said");
    });
    script.on("entries", [&](const Arguments&) {
        std::string all;
        for (const ToolEntry& entry : list->entries()) all += describe(&entry) + "; ";
        return all;
    });
    script.on("entry", [&](const Arguments& a) { return describe(list->find(a.at(0))); });
    script.on("wait-for", [&](const Arguments& a) {
        (void)ChildScript::waitUntil([&] { return describe(list->find(a.at(0))) == a.at(1); });
        return describe(list->find(a.at(0)));
    });
    // What observers were told since the last time it was asked for.
    script.on("changes", [&](const Arguments&) { return std::exchange(changes, {}); });
    script.on("tell-until-refused", [&](const Arguments& a) {
        for (;;) {
            const Telling telling = list->tell(a.at(0), AgentMessage::MenuIconClicked);
            if (telling == Telling::No) return std::string("no");
            if (telling == Telling::NoRoom) return std::string("no room");
        }
    });
    script.on("deaf", [&](const Arguments& a) {
        return std::string(list->isDeaf(a.at(0)) ? "yes" : "no");
    });
    script.on("wait-for-changes", [&](const Arguments&) {
        (void)ChildScript::waitUntil([&] { return !changes.empty(); });
        return std::exchange(changes, {});
    });
    script.on("activate", [&](const Arguments& a) { return outcome(list->activate(a.at(0))); });
    script.on("turn-off", [&](const Arguments& a) { return outcome(list->turnOff(a.at(0))); });
    script.on("proxies", [](const Arguments&) {
        return std::to_string(ToolDataServerProvider::sharedInstance().tools().size());
    });
    script.on("forget-the-list", [&](const Arguments&) {
        list.reset();
        return std::string();
    });
    return script.run();
}

}  // namespace
}  // namespace utilia::agent
