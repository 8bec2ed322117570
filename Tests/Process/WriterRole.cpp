// A tool reduced to what it leaves behind.

#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataLazyWriter.h"
#include "Tests/Process/SampleImage.h"
#include "Tests/Support/ChildScript.h"

namespace utilia::test {
namespace {

using Arguments = ChildScript::Arguments;

// With the argument "unlaunched" the application never finishes launching.
UTILIA_CHILD_ROLE(writer) {
    ChildScript script(self);
    ToolPersistentDataLazyWriter writer;
    const auto image = [](const Arguments& a) -> std::shared_ptr<platform::Image> {
        if (a.empty()) return nullptr;
        auto made = sampleImage(static_cast<std::uint32_t>(std::stoul(a[0])),
                                static_cast<std::uint8_t>(std::stoul(a[1])));
        made->setTemplate(a.size() > 2);
        return made;
    };
    const auto on = [&](const char* name, std::function<void(const Arguments&)> command) {
        script.on(name, [command = std::move(command)](const Arguments& a) {
            command(a);
            return std::string();
        });
    };
    on("set-permanent", [&](const Arguments& a) { writer.setIsPermanent(a.at(0) == "yes"); });
    on("set-menu-text", [&](const Arguments& a) {
        writer.setMenuText(a.empty() ? std::nullopt : std::optional(a[0]));
    });
    on("set-tool-icon", [&](const Arguments& a) { writer.setToolIcon(image(a)); });
    on("set-menu-icon", [&](const Arguments& a) { writer.setMenuIcon(image(a)); });
    on("flush", [&](const Arguments&) { writer.appWillExit(); });
    script.on("stated", [&](const Arguments&) {
        return std::string(writer.isPermanent() ? "permanent" : "not permanent") + ", " +
               writer.menuText().value_or("none") + ", " + describe(writer.toolIcon()) + ", " +
               describe(writer.menuIcon());
    });
    script.on("names", [&](const Arguments&) { return writer.toolName() + " " + writer.toolId(); });
    const bool launches = self.arguments.empty() || self.arguments.front() != "unlaunched";
    return launches ? script.run() : script.runWithoutLaunching();
}

}  // namespace
}  // namespace utilia::test
