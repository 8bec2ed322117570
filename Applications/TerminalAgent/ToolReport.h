#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Common/Platform/Image.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataAgentProvider.h"

namespace utilia::agent {

// What the agent knows of a tool, in words for a terminal. Pure functions.

// "permanent", "active", "inactive", or the number of a status that has no name.
std::string describeStatus(std::uint64_t status);

// The sides of each representation, and whether the image is a template: "16x16, 32x32 (template)".
// "none" without an image.
std::string describeImage(const std::shared_ptr<platform::Image>& image);

// One line for the property, such as `Timer       menu text  "0:03"`. Empty for a property that
// says nothing to a user.
std::string describeProperty(const ToolDataAgentProvider& tool,
                             ToolDataAgentProvider::Property property);

// The tool's file name without its extension: "Timer".
std::string toolTitle(const ToolDataAgentProvider& tool);

}  // namespace utilia::agent
