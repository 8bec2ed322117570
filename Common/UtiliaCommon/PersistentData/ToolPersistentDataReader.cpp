#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

// The record's key puts the identifier first and the file name second; the icon files put them the
// other way round. Both orders are what earlier releases wrote, and both stay.

namespace utilia {
namespace {

using platform::FileManager;
using platform::Image;

constexpr std::string_view kIconFolder = "Library/Caches/Icons";

constexpr std::string_view kWhat = "What a tool left behind";

// "" when there is no memory for it: nothing is stored under that name.
std::string copyOf(std::string_view text) {
    return unlessOutOfMemory(kWhat, [&] { return std::string(text); });
}

bool usableInFileName(std::string_view text) {
    return text.find('/') == std::string_view::npos && text.find('\0') == std::string_view::npos;
}

}  // namespace

ToolPersistentDataReader::ToolPersistentDataReader(std::string_view toolName,
                                                   std::string_view bundleId)
    : toolName_(copyOf(toolName)), toolId_(copyOf(bundleId)) {}

ToolPersistentDataReader::~ToolPersistentDataReader() = default;

std::string ToolPersistentDataReader::entryKey() const { return toolId_ + "_" + toolName_; }

std::optional<Dictionary> ToolPersistentDataReader::getToolDataDict() const {
    std::optional<Dictionary> record;
    unlessOutOfMemory(kWhat, [&] {
        accessAppGroupPlist([&](platform::UserDefaults& suite) {
            if (const auto all = suite.dictionaryForKey(kToolPersistentDataKey))
                record = all->dictionary(entryKey());
        });
    });
    return record;
}

bool ToolPersistentDataReader::isPermanent() const {
    const auto record = getToolDataDict();
    return record && record->boolean(kToolPermanentKey);
}

std::optional<std::string> ToolPersistentDataReader::menuText() const {
    const auto record = getToolDataDict();
    return unlessOutOfMemory(
        kWhat, [&] { return record ? record->string(kToolMenuTextKey) : std::nullopt; });
}

std::optional<std::string> ToolPersistentDataReader::getIconPath(std::string_view kind) const {
    return unlessOutOfMemory(kWhat, [&]() -> std::optional<std::string> {
        const auto container =
            FileManager::containerURLForSecurityApplicationGroupIdentifier(kAppGroupIdentifier);
        if (!container || !usableInFileName(toolName_) || !usableInFileName(toolId_))
            return std::nullopt;
        const std::string folder = stringByAppendingPathComponent(*container, kIconFolder);
        // A folder that cannot be made shows later, when no icon is found or written.
        (void)FileManager::createDirectoryAtPath(folder);
        return stringByAppendingPathComponent(folder, std::string(kind) + "_" + toolName_ + "_" +
                                                          toolId_ + ".tiff");
    });
}

std::shared_ptr<Image> ToolPersistentDataReader::toolIcon() const {
    return unlessOutOfMemory(kWhat, [&]() -> std::shared_ptr<Image> {
        const auto path = getToolIconPath();
        if (!path || !FileManager::fileExistsAtPath(*path)) return nullptr;
        return Image::initByReferencingFile(*path);
    });
}

std::shared_ptr<Image> ToolPersistentDataReader::menuIcon() const {
    return unlessOutOfMemory(kWhat, [&]() -> std::shared_ptr<Image> {
        const auto path = getMenuIconPath();
        if (!path || !FileManager::fileExistsAtPath(*path)) return nullptr;
        auto image = Image::initByReferencingFile(*path);
        const auto flag = FileManager::extendedAttribute(*path, kTemplateAttribute, 1);
        image->setTemplate(flag && flag->size() == 1 && flag->front() != 0);
        return image;
    });
}

}  // namespace utilia
