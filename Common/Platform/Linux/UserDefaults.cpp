#include "Common/Platform/UserDefaults.h"

#include <algorithm>
#include <charconv>
#include <utility>
#include <vector>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Linux/Folders.h"
#include "Common/Platform/Linux/PreferencesDomain.h"
#include "Common/Platform/Linux/PropertyListRules.h"

namespace utilia::platform {
namespace {

constexpr std::string_view kExtension = ".plist";
constexpr std::string_view kGlobalDomain = "NSGlobalDomain";
// A file name has 255 bytes, and a set-aside file's is the longest that is made of a domain's.
constexpr std::size_t kLongestDomain = 200;

bool isDomainName(std::string_view name) {
    return !name.empty() && name.size() <= kLongestDomain && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos && isPropertyListText(name);
}

std::string fileIn(const std::string& folder, std::string_view domain) {
    return stringByAppendingPathComponent(folder, std::string(domain) + std::string(kExtension));
}

std::string ownIdentifier() {
    const Bundle* bundle = Bundle::mainBundle();
    return bundle ? bundle->bundleIdentifier().value_or("") : "";
}

constexpr std::string_view kWhat = "Preferences";

std::string numberText(double number) {
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

}  // namespace

struct UserDefaults::Implementation {
    enum class Writing { Through, Gathered };

    std::string path;
    std::shared_ptr<PreferencesDomain> domain;  // null for the domain without a name
    Writing writing = Writing::Through;
    std::vector<PreferencesDomain::Change> pending;
    bool hasLostSet = false;  // there was no memory to keep it
    // Keys whose last read failed. Who sets one of them next has made its value without knowing the
    // stored one, in which other processes keep their share.
    mutable std::vector<std::string> unread;
    mutable bool isAnyUnread = false;  // there was no memory to read one, or to note its key

    const PreferencesDomain::Change* pendingChange(std::string_view key) const {
        const auto found = std::find_if(pending.begin(), pending.end(),
                                        [&](const auto& change) { return change.key == key; });
        return found == pending.end() ? nullptr : &*found;
    }

    std::optional<Value> value(std::string_view key) const {
        if (const auto* change = pendingChange(key)) return change->value;
        if (!domain) return std::nullopt;
        const bool wasAnyUnread = std::exchange(isAnyUnread, true);
        auto found = domain->value(key);
        std::erase(unread, key);
        if (!found) unread.emplace_back(key);
        isAnyUnread = wasAnyUnread;
        return found ? *std::move(found) : std::nullopt;
    }

    void set(std::string_view key, std::optional<Value> value) {
        if (const auto* change = pendingChange(key)) {
            pending[static_cast<std::size_t>(change - pending.data())].value = std::move(value);
        } else {
            pending.push_back({std::string(key), std::move(value)});
        }
        if (writing == Writing::Gathered) return;
        if (dropUninformed()) hasLostSet = true;
        write();
    }

    bool write() {
        const bool isWhole = !dropUninformed();
        if (pending.empty()) return isWhole;
        if (!domain || !domain->apply(pending)) return false;
        pending.clear();
        return isWhole;
    }

