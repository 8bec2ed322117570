#include "Common/Platform/Linux/Localization.h"

#include <cerrno>
#include <string_view>

#include <glib.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/FileInput.h"
#include "Common/Platform/Linux/FileName.h"

namespace utilia::platform {
namespace {

// No user has that many; a variable may.
constexpr int kMaximumLanguages = 64;

// Texts are written in English, so it needs no catalogue.
bool isTheKeysOwn(std::string_view language) {
    return language == "C" || language == "POSIX" || language == "en";
}

Result<MessageCatalog> readCatalog(const std::string& path) {
    auto bytes = FileInput::contents(path, kMessageCatalogMaximumSize);
    if (!bytes) return std::move(bytes).error();
    return MessageCatalog::parse(*std::move(bytes));
}

bool isAbsent(const Error& error) { return error.isPosix(ENOENT) || error.isPosix(ENOTDIR); }

}  // namespace

Localization chooseLocalization(const std::string& resources) {
    // From the environment alone: what the host has set, and which locales the system has, must not
    // change a text.
    const gchar* const* languages = g_get_language_names();
    for (int i = 0; languages[i] && i < kMaximumLanguages; ++i) {
        const std::string name = isTheKeysOwn(languages[i]) ? "en" : languages[i];
        if (!isPlainFileName(name, 64)) continue;
        const std::string path = resources + "/" + name + ".lproj/Localizable.mo";
        auto catalog = readCatalog(path);
        if (catalog) return {name, *std::move(catalog)};
        if (!isAbsent(catalog.error())) {
            KULogVariadic("Bundle: %@ cannot be used, texts stay English: %@", path,
                          catalog.error());
            break;
        }
        if (name == "en") break;
    }
    return {};
}

}  // namespace utilia::platform
