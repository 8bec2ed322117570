#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/IndexPath.h"
#include "Common/Foundation/Result.h"
#include "Common/Platform/Bundle.h"

namespace utilia {

// The type of a resource that is a program. There are no others with a meaning of their own.
inline constexpr std::int64_t kExecutableResourceType = 1;

// Chooses between the copies of a resource that several applications carry in their bundles, and
// installs the newest one for all of them.
//
// An application that brings a newer copy than the installed one installs it: the file goes to
// Resources/BUNDLE IDENTIFIER/NAME in the group's container, its path and version into the
// resource's record (SharedResource). An application that needs the resource takes the installed
// copy if it is newer than its own and this process may execute it; whatever kind of resource it is,
// one that may not be executed is not used. Its own copy has the version of its bundle.
//
// A name may have folders, as "helpers/converter": they are those of the bundle's resource folder,
// and the same ones are made in the container.
//
// Out of memory, the answer is empty and what is not yet done is left out, with one log line.
//
// Threads: any; never inside a block of accessAppGroupPlist.
class UTILIA_EXPORT ResourceManager final {
public:
    ResourceManager() = delete;

    // Where the copy to use lies: the installed one, or else NAME in the bundle's resource folder,
    // which is not looked for. One log line while extended logging is on.
    static std::string getMostActualResourcePath(std::string_view resourceName,
                                                 const platform::Bundle& forBundle);
    // The version of the copy that would be used, as far as this process knows the bundle: it knows
    // its main bundle and the framework's (Bundle::bundleWithIdentifier). Any other one counts as
    // version 0, a single component, so that every usable installed copy is newer.
    static IndexPath getMostActualResourceVersion(std::string_view resourceName,
                                                  std::string_view forBundleId);

    // Installs the file: it is moved, and gone from where it was. A program gets the mode 0755, any
    // other file keeps its own. Versions are not compared; that is for the caller to do before.
    //
    // At any moment the whole old copy or the whole new one is there, also for those who run it.
    // When something fails there is one log line and the old copy stays with its record; only when
    // the mode of a program cannot be set is the new copy in place while the record still tells of
    // the old one, until an installation succeeds. Path and version are recorded one after the
    // other. When two processes install at once, file and record are those of who came last.
    //
    // Missing folders are made. A name that could lead out of the container is refused with a log
    // line: its components, and the identifier as one, are text and not empty, "." or ".."; so are
    // folders that are links. A folder never takes the place of a file, nor a file that of a folder.
    static void addResourceFile(std::string_view fileURL, std::string_view withName,
                                const std::optional<IndexPath>& withVersion,
                                std::int64_t withResourceType, std::string_view forBundleId);
    // The same, but answers why not instead of logging it.
    static Result<void> tryToAddResourceFile(std::string_view fileURL, std::string_view withName,
                                             const std::optional<IndexPath>& withVersion,
                                             std::int64_t withResourceType,
                                             std::string_view forBundleId);
};

}  // namespace utilia
