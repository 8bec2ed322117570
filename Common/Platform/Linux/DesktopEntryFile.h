#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Common/Foundation/Result.h"

namespace utilia::platform {

// The content of one desktop entry file. Its keys are read as the desktops read them, and single
// ones can be changed: whatever else is in the file (other keys and groups, comments, blank lines,
// their order) stays as it is, byte for byte.
//
// Threads: only the one that uses the object.
class DesktopEntryFile final {
public:
    // Bytes; real entries have a few thousand.
    static constexpr std::size_t kMaximumSize = 256 * 1024;

    // Follows links, never waits for a FIFO's other end. Fails with the error of the file; with
    // Refused for one that is too large, holds NUL, or is no group of keys.
    static Result<DesktopEntryFile> read(const std::string& path);
    // `path` is for error texts.
    static Result<DesktopEntryFile> parse(const std::string& path, std::string text);

    DesktopEntryFile(DesktopEntryFile&&) noexcept;
    DesktopEntryFile& operator=(DesktopEntryFile&&) noexcept;
    ~DesktopEntryFile();

    const std::string& path() const { return path_; }
    const std::string& text() const { return text_; }

    // A key of the group "Desktop Entry"; empty, or `otherwise`, when it is absent or malformed.
    std::optional<std::string> string(const char* key) const;
    bool boolean(const char* key, bool otherwise) const;
    bool has(const char* key) const;
    // Whether OnlyShowIn and NotShowIn let the entry show in a session of these desktops (the
    // value of $XDG_CURRENT_DESKTOP: names, separated by colons).
    bool isShownIn(std::string_view desktops) const;

    // The same file with the key set, and without it. Only lines of that key differ. Refused for a
    // file without the group.
    Result<DesktopEntryFile> withBoolean(std::string_view key, bool value) const;
    Result<DesktopEntryFile> without(std::string_view key) const;

private:
    struct Keys;
    DesktopEntryFile(std::string path, std::string text, std::unique_ptr<Keys> keys);

    std::string path_;
    std::string text_;
    std::unique_ptr<Keys> keys_;
};

// Text as the value of a string key; as one quoted argument of an Exec key.
std::string desktopEntryString(std::string_view text);
std::string desktopEntryArgument(std::string_view argument);

}  // namespace utilia::platform
