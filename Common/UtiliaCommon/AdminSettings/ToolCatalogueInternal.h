#pragma once

#include <span>
#include <string_view>

namespace utilia {

// One line of ToolCatalogue.txt.
struct CatalogueTool {
    std::string_view shortName;
    bool isMedia = false;
};

// Every tool of the product, in the order of the file; compiled in.
//
// Threads: any.
std::span<const CatalogueTool> toolCatalogue();

}  // namespace utilia
