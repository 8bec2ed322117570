#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataLazyWriter.h"

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

// At logout many tools end at once. Each changes its own entry while it alone holds the shared
// store, so no entry gets lost; the icons need no lock, as every file appears whole under its name.

namespace utilia {
namespace {

using platform::Bundle;
using platform::FileManager;

constexpr std::string_view kWhat = "What the tool leaves behind";

std::string mainBundleFileName() {
    return unlessOutOfMemory(kWhat, [] {
        const Bundle* const main = Bundle::mainBundle();
        return main ? lastPathComponent(main->bundlePath()) : std::string();
    });
}

std::string mainBundleIdentifier() {
    return unlessOutOfMemory(kWhat, [] {
        const Bundle* const main = Bundle::mainBundle();
        return main ? main->bundleIdentifier().value_or(std::string()) : std::string();
    });
}

void writeIcon(const std::shared_ptr<platform::Image>& icon, const std::optional<std::string>& path,
               std::span<const FileManager::ExtendedAttribute> attributes) {
    if (!icon || !path) return;
    // A failed write leaves the older icon; an ending application has nobody to tell.
    if (const auto bytes = icon->TIFFRepresentation()) {
        (void)FileManager::writeAtomically(*path, *bytes, attributes);
        return;
    }
    // An icon without a picture still says of the older one whether it is a template.
    for (const auto& attribute : attributes) {
        (void)FileManager::setExtendedAttribute(*path, attribute.name, attribute.value);
    }
}

}  // namespace

ToolPersistentDataLazyWriter::ToolPersistentDataLazyWriter()
    : ToolPersistentDataReader(mainBundleFileName(), mainBundleIdentifier()) {
    isPermanent_ = ToolPersistentDataReader::isPermanent();
    menuText_ = ToolPersistentDataReader::menuText();
    willTerminate_ = platform::NotificationCenter::defaultCenter().addObserver(
        platform::NSApplicationWillTerminateNotification, nullptr,
        [this](const void*) { appWillExit(); });
}

ToolPersistentDataLazyWriter::~ToolPersistentDataLazyWriter() = default;

void ToolPersistentDataLazyWriter::appWillExit() {
    // Without a bundle there is no name under which anybody would look for the data.
    if (toolId().empty() || toolName().empty()) return;
    // Each by itself: what there is no memory for keeps nothing else from being stored.
    unlessOutOfMemory(kWhat, [this] {
        if (recordDiffersFromStore()) writeRecord();
    });
    if (isPermanent_) {
        unlessOutOfMemory(kWhat, [this] { writeToolIcon(); });
        unlessOutOfMemory(kWhat, [this] { writeMenuIcon(); });
    } else {
        unlessOutOfMemory(kWhat, [this] { removeIcons(); });
    }
}

bool ToolPersistentDataLazyWriter::recordDiffersFromStore() const {
    if (ToolPersistentDataReader::isPermanent() != isPermanent_) return true;
    // Texts are compared as objects: one that was read just now is never the one held here, so only
    // two absent texts are the same and any other text is written again at every end.
    return menuText_.has_value() || ToolPersistentDataReader::menuText().has_value();
}

void ToolPersistentDataLazyWriter::writeRecord() const {
    accessAppGroupPlist([this](platform::UserDefaults& suite) {
        Dictionary all = suite.dictionaryForKey(kToolPersistentDataKey).value_or(Dictionary());
        if (isPermanent_) {
            Dictionary record{{std::string(kToolPermanentKey), true}};
            if (menuText_) record.set(kToolMenuTextKey, *menuText_);
            all.set(entryKey(), std::move(record));
        } else {
            all.remove(entryKey());
        }
        suite.setObject(std::move(all), kToolPersistentDataKey);
        suite.synchronize();
    });
}

void ToolPersistentDataLazyWriter::writeToolIcon() const {
    writeIcon(toolIcon_, getToolIconPath(), {});
}

void ToolPersistentDataLazyWriter::writeMenuIcon() const {
    if (!menuIcon_) return;
    const FileManager::ExtendedAttribute isTemplate{
        std::string(kTemplateAttribute),
        Data{static_cast<std::uint8_t>(menuIcon_->isTemplate() ? 1 : 0)}};
    writeIcon(menuIcon_, getMenuIconPath(), std::span(&isTemplate, 1));
}

void ToolPersistentDataLazyWriter::removeIcons() const {
    for (const auto& path : {getToolIconPath(), getMenuIconPath()}) {
        if (path) (void)FileManager::removeItemAtPath(*path);
    }
}

}  // namespace utilia
