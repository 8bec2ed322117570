#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"

#include <algorithm>
#include <vector>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/LoginItems.h"

namespace utilia {
namespace {

using platform::LoginItem;
using platform::LoginItems;

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

}  // namespace

CommonAuxiliary& CommonAuxiliary::sharedInstance() {
    static CommonAuxiliary* const instance = new CommonAuxiliary;
    return *instance;
}

bool CommonAuxiliary::addAppToLoginItems(const std::optional<std::string>& url) {
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
}

bool CommonAuxiliary::removeAppFromLoginItems(const std::optional<std::string>& url) {
    const auto list = openList();
    if (!list) return false;
    for (const LoginItem& item : list->snapshot) {
        if (isOfSameName(item.resolvedURL(), url)) remove(*list, item);
    }
    return true;
}

bool CommonAuxiliary::findAppInLoginItems(const std::optional<std::string>& url) {
    const auto list = openList();
    return list && std::any_of(list->snapshot.begin(), list->snapshot.end(),
                               [&](const auto& item) { return isSame(item.resolvedURL(), url); });
}

}  // namespace utilia
