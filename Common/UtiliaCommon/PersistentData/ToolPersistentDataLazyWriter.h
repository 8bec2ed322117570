#pragma once

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Handle.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"

namespace utilia {

// Where a running tool puts what the agent shall show after the tool has ended. Values stay in this
// object until the application ends in an orderly way, and are written then, in one go. A tool that
// is killed leaves what its last orderly end stored.
//
// Threads: the main thread.
class UTILIA_EXPORT ToolPersistentDataLazyWriter final : public ToolPersistentDataReader {
public:
    // Describes the calling application, and starts with its stored permanent flag and menu text.
    // The stored icons are not loaded.
    ToolPersistentDataLazyWriter();
    ~ToolPersistentDataLazyWriter() override;

    // What is stated now, not what is stored.
    bool isPermanent() const override { return isPermanent_; }
    std::optional<std::string> menuText() const override { return menuText_; }
    std::shared_ptr<platform::Image> toolIcon() const override { return toolIcon_; }
    std::shared_ptr<platform::Image> menuIcon() const override { return menuIcon_; }

    void setIsPermanent(bool isPermanent) { isPermanent_ = isPermanent; }
    void setMenuText(std::optional<std::string> menuText) { menuText_ = std::move(menuText); }
    void setToolIcon(std::shared_ptr<platform::Image> toolIcon) { toolIcon_ = std::move(toolIcon); }
    void setMenuIcon(std::shared_ptr<platform::Image> menuIcon) { menuIcon_ = std::move(menuIcon); }

    // Writes everything. Called when the application will terminate; may be called directly. A
    // permanent tool gets its record and its icons (one that is not set leaves an older file), any
    // other tool loses both.
    void appWillExit();

private:
    bool recordDiffersFromStore() const;
    void writeRecord() const;
    void writeToolIcon() const;
    void writeMenuIcon() const;
    void removeIcons() const;

    bool isPermanent_ = false;
    std::optional<std::string> menuText_;
    std::shared_ptr<platform::Image> toolIcon_;
    std::shared_ptr<platform::Image> menuIcon_;
    Handle willTerminate_;
};

}  // namespace utilia
