#include "Applications/utiliactl/ResourcesCommand.h"

#include <cerrno>
#include <filesystem>
#include <ostream>
#include <random>
#include <system_error>
#include <utility>

#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Applications/utiliactl/SharedStore.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Resources/ResourceManager.h"
#include "Common/UtiliaCommon/Resources/SharedResource.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"

namespace utilia::control {
namespace {

namespace fs = std::filesystem;

using platform::Bundle;
using platform::FileManager;

// A version that is not of four components has no form of its own.
std::string plain(const IndexPath& version) {
    if (version.length() == 4) return VersionManager::versionToString(version);
    std::string text;
    for (std::size_t i = 0; i < version.length(); ++i)
        text += (i > 0 ? "." : "") + std::to_string(version.indexAtPosition(i));
    return text;
}

Json recordAsJson(std::string_view bundleId, std::string_view name, const Dictionary& record) {
    const auto version = VersionManager::versionWithString(record.string(kResourceVersionKey));
    const auto path = record.string(kResourcePathKey);
    return {
        {"bundleid", bundleId},
        {"name", name},
        {"version",
         version ? Json(VersionManager::versionToStringReportForm(version)) : Json(nullptr)},
        {"path", path ? Json(*path) : Json(nullptr)},
        {"executable", path && FileManager::isExecutableFileAtPath(*path)},
    };
}

std::vector<std::string> rowOf(const Json& record) {
    const auto text = [&record](const char* key) {
        return record[key].is_null() ? "-" : record[key].get<std::string>();
    };
    const auto version = record["version"].is_null()
                             ? std::nullopt
                             : VersionManager::versionWithString(text("version"));
    return {text("bundleid"), text("name"), version ? plain(*version) : "-",
            record["executable"] == true ? "yes" : "no", text("path")};
}

// A copy that may be moved away; it goes with this object if nobody has.
class TemporaryCopy final {
public:
    static Result<TemporaryCopy> of(const std::string& file) {
        const auto runtime = FileManager::runtimeFolder();
        if (!runtime)
            return Error::utilia(UtiliaErrorCode::Unavailable, "there is no folder for a copy");
        std::random_device random;
        TemporaryCopy copy(fs::path(*runtime) /
                           ("utiliactl-" + std::to_string(random()) + std::to_string(random())));
        std::error_code error;
        if (!fs::create_directory(copy.folder_, error))
            return Error::posix(error ? error.value() : EEXIST, "mkdir", copy.folder_.string());
        copy.isMade_ = true;
        fs::copy_file(file, copy.path(), error);
        if (error) return Error::posix(error.value(), "copy", file);
        return copy;
    }
    TemporaryCopy(TemporaryCopy&& other) noexcept
        : folder_(std::move(other.folder_)), isMade_(std::exchange(other.isMade_, false)) {}
    TemporaryCopy& operator=(TemporaryCopy&&) = delete;
    ~TemporaryCopy() {
        std::error_code ignored;
        if (isMade_) fs::remove_all(folder_, ignored);
    }

    std::string path() const { return (folder_ / "copy").string(); }

private:
    explicit TemporaryCopy(fs::path folder) : folder_(std::move(folder)) {}

    fs::path folder_;
    bool isMade_ = false;
};

}  // namespace

CLI::App* ResourcesCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("resources", "Shows and installs resources that tools share.");
    command->require_subcommand(1);

    CLI::App* const list =
        command->add_subcommand("list", "Lists the records of installed copies.");
    list->add_flag("--json", json_, "Answer as JSON");
    list->callback([this] { chosen_ = &ResourcesCommand::list; });

    CLI::App* const path =
        command->add_subcommand("path", "Tells which copy of a resource an application uses.");
    path->footer("That is the installed copy, if it is newer than the application and executable, "
                 "or else the\napplication's own, which is not looked for.");
    path->add_option("NAME", name_, "The resource's name")->required();
    path->add_option("BUNDLE_PATH", bundle_, "The application's bundle, NAME.app")->required();
    path->callback([this] { chosen_ = &ResourcesCommand::path; });

    CLI::App* const version =
        command->add_subcommand("version", "Tells the version of the copy that would be used.");
    version->footer("The application's own copy counts if the application is installed.");
    version->add_option("NAME", name_, "The resource's name")->required();
    version->add_option("BUNDLE_ID", bundle_, "The bundle identifier of its owner")->required();
    version->callback([this] { chosen_ = &ResourcesCommand::version; });

