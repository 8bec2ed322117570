#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"

#include <algorithm>
#include <new>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/LoginItems.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"
#include "Common/UtiliaCommon/LocalizedTexts.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

namespace utilia {
namespace {

using platform::LoginItem;
using platform::LoginItems;

constexpr std::string_view kWhat = "Login items";
constexpr std::string_view kDescriptions = "Update descriptions";
constexpr std::string_view kSuggestions = "Tool suggestions";

struct List {
    LoginItems items;
    std::vector<LoginItem> snapshot;
};

std::optional<List> openList() {
    auto items = LoginItems::create();
    auto snapshot =
        items ? items->snapshot() : Result<std::vector<LoginItem>>(std::move(items).error());
    if (snapshot) return List{*std::move(items), *std::move(snapshot)};
    KULogVariadic("Login items: %@", snapshot.error());
    return std::nullopt;
}

bool isSame(const std::optional<std::string>& itemURL, const std::optional<std::string>& url) {
    return itemURL && url && *itemURL == *url;
}

bool isOfSameName(const std::optional<std::string>& itemURL,
                  const std::optional<std::string>& url) {
    return itemURL && url && lastPathComponent(*itemURL) == lastPathComponent(*url);
}

void remove(const List& list, const LoginItem& item) {
    if (const auto removed = list.items.remove(item); !removed)
        KULogVariadic("Login items: %@", removed.error());
}

bool isRunningTool(const Value& bundleIdentifier) {
    const std::string* const text = bundleIdentifier.string();
    return text &&
           !platform::RunningApplication::runningApplicationsWithBundleIdentifier(*text).empty();
}

// What fails while an image is exported is answered by nothing, and no line in the log tells of it.
template <class Function>
std::invoke_result_t<Function> orNothing(Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return {};
    }
}

std::optional<Data> dataOf(Result<Data> exported) {
    if (!exported) return std::nullopt;
    return *std::move(exported);
}

bool isSaved(const Result<Data>& exported, std::string_view path) {
    return exported && platform::FileManager::writeToFile(path, *exported);
}

}  // namespace

CommonAuxiliary& CommonAuxiliary::sharedInstance() {
    static CommonAuxiliary* const instance = new CommonAuxiliary;
    return *instance;
}

bool CommonAuxiliary::addAppToLoginItems(const std::optional<std::string>& url) {
    return unlessOutOfMemory(kWhat, [&] {
        const auto list = openList();
        if (!list) return false;
        bool isFound = false;
        for (const LoginItem& item : list->snapshot) {
            if (isSame(item.resolvedURL(), url)) {
                isFound = true;
            } else if (isOfSameName(item.resolvedURL(), url)) {
                remove(*list, item);
            }
        }
        if (isFound) return true;
        if (!url) return false;
        const auto inserted = list->items.insertAtEnd(*url);
        if (!inserted) KULogVariadic("Login items: %@", inserted.error());
        return inserted.has_value();
    });
}

bool CommonAuxiliary::removeAppFromLoginItems(const std::optional<std::string>& url) {
    return unlessOutOfMemory(kWhat, [&] {
        const auto list = openList();
        if (!list) return false;
        for (const LoginItem& item : list->snapshot) {
            if (isOfSameName(item.resolvedURL(), url)) remove(*list, item);
        }
        return true;
    });
}

bool CommonAuxiliary::findAppInLoginItems(const std::optional<std::string>& url) {
    return unlessOutOfMemory(kWhat, [&] {
        const auto list = openList();
        if (!list) return false;
        return std::any_of(list->snapshot.begin(), list->snapshot.end(),
                           [&](const LoginItem& item) { return isSame(item.resolvedURL(), url); });
    });
}

std::optional<std::string>
CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(const std::optional<IndexPath>& version) {
    return unlessOutOfMemory(kDescriptions, [&]() -> std::optional<std::string> {
        const auto defaults = UtiliaToolLauncher::getDefaults();
        const auto descriptions =
            defaults ? defaults->dictionaryForKey(kUpdateDescriptionsKey) : std::nullopt;
        if (!descriptions) return std::nullopt;
        const auto texts =
            descriptions->dictionary(VersionManager::versionToStringReportForm(version));
        if (!texts) return std::nullopt;
        if (auto text = texts->string(localizedText(kLanguageCodeText))) return text;
        return texts->string(kEnglishDescriptionKey);
    });
}

