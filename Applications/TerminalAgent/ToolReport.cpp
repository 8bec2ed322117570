#include "Applications/TerminalAgent/ToolReport.h"

#include <string_view>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/Workspace.h"

namespace utilia::agent {
namespace {

using Property = ToolDataAgentProvider::Property;

std::string column(std::string text, std::size_t width) {
    if (text.size() < width) text.append(width - text.size(), ' ');
    return text + "  ";
}

// Where the tool runs, as far as one process is known to.
std::string describePort(const ToolDataAgentProvider& tool) {
    if (!tool.toolPort()) return "not reached";
    const auto running =
        platform::RunningApplication::runningApplicationsWithBundleIdentifier(tool.bundleId());
    if (running.size() != 1) return "reached";
    return "reached, process " + std::to_string(running.front().processIdentifier());
}

}  // namespace

std::string describeStatus(std::uint64_t status) {
    switch (status) {
    case kToolStatusInactive:
        return "inactive";
    case kToolStatusActive:
        return "active";
    case kToolStatusPermanent:
        return "permanent";
    default:
        return std::to_string(status);
    }
}

std::string describeImage(const std::shared_ptr<platform::Image>& image) {
    if (!image) return "none";
    std::string text;
    for (std::size_t i = 0; i < image->representationCount(); ++i) {
        const auto bitmap = image->representation(i);
        if (!text.empty()) text += ", ";
        text += bitmap
                    ? std::to_string(bitmap->pixelsWide) + "x" + std::to_string(bitmap->pixelsHigh)
                    : "damaged";
    }
    if (text.empty()) text = "no picture";
    return image->isTemplate() ? text + " (template)" : text;
}

std::string toolTitle(const ToolDataAgentProvider& tool) {
    return stringByDeletingPathExtension(lastPathComponent(tool.name()));
}

std::string describeProperty(const ToolDataAgentProvider& tool, Property property) {
    const auto line = [&tool](const char* what, const std::string& value) {
        return column(toolTitle(tool), 10) + column(what, 9) + value;
    };
    switch (property) {
    case Property::Status:
        return line("status", describeStatus(tool.status()));
    case Property::ToolIcon:
        return line("tool icon", describeImage(tool.toolIcon()));
    case Property::MenuIcon:
        return line("menu icon", describeImage(tool.menuIcon()));
    case Property::MenuText:
        return line("menu text", tool.menuText() ? '"' + *tool.menuText() + '"' : "none");
    case Property::ToolPort:
        return line("port", describePort(tool));
    case Property::WasLaunched:
    case Property::ToolIconNeeded:
    case Property::MenuIconNeeded:
        break;
    }
    return {};
}

}  // namespace utilia::agent
