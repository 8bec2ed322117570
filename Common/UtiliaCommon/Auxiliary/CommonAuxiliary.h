#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/IndexPath.h"
#include "Common/Foundation/Value.h"

namespace utilia {

// Services that applications share and that are too small for classes of their own.
//
// Login items: applications are told apart by their URL, the resolved path of the bundle, as
// platform::Workspace and platform::Bundle answer it. An empty URL is that of no application.
// Failures are logged once, with the file's name.
//
// Update descriptions: what a version of the product brings, in the languages that there are, kept
// in the agent's preferences. The agent writes them, its tools read them.
//
// Pause of suggestions: the agent suggests no tools while one of those runs that have asked it not
// to. A tool that ends without taking that back, however it ends, is forgotten by the next query.
//
// Threads: any; the update descriptions in the agent only the one that uses the standard user
// defaults.
class UTILIA_EXPORT CommonAuxiliary final {
public:
    // The one instance of the process.
    static CommonAuxiliary& sharedInstance();

    // Makes the application a login item, and removes items of the same file name at other places.
    // Answers whether it is one now.
    bool addAppToLoginItems(const std::optional<std::string>& url);
    // Removes every item of that file name, wherever it lies. False only when the list cannot be
    // read.
    bool removeAppFromLoginItems(const std::optional<std::string>& url);
    // Whether some item has exactly this URL.
    bool findAppInLoginItems(const std::optional<std::string>& url);

    // The text in the language of the framework's texts, else the English one ("en"); empty when
    // the version has neither.
    static std::optional<std::string>
    getLocalizedUpdateDescriptionForVersion(const std::optional<IndexPath>& version);
    // Replaces the version's texts, a dictionary from language codes; an empty argument removes
    // them. Other versions stay as they are.
    static void saveUpdateDescription(const std::optional<Dictionary>& description,
                                      const std::optional<IndexPath>& forVersion);

    // Has the tool, by its bundle identifier, ask for the pause or take that back. What the tool
    // has asked for already is not written again.
    void pauseToolsSuggestions(bool pause, std::string_view byTool);
    // Whether a tool that has asked for the pause runs. Those that do not run are forgotten.
    bool areToolsSuggestionsPaused();
};

// Keys of the agent's preferences and of the shared store. Contract: never rename.
inline constexpr std::string_view kUpdateDescriptionsKey = "UpdateDescriptions";
inline constexpr std::string_view kToolsSuggestionsPausedByKey = "ToolsSuggestionsPausedBy";
// The language that every description should have.
inline constexpr std::string_view kEnglishDescriptionKey = "en";

}  // namespace utilia