    CLI::App* const install =
        command->add_subcommand("install", "Installs a copy of a resource for all tools.");
    install->footer("Whatever version is installed is replaced. Tools use an installed copy only "
                    "if it is executable.");
    install->add_option("FILE", file_, "The new copy; it is moved, not copied")->required();
    install->add_option("NAME", name_, "The resource's name")->required();
    install->add_option("VERSION", versionText_, "Its version, four numbers: 5.1.2-3456")
        ->required()
        ->check([](const std::string& text) {
            return VersionManager::versionWithString(text)
                       ? std::string()
                       : inQuotes(text) + " is no version: it takes four numbers, as 5.1.2-3456";
        });
    install->add_option("BUNDLE_ID", bundle_, "The bundle identifier of its owner")->required();
    install->add_flag("--executable", isExecutable_, "Make it executable for everybody (0755)");
    install->add_flag("--keep", keepsFile_, "Leave FILE where it is, and install a copy of it");
    install->callback([this] { chosen_ = &ResourcesCommand::install; });
    return command;
}

Result<void> ResourcesCommand::run(std::ostream& out) { return (this->*chosen_)(out); }

Result<void> ResourcesCommand::list(std::ostream& out) const {
    const auto content = readSharedStore();
    if (!content) return content.error();
    Json list = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const auto& [bundleId, resources] :
         content->dictionary(kResourcesKey).value_or(Dictionary())) {
        if (!resources.dictionary()) continue;
        for (const auto& [name, record] : *resources.dictionary()) {
            if (!record.dictionary()) continue;
            list.push_back(recordAsJson(bundleId, name, *record.dictionary()));
            rows.push_back(rowOf(list.back()));
        }
    }
    out << (json_ ? textOfJson(list)
                  : table({"BUNDLE IDENTIFIER", "NAME", "VERSION", "EXECUTABLE", "PATH"}, rows,
                          "No resource is shared."));
    return {};
}

Result<void> ResourcesCommand::path(std::ostream& out) const {
    const auto bundle = Bundle::bundleWithPath(bundle_);
    if (!bundle || bundle->infoDictionary().empty())
        return Error::utilia(UtiliaErrorCode::NotFound, inQuotes(bundle_) + " is no bundle");
    out << ResourceManager::getMostActualResourcePath(name_, *bundle) << '\n';
    return {};
}

Result<void> ResourcesCommand::version(std::ostream& out) const {
    const IndexPath known = ResourceManager::getMostActualResourceVersion(name_, bundle_);
    // This program knows no application's bundle, so what it is told is the installed copy.
    const auto place = platform::Workspace::URLForApplicationWithBundleIdentifier(bundle_);
    const auto bundle = place ? Bundle::bundleWithPath(*place) : nullptr;
    const IndexPath own = VersionManager::versionFromBundle(bundle.get());
    const IndexPath& newest = own < known ? known : own;
    if (newest == VersionManager::versionFromBundle(nullptr)) {
        return Error::utilia(UtiliaErrorCode::NotFound,
                             "there is neither a usable copy of " + inQuotes(name_) +
                                 " nor an application " + inQuotes(bundle_) + " with a version");
    }
    out << plain(newest) << '\n';
    return {};
}

Result<void> ResourcesCommand::install(std::ostream& out) const {
    const auto version = VersionManager::versionWithString(versionText_);
    std::optional<TemporaryCopy> copy;
    if (keepsFile_) {
        auto made = TemporaryCopy::of(file_);
        if (!made) return made.error();
        copy.emplace(std::move(*made));
    }
    const auto installed =
        ResourceManager::tryToAddResourceFile(copy ? copy->path() : file_, name_, version,
                                              isExecutable_ ? kExecutableResourceType : 0, bundle_);
    if (!installed) return installed;
    const SharedResource record(name_, bundle_);
    const auto path = record.path();
    if (!path || record.version() != version) {
        return Error::utilia(UtiliaErrorCode::Unavailable,
                             "the copy is in its place, but its record cannot be stored");
    }
    out << inQuotes(name_) << " of " << inQuotes(bundle_) << " is installed with version "
        << plain(*version) << ".\n";
    if (!FileManager::isExecutableFileAtPath(*path))
        out << "It is not executable, so no tool uses it.\n";
    return {};
}

}  // namespace utilia::control
