#include "Common/Platform/Linux/DesktopEntry.h"

#include <memory>
#include <optional>
#include <utility>

#include <glib.h>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/Linux/BundleInternal.h"
#include "Common/Platform/Linux/DesktopEntryFile.h"
#include "Common/Platform/Linux/FileName.h"
#include "Common/Platform/Linux/Folders.h"

// Desktop entries are read as the desktops read them (Desktop Entry Specification 1.5): Exec is
// split by the shell's quoting rules without a shell ever running it, and field codes, which stand
// for files and addresses that a launch of ours does not have, are removed after the splitting, so
// that quoting cannot be confused by them.

namespace utilia::platform {
namespace {

constexpr std::string_view kFieldCodes = "fFuUdDnNickvm";

struct GFree {
    void operator()(gchar* text) const { g_free(text); }
    void operator()(gchar** list) const { g_strfreev(list); }
    void operator()(GError* error) const { g_error_free(error); }
};
using GText = std::unique_ptr<gchar, GFree>;

Error refused(const std::string& path, std::string_view why) {
    return Error::utilia(UtiliaErrorCode::Refused, path + ": " + std::string(why));
}

Error notInstalled(const std::string& path, std::string_view why) {
    return Error::utilia(UtiliaErrorCode::NotFound, path + ": " + std::string(why));
}

std::string messageAndFree(GError* error) {
    const std::unique_ptr<GError, GFree> owned(error);
    return owned ? owned->message : "unknown error";
}

// The argument without field codes; empty optional for a code that does not exist. `dropped` says
// that the argument was nothing but a field code.
std::optional<std::string> withoutFieldCodes(std::string_view argument, bool& dropped) {
    std::string kept;
    bool hadCode = false;
    for (std::size_t i = 0; i < argument.size(); ++i) {
        if (argument[i] != '%') {
            kept += argument[i];
            continue;
        }
        if (++i == argument.size()) return std::nullopt;
        if (argument[i] == '%') {
            kept += '%';
        } else if (kFieldCodes.find(argument[i]) != std::string_view::npos) {
            hadCode = true;
        } else {
            return std::nullopt;
        }
    }
    dropped = hadCode && kept.empty();
    return kept;
}

Result<std::vector<std::string>> parseExec(const std::string& path, const char* exec) {
    gint count = 0;
    gchar** list = nullptr;
    GError* error = nullptr;
    if (!g_shell_parse_argv(exec, &count, &list, &error)) {
        return refused(path, "Exec: " + messageAndFree(error));
    }
    const std::unique_ptr<gchar*, GFree> owned(list);
    std::vector<std::string> arguments;
    for (gint i = 0; i < count; ++i) {
        bool dropped = false;
        auto argument = withoutFieldCodes(list[i], dropped);
        if (!argument)
            return refused(path, "Exec: unknown field code in \"" + std::string(list[i]) + "\"");
        if (!dropped) arguments.push_back(std::move(*argument));
    }
    if (arguments.empty()) return refused(path, "Exec names no program");
    return arguments;
}

// An absolute path, or a name to be found in $PATH; resolved. Empty when there is no such program.
std::optional<std::string> findProgram(const std::string& name) {
    if (name.empty() || (name[0] != '/' && name.find('/') != std::string::npos))
        return std::nullopt;
    const GText found(g_find_program_in_path(name.c_str()));
    return found ? resolvedPath(found.get()) : std::nullopt;
}

std::vector<std::string> applicationFolders() {
    auto folders = xdgFolders("XDG_DATA_DIRS", "/usr/local/share:/usr/share");
    folders.insert(folders.begin(), xdgFolder("XDG_DATA_HOME", ".local/share"));
    for (std::string& folder : folders) folder += "/applications";
    return folders;
}

std::optional<std::string> pathOfEntry(std::string_view bundleIdentifier) {
    for (const std::string& folder : applicationFolders()) {
        std::string path = folder + "/" + std::string(bundleIdentifier) + ".desktop";
        if (FileManager::fileExistsAtPath(path)) return path;
    }
    return std::nullopt;
}

}  // namespace

Result<DesktopEntry> DesktopEntry::find(std::string_view bundleIdentifier) {
    if (!isUsableBundleIdentifier(bundleIdentifier)) {
        return Error::utilia(UtiliaErrorCode::Refused,
                             "\"" + std::string(bundleIdentifier) + "\" is no bundle identifier");
    }
    if (const auto path = pathOfEntry(bundleIdentifier)) return read(*path);
    return Error::utilia(UtiliaErrorCode::NotFound,
                         std::string(bundleIdentifier) +
                             ": no desktop entry names this application");
}

bool DesktopEntry::isNamed(std::string_view bundleIdentifier) {
    if (!isUsableBundleIdentifier(bundleIdentifier)) return false;
    const auto path = pathOfEntry(bundleIdentifier);
    if (!path) return false;
    const auto file = DesktopEntryFile::read(*path);
    return !file || !file->boolean("Hidden", false);
}

Result<DesktopEntry> DesktopEntry::read(const std::string& path) {
    const auto file = DesktopEntryFile::read(path);
    if (!file) return file.error();
    if (file->boolean("Hidden", false)) return notInstalled(path, "is hidden");
    return of(*file);
}

bool DesktopEntry::isTryExecMissing(const DesktopEntryFile& file) {
    const auto needed = file.string("TryExec");
    return needed && !findProgram(*needed);
}

Result<DesktopEntry> DesktopEntry::of(const DesktopEntryFile& file) {
    const std::string& path = file.path();
    if (file.string("Type") != "Application") return refused(path, "describes no application");
    if (isTryExecMissing(file)) {
        return notInstalled(path, "TryExec: " + *file.string("TryExec") + " is missing");
    }
    const auto exec = file.string("Exec");
    if (!exec) return refused(path, "has no Exec");
    auto arguments = parseExec(path, exec->c_str());
    if (!arguments) return std::move(arguments).error();

    auto program = findProgram(arguments->front());
    if (!program) return notInstalled(path, "the program " + arguments->front() + " is missing");
    auto bundle = bundlePathOfProgram(*program);
    if (!bundle)
        return notInstalled(path, "the program " + *program + " lies in no application bundle");
    arguments->erase(arguments->begin());
    return DesktopEntry{std::move(*program), std::move(*arguments), std::move(*bundle)};
}

}  // namespace utilia::platform
