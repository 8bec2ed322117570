#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/Image.h"

namespace utilia {

// Key of the suite, and of a tool's record in it. Contract: never rename.
inline constexpr std::string_view kToolPersistentDataKey = "ToolPersistentData";
inline constexpr std::string_view kToolPermanentKey = "Permanent";  // boolean
inline constexpr std::string_view kToolMenuTextKey = "MenuText";    // string
// Extended attribute of a menu icon's file: one byte, not 0 for a template.
inline constexpr std::string_view kTemplateAttribute = "NSImage.isTemplate";
inline constexpr std::string_view kToolIconKind = "Tool";
inline constexpr std::string_view kMenuIconKind = "Menu";

// What a tool has left behind for the agent to show while it is not running: whether it is
// permanent, its menu text and its icons. Every answer is read afresh; nothing is an error, what is
// missing is empty, and so is what there is no memory for (with one log line).
//
// The flags and the text lie in the shared store under the tool's entry; the icons are TIFF files
// in the group container's Library/Caches/Icons. Documentation/Formats/PresentationData.md has
// both.
//
// Threads: any, one at a time for an object.
class UTILIA_EXPORT ToolPersistentDataReader {
public:
    // `toolName` is the bundle's file name with its extension. Nothing is read yet.
    ToolPersistentDataReader(std::string_view toolName, std::string_view bundleId);
    virtual ~ToolPersistentDataReader();
    ToolPersistentDataReader(const ToolPersistentDataReader&) = delete;
    ToolPersistentDataReader& operator=(const ToolPersistentDataReader&) = delete;

    const std::string& toolName() const { return toolName_; }
    const std::string& toolId() const { return toolId_; }

    // The tool's record; takes the shared store's lock.
    std::optional<Dictionary> getToolDataDict() const;
    virtual bool isPermanent() const;
    virtual std::optional<std::string> menuText() const;
    virtual std::shared_ptr<platform::Image> toolIcon() const;
    virtual std::shared_ptr<platform::Image> menuIcon() const;  // with its template flag

    // Where an icon of a kind lies. Makes the icon folder. Empty without a group container, and for
    // a tool whose name or identifier is not usable in a file name.
    std::optional<std::string> getIconPath(std::string_view kind) const;
    std::optional<std::string> getToolIconPath() const { return getIconPath(kToolIconKind); }
    std::optional<std::string> getMenuIconPath() const { return getIconPath(kMenuIconKind); }

protected:
    // The key of the tool's record: identifier, underscore, file name.
    std::string entryKey() const;

private:
    const std::string toolName_;
    const std::string toolId_;
};

}  // namespace utilia