    bool dropUninformed() {
        const auto dropped = std::erase_if(pending, [this](const auto& change) {
            return isAnyUnread ||
                   std::find(unread.begin(), unread.end(), change.key) != unread.end();
        });
        unread.clear();
        isAnyUnread = false;
        if (dropped > 0) {
            KULogVariadic(
                "A change of the preferences %@ is not written: it was made while they could not "
                "be read.",
                path);
        }
        return dropped > 0;
    }
};

UserDefaults& UserDefaults::standardUserDefaults() {
    static UserDefaults* const instance = [] {
        auto own = initWithDomain(ownIdentifier());
        return own ? own.release() : new UserDefaults(std::make_unique<Implementation>());
    }();
    return *instance;
}

std::unique_ptr<UserDefaults> UserDefaults::initWithDomain(std::string_view bundleIdentifier) {
    return unlessOutOfMemory(kWhat, [&]() -> std::unique_ptr<UserDefaults> {
        if (!isDomainName(bundleIdentifier)) return nullptr;
        auto implementation = std::make_unique<Implementation>();
        implementation->path = fileIn(preferencesFolderPath(), bundleIdentifier);
        implementation->domain = PreferencesDomain::at(implementation->path);
        return std::unique_ptr<UserDefaults>(new UserDefaults(std::move(implementation)));
    });
}

std::unique_ptr<UserDefaults> UserDefaults::initWithSuiteName(std::string_view name) {
    return unlessOutOfMemory(kWhat, [&]() -> std::unique_ptr<UserDefaults> {
        if (!isDomainName(name) || name == kGlobalDomain || name == ownIdentifier()) return nullptr;
        auto implementation = std::make_unique<Implementation>();
        implementation->path = fileIn(groupContainerPath(name) + "/Library/Preferences", name);
        implementation->domain = PreferencesDomain::at(implementation->path);
        implementation->writing = Implementation::Writing::Gathered;
        return std::unique_ptr<UserDefaults>(new UserDefaults(std::move(implementation)));
    });
}

UserDefaults::UserDefaults(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}

UserDefaults::~UserDefaults() { synchronize(); }

std::optional<Value> UserDefaults::objectForKey(std::string_view key) const {
    return unlessOutOfMemory(kWhat, [&] { return implementation_->value(key); });
}

std::optional<Array> UserDefaults::arrayForKey(std::string_view key) const {
    const auto value = objectForKey(key);
    return value && value->array() ? std::optional<Array>(*value->array()) : std::nullopt;
}

std::optional<Dictionary> UserDefaults::dictionaryForKey(std::string_view key) const {
    const auto value = objectForKey(key);
    return value && value->dictionary() ? std::optional<Dictionary>(*value->dictionary())
                                        : std::nullopt;
}

std::optional<Data> UserDefaults::dataForKey(std::string_view key) const {
    return unlessOutOfMemory(kWhat, [&] {
        const auto value = objectForKey(key);
        return value && value->data() ? std::optional<Data>(*value->data()) : std::nullopt;
    });
}

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) const {
    return unlessOutOfMemory(kWhat, [&]() -> std::optional<std::string> {
        const auto value = objectForKey(key);
        if (!value) return std::nullopt;
        if (const auto* text = value->string()) return *text;
        if (const auto* number = value->integer()) return std::to_string(*number);
        if (const auto* number = value->largeInteger()) return std::to_string(*number);
        if (const auto* number = value->real()) return numberText(*number);
        if (const auto* number = value->boolean()) return *number ? "1" : "0";
        return std::nullopt;
    });
}

bool UserDefaults::boolForKey(std::string_view key) const {
    const auto value = objectForKey(key);
    return value && value->boolValue();
}

std::int64_t UserDefaults::integerForKey(std::string_view key) const {
    const auto value = objectForKey(key);
    return value ? value->longLongValue() : 0;
}

double UserDefaults::doubleForKey(std::string_view key) const {
    const auto value = objectForKey(key);
    return value ? value->doubleValue() : 0;
}

Dictionary UserDefaults::dictionaryRepresentation() const {
    return unlessOutOfMemory(kWhat, [&] {
        Dictionary all =
            implementation_->domain ? implementation_->domain->content() : Dictionary();
        PreferencesDomain::change(all, implementation_->pending);
        return all;
    });
}

void UserDefaults::setObject(Value value, std::string_view forKey) {
    const bool isKept = unlessOutOfMemory(kWhat, [&] {
        if (auto checked = checkPropertyList(Dictionary{{std::string(forKey), value}}); !checked) {
            KULogVariadic("A value for the preferences %@ is refused: %@", path(),
                          checked.error().description);
            return true;
        }
        implementation_->set(forKey, std::move(value));
        return true;
    });
    if (!isKept) implementation_->hasLostSet = true;
}

void UserDefaults::removeObjectForKey(std::string_view key) {
    const bool isKept =
        unlessOutOfMemory(kWhat, [&] { return implementation_->set(key, std::nullopt), true; });
    if (!isKept) implementation_->hasLostSet = true;
}

bool UserDefaults::synchronize() {
    const bool isComplete = !std::exchange(implementation_->hasLostSet, false);
    return unlessOutOfMemory(kWhat, [&] { return implementation_->write(); }) && isComplete;
}

const std::string& UserDefaults::path() const { return implementation_->path; }

}  // namespace utilia::platform