void CommonAuxiliary::saveUpdateDescription(const std::optional<Dictionary>& description,
                                            const std::optional<IndexPath>& forVersion) {
    unlessOutOfMemory(kDescriptions, [&] {
        const auto defaults = UtiliaToolLauncher::getDefaults();
        if (!defaults) return;
        const std::string key = VersionManager::versionToStringReportForm(forVersion);
        Dictionary descriptions =
            defaults->dictionaryForKey(kUpdateDescriptionsKey).value_or(Dictionary());
        if (description) {
            descriptions.set(key, *description);
        } else {
            descriptions.remove(key);
        }
        defaults->setObject(std::move(descriptions), kUpdateDescriptionsKey);
        defaults->synchronize();
    });
}

void CommonAuxiliary::pauseToolsSuggestions(bool pause, std::string_view byTool) {
    unlessOutOfMemory(kSuggestions, [&] {
        accessAppGroupPlist([pause, byTool](platform::UserDefaults& suite) {
            Array list = suite.arrayForKey(kToolsSuggestionsPausedByKey).value_or(Array());
            const auto* const found = std::find(list.begin(), list.end(), Value(byTool));
            const bool isPausing = found != list.end();
            if (pause == isPausing) return;
            if (pause) {
                list.append(Value(byTool));
            } else {
                list.removeAt(static_cast<std::size_t>(found - list.begin()));
            }
            suite.setObject(std::move(list), kToolsSuggestionsPausedByKey);
            suite.synchronize();
        });
    });
}

bool CommonAuxiliary::areToolsSuggestionsPaused() {
    bool isPaused = false;
    unlessOutOfMemory(kSuggestions, [&isPaused] {
        accessAppGroupPlist([&isPaused](platform::UserDefaults& suite) {
            const Array list = suite.arrayForKey(kToolsSuggestionsPausedByKey).value_or(Array());
            if (list.empty()) return;
            Array running;
            for (const Value& tool : list) {
                if (isRunningTool(tool)) running.append(tool);
            }
            isPaused = !running.empty();
            if (!isPaused) {
                suite.removeObjectForKey(kToolsSuggestionsPausedByKey);
            } else if (running.size() < list.size()) {
                suite.setObject(std::move(running), kToolsSuggestionsPausedByKey);
            }
            suite.synchronize();
        });
    });
    return isPaused;
}

std::optional<Data>
CommonAuxiliary::dataForImageAsPDF(const std::shared_ptr<platform::Image>& image,
                                   std::uint64_t pageHeight,
                                   const platform::ExportProgress& progress) {
    return orNothing([&] { return dataOf(exportedPDF(image, pageHeight, progress)); });
}

bool CommonAuxiliary::saveImageAsPDF(const std::shared_ptr<platform::Image>& image,
                                     std::string_view toFile, std::uint64_t pageHeight,
                                     const platform::ExportProgress& progress) {
    return orNothing([&] { return isSaved(exportedPDF(image, pageHeight, progress), toFile); });
}

std::optional<Data> CommonAuxiliary::dataForImage(const std::shared_ptr<platform::Image>& image,
                                                  platform::BitmapImageFileType asType,
                                                  const platform::ExportProgress& progress) {
    return orNothing([&] { return dataOf(exportedBitmap(image, asType, progress)); });
}

bool CommonAuxiliary::saveImage(const std::shared_ptr<platform::Image>& image,
                                platform::BitmapImageFileType asType, std::string_view toFile,
                                const platform::ExportProgress& progress) {
    return orNothing([&] { return isSaved(exportedBitmap(image, asType, progress), toFile); });
}

std::shared_ptr<platform::Image> CommonAuxiliary::watermarkImage() {
    return orNothing([]() -> std::shared_ptr<platform::Image> {
        const platform::Bundle* const bundle = platform::Bundle::frameworkBundle();
        return bundle ? bundle->imageForResource("Watermark") : nullptr;
    });
}

}  // namespace utilia
