#include "Common/Platform/Bundle.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include <link.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/Linux/BundleInternal.h"
#include "Common/Platform/Linux/FileName.h"
#include "Common/Platform/Linux/FrameworkLocation.h"
#include "Common/Platform/Linux/Localization.h"
#include "Common/Platform/PropertyListSerialization.h"

// A bundle is recognised by its shape alone, and an application only by the one shape that
// bundlePathOfProgram() accepts: a port name is derived from the bundle's path, so a program that
// is found in some other place must have no bundle rather than a guessed one. The main bundle's
// path comes from the kernel, not from argv, and is kept: an update that moves the bundle while the
// program runs must not change the name under which the agent knows it.
//
// Two layouts exist. Applications and resource bundles keep everything in Contents/; the
// framework's own bundle has its Resources/ (and in it an Info.plist) at the top.

namespace utilia::platform {
namespace {

bool isFolder(const std::string& path) {
    struct stat found {};
    return stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

// Also when it cannot be told: what is looked for inside then says why.
bool mayBeFolder(const std::string& path) {
    struct stat found {};
    if (stat(path.c_str(), &found) == 0) return S_ISDIR(found.st_mode);
    return errno != ENOENT && errno != ENOTDIR;
}

bool isRegularFile(const std::string& path) {
    struct stat found {};
    return stat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode);
}

Dictionary readInfoDictionary(const std::string& path) {
    const auto damaged = [&path](const Error& error) {
        KULogVariadic("Bundle: %@ cannot be used: %@", path, error);
        return Dictionary();
    };
    const auto bytes = FileManager::contentsAtPath(path, kPropertyListMaximumSize);
    if (!bytes) {
        const bool isAbsent = bytes.error().isPosix(ENOENT) || bytes.error().isPosix(ENOTDIR);
        return isAbsent ? Dictionary() : damaged(bytes.error());
    }
    const auto value = propertyListFromData(*bytes);
    if (!value) return damaged(value.error());
    if (!value->dictionary()) {
        return damaged(
            Error::cocoa(CocoaErrorCode::PropertyListReadCorrupt, "it is no dictionary"));
    }
    return *value->dictionary();
}

}  // namespace

std::optional<std::string> resolvedPath(const std::string& path) {
    char resolved[PATH_MAX];
    if (!realpath(path.c_str(), resolved)) return std::nullopt;
    return std::string(resolved);
}

std::optional<std::string> programOfProcess(std::string_view process) {
    const std::string link = "/proc/" + std::string(process) + "/exe";
    char target[PATH_MAX];
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    if (length <= 0 || static_cast<std::size_t>(length) == sizeof target || target[0] != '/') {
        return std::nullopt;
    }
    return std::string(target, static_cast<std::size_t>(length));
}

namespace {

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// A program that is given to the loader to run ("ld-linux.so PROGRAM") is not what the kernel says
// this process executes. It is what the loader mapped first, and the kernel tells the file of a
// mapping as reliably. Such a start is recognised by the loader having no place of its own beside
// the program, and costs a look through all mappings.
std::optional<std::string> programOfThisProcess() {
    if (getauxval(AT_BASE) != 0) return programOfProcess("self");
    const void* program = nullptr;
    dl_iterate_phdr(
        [](dl_phdr_info* first, std::size_t, void* found) {
            *static_cast<const void**>(found) = first->dlpi_phdr;
            return 1;
        },
        &program);
    const auto address = reinterpret_cast<std::uintptr_t>(program);
    const std::unique_ptr<std::FILE, CloseFile> maps(std::fopen("/proc/self/maps", "re"));
    std::array<char, PATH_MAX + 128> line;
    while (maps && std::fgets(line.data(), line.size(), maps.get())) {
        std::uintptr_t begin = 0, end = 0;
        if (std::sscanf(line.data(), "%" SCNxPTR "-%" SCNxPTR, &begin, &end) != 2) continue;
        if (address < begin || address >= end) continue;
        const char* const path = std::strchr(line.data(), '/');
        return path ? std::optional(std::string(path, std::strcspn(path, "\n"))) : std::nullopt;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> bundlePathOfProgram(std::string_view program) {
    constexpr std::string_view kProgramFolder = "/Contents/Linux";
    constexpr std::string_view kApplicationSuffix = ".app";

    const std::size_t slash = program.rfind('/');
    if (slash == std::string_view::npos || slash + 1 == program.size()) return std::nullopt;
    std::string_view path = program.substr(0, slash);
    if (!path.ends_with(kProgramFolder)) return std::nullopt;
    path.remove_suffix(kProgramFolder.size());
    const std::string_view name = path.substr(path.rfind('/') + 1);
    if (!path.starts_with('/') || !name.ends_with(kApplicationSuffix) ||
        name.size() == kApplicationSuffix.size()) {
        return std::nullopt;
    }
    std::string bundle(path);
    if (!isRegularFile(bundle + "/Contents/Info.plist")) return std::nullopt;
    return bundle;
}

std::optional<std::string> mainProgramOfBundle(const Bundle& bundle) {
    const auto executable = bundle.executablePath();
    auto program = executable ? resolvedPath(*executable) : std::nullopt;
    if (!program || bundlePathOfProgram(*program) != bundle.bundlePath()) return std::nullopt;
    return program;
}

struct Bundle::Implementation {
    std::string path;
    std::string contents;  // the folder that holds Resources/ and Linux/
    std::string infoPath;
    std::once_flag infoOnce;
    Dictionary info;
    std::once_flag localizationOnce;
    Localization localization;

    enum class Layout { Contents, AtTheTop };

    Implementation(std::string resolved, Layout layout)
        : path(std::move(resolved)),
          contents(layout == Layout::Contents ? path + "/Contents" : path),
          infoPath(contents +
                   (layout == Layout::Contents ? "/Info.plist" : "/Resources/Info.plist")) {}

    static Layout layoutOf(const std::string& path) {
        return mayBeFolder(path + "/Contents") ? Layout::Contents : Layout::AtTheTop;
    }

    const Localization& chosenLocalization() {
        std::call_once(localizationOnce,
                       [this] { localization = chooseLocalization(contents + "/Resources"); });
        return localization;
    }
};

Bundle::Bundle(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}

Bundle::~Bundle() = default;

const Bundle* Bundle::mainBundle() {
    static const Bundle* const bundle = [] {
        const auto program = programOfThisProcess();
        auto path = program ? bundlePathOfProgram(*program) : std::nullopt;
        // What the kernel names is resolved already.
        return path ? new Bundle(std::make_unique<Implementation>(*std::move(path),
                                                                  Implementation::Layout::Contents))
                    : nullptr;
    }();
    return bundle;
}

const Bundle* Bundle::frameworkBundle() {
    static const Bundle* const bundle = [] {
        const std::string location = frameworkLocation();
        return location.empty() ? nullptr : bundleWithPath(location).release();
    }();
    return bundle;
}

const Bundle* Bundle::bundleWithIdentifier(std::string_view identifier) {
    for (const Bundle* const bundle : {mainBundle(), frameworkBundle()}) {
        if (bundle && bundle->bundleIdentifier() == identifier) return bundle;
    }
    return nullptr;
}

std::unique_ptr<Bundle> Bundle::bundleWithPath(std::string_view path) {
    if (path.find('\0') != std::string_view::npos) return nullptr;
    auto resolved = resolvedPath(std::string(path));
    if (!resolved || !isFolder(*resolved)) return nullptr;
    const auto layout = Implementation::layoutOf(*resolved);
    return std::unique_ptr<Bundle>(
        new Bundle(std::make_unique<Implementation>(std::move(*resolved), layout)));
}

const std::string& Bundle::bundlePath() const { return implementation_->path; }

std::optional<std::string> Bundle::bundleIdentifier() const {
    auto identifier = infoDictionary().string("CFBundleIdentifier");
    if (identifier && identifier->empty()) return std::nullopt;
    return identifier;
}

const Dictionary& Bundle::infoDictionary() const {
    std::call_once(implementation_->infoOnce, [this] {
        implementation_->info = readInfoDictionary(implementation_->infoPath);
    });
    return implementation_->info;
}

std::optional<std::string> Bundle::executablePath() const {
    const auto name = infoDictionary().string("CFBundleExecutable");
    return name ? pathForAuxiliaryExecutable(*name) : std::nullopt;
}

std::optional<std::string> Bundle::pathForAuxiliaryExecutable(std::string_view name) const {
    if (!isPlainFileName(name)) return std::nullopt;
    std::string path = implementation_->contents + "/Linux/";
    path += name;
    if (!isRegularFile(path) || !FileManager::isExecutableFileAtPath(path)) return std::nullopt;
    return path;
}

std::string Bundle::resourcePath() const { return implementation_->contents + "/Resources"; }

std::optional<std::string> Bundle::pathForResource(std::string_view name,
                                                   std::string_view type) const {
    std::string file(name);
    if (!type.empty()) file.append(".").append(type);
    if (name.empty() || !isPlainFileName(file)) return std::nullopt;
    std::string path = implementation_->contents + "/Resources/" + file;
    if (!FileManager::fileExistsAtPath(path)) return std::nullopt;
    return path;
}

std::string Bundle::localizedStringForKey(std::string_view key, std::string_view value) const {
    const auto& catalog = implementation_->chosenLocalization().catalog;
    const auto text = catalog ? catalog->find(key) : std::nullopt;
    return std::string(text ? *text : value.empty() ? key : value);
}

const std::string& Bundle::preferredLocalization() const {
    return implementation_->chosenLocalization().language;
}

}  // namespace utilia::platform
