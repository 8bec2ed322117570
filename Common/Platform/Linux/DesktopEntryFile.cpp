#include "Common/Platform/Linux/DesktopEntryFile.h"

#include <algorithm>
#include <utility>

#include <glib.h>

#include "Common/Platform/Linux/FileInput.h"

// Keys are read by GLib's parser, which is that of most desktops. It cannot write a file back as it
// was, so changes are made on the text: lines of one key in the group "Desktop Entry" come and go,
// found by the rules of that same parser, and the outcome is parsed again. A file that the two see
// differently is not changed.
//
// A new line goes right behind the group's heading. There it is sure to begin on a line of its own,
// and taking it away again leaves the file as it was before, also one whose last line has no end.

namespace utilia::platform {
namespace {

constexpr const char* kGroup = "Desktop Entry";
constexpr std::string_view kHeading = "[Desktop Entry]";

struct GFree {
    void operator()(gchar* text) const { g_free(text); }
    void operator()(gchar** list) const { g_strfreev(list); }
    void operator()(GKeyFile* file) const { g_key_file_unref(file); }
    void operator()(GError* error) const { g_error_free(error); }
};

Error refused(const std::string& path, std::string_view why) {
    return Error::utilia(UtiliaErrorCode::Refused, path + ": " + std::string(why));
}

constexpr bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

// GLib takes the heading also with damaged bytes behind it.
bool isHeading(std::string_view content) {
    return content.starts_with(kHeading) &&
           std::all_of(
               content.begin() + std::ptrdiff_t{kHeading.size()}, content.end(), [](char c) {
                   return c == ' ' || c == '\t' || (static_cast<unsigned char>(c) & 0xc0) == 0x80;
               });
}

// The text up to the next line's begin, and the rest.
std::string_view takeLine(std::string_view& rest) {
    const std::size_t end = rest.find('\n');
    const std::string_view line = rest.substr(0, end == std::string_view::npos ? end : end + 1);
    rest.remove_prefix(line.size());
    return line;
}

// The text without the lines of `key`, and with `added` behind the first heading of the group.
std::string edited(std::string_view rest, std::string_view key, std::string_view added) {
    std::string result;
    result.reserve(rest.size() + added.size() + 1);
    bool isInGroup = false;
    while (!rest.empty()) {
        const std::string_view line = takeLine(rest);
        const std::string_view content = trimmed(line);
        if (content.starts_with('[')) {
            isInGroup = isHeading(content);
        } else if (isInGroup && trimmed(content.substr(0, content.find('='))) == key) {
            continue;
        }
        result += line;
        if (!isInGroup || added.empty() || !content.starts_with('[')) continue;
        if (!line.ends_with('\n')) result += '\n';
        result += added;
        added = {};
    }
    return result;
}

}  // namespace

struct DesktopEntryFile::Keys {
    std::unique_ptr<GKeyFile, GFree> file{g_key_file_new()};
};

DesktopEntryFile::DesktopEntryFile(std::string path, std::string text, std::unique_ptr<Keys> keys)
    : path_(std::move(path)), text_(std::move(text)), keys_(std::move(keys)) {}
DesktopEntryFile::DesktopEntryFile(DesktopEntryFile&&) noexcept = default;
DesktopEntryFile& DesktopEntryFile::operator=(DesktopEntryFile&&) noexcept = default;
DesktopEntryFile::~DesktopEntryFile() = default;

Result<DesktopEntryFile> DesktopEntryFile::read(const std::string& path) {
    const auto bytes = FileInput::contents(path, kMaximumSize);
    if (!bytes) return bytes.error();
    return parse(path, std::string(bytes->begin(), bytes->end()));
}

Result<DesktopEntryFile> DesktopEntryFile::parse(const std::string& path, std::string text) {
    if (text.empty()) return refused(path, "is empty");
    if (text.find('\0') != std::string::npos) return refused(path, "holds a NUL");
    auto keys = std::make_unique<Keys>();
    GError* error = nullptr;
    if (!g_key_file_load_from_data(keys->file.get(), text.data(), text.size(), G_KEY_FILE_NONE,
                                   &error)) {
        const std::unique_ptr<GError, GFree> owned(error);
        return refused(path, owned ? owned->message : "unknown error");
    }
    return DesktopEntryFile(path, std::move(text), std::move(keys));
}

std::optional<std::string> DesktopEntryFile::string(const char* key) const {
    const std::unique_ptr<gchar, GFree> value(
        g_key_file_get_string(keys_->file.get(), kGroup, key, nullptr));
    return value ? std::optional<std::string>(value.get()) : std::nullopt;
}

bool DesktopEntryFile::has(const char* key) const {
    return g_key_file_has_key(keys_->file.get(), kGroup, key, nullptr) != FALSE;
}

bool DesktopEntryFile::boolean(const char* key, bool otherwise) const {
    GError* error = nullptr;
    const gboolean value = g_key_file_get_boolean(keys_->file.get(), kGroup, key, &error);
    const std::unique_ptr<GError, GFree> owned(error);
    return owned ? otherwise : value != FALSE;
}

bool DesktopEntryFile::isShownIn(std::string_view desktops) const {
    const auto list = [this](const char* key) {
        return std::unique_ptr<gchar*, GFree>(
            g_key_file_get_string_list(keys_->file.get(), kGroup, key, nullptr, nullptr));
    };
    const auto only = list("OnlyShowIn");
    const auto never = list("NotShowIn");
    while (!desktops.empty()) {
        const std::string desktop(desktops.substr(0, desktops.find(':')));
        desktops.remove_prefix(std::min(desktop.size() + 1, desktops.size()));
        if (only && g_strv_contains(only.get(), desktop.c_str())) return true;
        if (never && g_strv_contains(never.get(), desktop.c_str())) return false;
    }
    return !only;
}

Result<DesktopEntryFile> DesktopEntryFile::withBoolean(std::string_view key, bool value) const {
    const std::string line = std::string(key) + (value ? "=true\n" : "=false\n");
    auto changed = parse(path_, edited(text_, key, line));
    if (changed && changed->boolean(std::string(key).c_str(), !value) != value)
        return refused(path_, "cannot be changed");
    return changed;
}

Result<DesktopEntryFile> DesktopEntryFile::without(std::string_view key) const {
    auto changed = parse(path_, edited(text_, key, {}));
    if (changed && changed->has(std::string(key).c_str()))
        return refused(path_, "cannot be changed");
    return changed;
}

std::string desktopEntryString(std::string_view text) {
    std::string value;
    for (const char c : text) {
        switch (c) {
        case '\\':
            value += "\\\\";
            break;
        case '\n':
            value += "\\n";
            break;
        case '\r':
            value += "\\r";
            break;
        case '\t':
            value += "\\t";
            break;
        case ' ':
            // Blanks at the begin of a value are not part of it.
            value += value.empty() ? "\\s" : " ";
            break;
        default:
            value += c;
        }
    }
    return value;
}

// Three layers, from the inside: field codes, quotes, and the escapes of every string value.
std::string desktopEntryArgument(std::string_view argument) {
    std::string quoted = "\"";
    for (const char c : argument) {
        if (c == '%') quoted += '%';
        if (c == '"' || c == '`' || c == '$' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return desktopEntryString(quoted + "\"");
}

}  // namespace utilia::platform
