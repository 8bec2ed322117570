#include "Common/UtiliaCommon/Resources/ResourceManager.h"

#include <algorithm>
#include <new>
#include <span>
#include <vector>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Foundation/Unicode.h"
#include "Common/Foundation/Value.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Resources/ResourceBackupName.h"
#include "Common/UtiliaCommon/Resources/SharedResource.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

// Neither choosing nor installing holds the store's lock for longer than one field takes, and the
// files are under no lock at all. What keeps a reader safe is the order of things: a copy is whole
// and executable before it gets its name, it gets its name before the record tells of it, and its
// path is recorded before its version. So whoever reads a new version finds at least that file; who
// reads an old one may be given a newer file, which does no harm.

namespace utilia {
namespace {

using platform::Bundle;
using platform::FileManager;

constexpr std::string_view kWhat = "A shared resource";
constexpr std::string_view kResourcesFolder = "Resources";
constexpr std::uint32_t kExecutablePermissions = 0755;
constexpr const char* kNotUsable =
    ": a bundle identifier is one component of a path, the name of a resource one or several that "
    "are parted by slashes; none of them may be empty, \".\" or \"..\", begin with \".utilia-\", "
    "or "
    "hold NUL or bytes that are no text";

struct InstalledCopy {
    std::string path;
    IndexPath version;
};

// The installed copy, if it is newer than that version and can be used.
std::optional<InstalledCopy> newerCopy(const SharedResource& record, const IndexPath& internal) {
    // Every version has a component, unless there was no memory for it.
    if (internal.length() == 0) return std::nullopt;
    auto version = record.version();
    if (!version || *version <= internal) return std::nullopt;
    auto path = record.path();
    if (!path || !FileManager::isExecutableFileAtPath(*path)) return std::nullopt;
    return InstalledCopy{*std::move(path), *std::move(version)};
}

// What an installer that was killed leaves is named so, and is removed by the next one.
constexpr std::string_view kTemporaryPrefix = ".utilia-";

// Whether a text from outside can be one component of a path inside the container.
bool isUsableComponent(std::string_view text) {
    return !text.empty() && text != "." && text != ".." && !text.starts_with(kTemporaryPrefix) &&
           text.find('/') == std::string_view::npos && text.find('\0') == std::string_view::npos &&
           isValidUtf8(text);
}

// The folders of a resource's name and the name of its file; nothing if one of them is not usable. A
// name has one form only, without empty components, so that no two records tell of one file.
std::vector<std::string_view> usableComponents(std::string_view resourceName) {
    std::vector<std::string_view> components;
    for (std::size_t begin = 0; begin <= resourceName.size();) {
        const std::size_t end = std::min(resourceName.find('/', begin), resourceName.size());
        components.push_back(resourceName.substr(begin, end - begin));
        if (!isUsableComponent(components.back())) return {};
        begin = end + 1;
    }
    return components;
}

// What an installation came to, and the line that tells of it.
struct Failure {
    const char* format;
    Error error;
};

// Makes the folders one after the other, because a link in the place of one leads somewhere else.
// The last one's path.
Result<std::string> makeFolders(std::string folder, std::span<const std::string_view> components) {
    for (const std::string_view component : components) {
        folder = stringByAppendingPathComponent(folder, component);
        if (auto made = FileManager::createDirectoryAtPath(folder, platform::FileAttributes{});
            !made) {
            return std::move(made).error();
        }
        const auto status = FileManager::attributesOfItemAtPath(folder);
        if (!status) return status.error();
        if (status->type != platform::ItemStatus::Type::Directory) {
            return Error::cocoa(CocoaErrorCode::FileWriteUnknown,
                                folder + ": a link may not lead out of the container");
        }
    }
    return folder;
}

std::optional<Failure> install(std::string_view file, const SharedResource& record,
                               const std::optional<IndexPath>& version, std::int64_t type) {
    constexpr const char* kNoDirectory = "Error while creating directory: %@";
    std::vector<std::string_view> components = usableComponents(record.name());
    if (components.empty() || !isUsableComponent(record.bundleId())) {
        return Failure{"The resource is not installed: %@",
                       Error::utilia(UtiliaErrorCode::Refused,
                                     record.name() + " of " + record.bundleId() + kNotUsable)};
    }
    const auto container =
        FileManager::containerURLForSecurityApplicationGroupIdentifier(kAppGroupIdentifier);
    if (!container) {
        return Failure{kNoDirectory,
                       Error::utilia(UtiliaErrorCode::Unavailable, "there is no group container")};
    }
    components.insert(components.begin(), {kResourcesFolder, record.bundleId()});
    const auto folder = makeFolders(*container, std::span(components).first(components.size() - 1));
    if (!folder) return Failure{kNoDirectory, folder.error()};

    const std::string_view fileName = components.back();
    const std::string destination = stringByAppendingPathComponent(*folder, fileName);
    const bool isExecutable = type == kExecutableResourceType;
    // With its mode already, so that nobody finds a program that cannot be run.
    const auto replaced = FileManager::replaceItemAtURL(
        destination, file, resourceBackupName(fileName, Date::now()),
        isExecutable ? std::optional(kExecutablePermissions) : std::nullopt);
    if (!replaced) return Failure{"Error while replacing resource: %@", replaced.error()};
    if (isExecutable) {
        const auto set =
            FileManager::setAttributes({.posixPermissions = kExecutablePermissions}, destination);
        if (!set) return Failure{"Error while setting attributes: %@", set.error()};
    }
    record.setPath(destination);
    record.setVersion(version);
    return std::nullopt;
}

std::string choosePath(std::string_view resourceName, const Bundle& bundle) {
    const IndexPath internal = VersionManager::versionFromBundle(&bundle);
    const auto bundleId = bundle.bundleIdentifier();
    // A bundle that does not say who it is has no records.
    auto shared =
        bundleId ? newerCopy(SharedResource(resourceName, *bundleId), internal) : std::nullopt;
    if (KUIsExtendedLoggingOn()) {
        KULogVariadic(shared ? "Using shared resource %@ with version %@"
                             : "Using internal resource %@ with version %@",
                      resourceName, (shared ? shared->version : internal).description());
    }
    if (shared) return std::move(shared->path);
    return stringByAppendingPathComponent(bundle.resourcePath(), resourceName);
}

}  // namespace

std::string ResourceManager::getMostActualResourcePath(std::string_view resourceName,
                                                       const Bundle& forBundle) {
    return unlessOutOfMemory(kWhat, [&] { return choosePath(resourceName, forBundle); });
}

IndexPath ResourceManager::getMostActualResourceVersion(std::string_view resourceName,
                                                        std::string_view forBundleId) {
    return unlessOutOfMemory(kWhat, [&] {
        IndexPath internal =
            VersionManager::versionFromBundle(Bundle::bundleWithIdentifier(forBundleId));
        auto shared = newerCopy(SharedResource(resourceName, forBundleId), internal);
        return shared ? std::move(shared->version) : std::move(internal);
    });
}

void ResourceManager::addResourceFile(std::string_view fileURL, std::string_view withName,
                                      const std::optional<IndexPath>& withVersion,
                                      std::int64_t withResourceType, std::string_view forBundleId) {
    unlessOutOfMemory(kWhat, [&] {
        const auto failure =
            install(fileURL, SharedResource(withName, forBundleId), withVersion, withResourceType);
        if (failure) KULogVariadic(failure->format, failure->error.text());
    });
}

Result<void> ResourceManager::tryToAddResourceFile(std::string_view fileURL,
                                                   std::string_view withName,
                                                   const std::optional<IndexPath>& withVersion,
                                                   std::int64_t withResourceType,
                                                   std::string_view forBundleId) {
    try {
        auto failure =
            install(fileURL, SharedResource(withName, forBundleId), withVersion, withResourceType);
        if (failure) return std::move(failure->error);
        return {};
    } catch (const std::bad_alloc&) {
        return Error::utilia(UtiliaErrorCode::Unavailable, "out of memory");
    }
}

}  // namespace utilia
