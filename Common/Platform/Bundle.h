#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"

namespace utilia::platform {

class Image;

// An application or resource bundle: a folder of fixed shape with an Info.plist.
//
// Only X.app/Contents/Linux/PROGRAM beside X.app/Contents/Info.plist makes an application. Paths are
// resolved (no symbolic links in them) and have no "/" at the end, so that both ends of a conversation form the
// same text from the same bundle.
//
// Threads: any; immutable once made.
class UTILIA_EXPORT Bundle final {
public:
    // The bundle of the running program; null when the program lies in none. Its path is read once.
    static const Bundle* mainBundle();
    // The one of the two bundles that a process knows, its main bundle and the framework's, which has this identifier;
    // null for any other.
    static const Bundle* bundleWithIdentifier(std::string_view identifier);
    // The framework's own bundle, found beside the library; null when it is missing.
    static const Bundle* frameworkBundle();
    // Empty when there is no such folder.
    static std::unique_ptr<Bundle> bundleWithPath(std::string_view path);

    ~Bundle();

    const std::string& bundlePath() const;
    // "CFBundleIdentifier" of the Info.plist; empty when absent.
    std::optional<std::string> bundleIdentifier() const;
    // Read on the first ask; an empty dictionary, with one log line, when the file is damaged.
    const Dictionary& infoDictionary() const;
    // The main program ("CFBundleExecutable"); empty when it is not named or missing.
    std::optional<std::string> executablePath() const;
    // Contents/Linux/NAME when it is there and executable. Names with "/" answer empty.
    std::optional<std::string> pathForAuxiliaryExecutable(std::string_view name) const;
    // Where its resources lie, whether or not that folder exists: Resources, of an application Contents/Resources.
    std::string resourcePath() const;
    // Resources/NAME.TYPE (of an application: Contents/Resources/…) when it exists; an empty type adds nothing.
    std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;

    // The picture Resources/NAME.png (of an application: Contents/Resources/…), with the larger ones of it beside it,
    // NAME@2x.png and NAME@3x.png, as further representations. Empty when NAME.png is missing or no image; a larger one
    // that is none is left out, with a log line.
    std::shared_ptr<Image> imageForResource(std::string_view name) const;

    // The text in the user's language; `key` is the English text. Without a translation: `value`, or the key when
    // that is empty. The language is the first of the user's (LANGUAGE, LC_ALL, LC_MESSAGES, LANG) of which the bundle
    // has the folder Resources/LANGUAGE.lproj, and is chosen on the first ask; setlocale() changes nothing.
    // Documentation/Localization.md says how a language is added.
    std::string localizedStringForKey(std::string_view key, std::string_view value = {}) const;
    // The language that those texts are in, as its folder is named: "de"; "en" when there is none for the user.
    const std::string& preferredLocalization() const;

private:
    struct Implementation;
    explicit Bundle(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace utilia::platform
