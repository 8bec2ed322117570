#include "Applications/Agent/Model/ToolList.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/RunLoop.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataServerProvider.h"

namespace utilia::agent {
namespace {

using platform::Bundle;
using platform::Workspace;
using Condition = ToolEntry::Condition;

std::string shortName(std::string_view identifier) {
    if (identifier.starts_with(kToolBundleIdentifierPrefix))
        identifier.remove_prefix(kToolBundleIdentifierPrefix.size());
    // "QuickNotes" is what users know as Quick Notes.
    std::string name;
    for (const char character : identifier) {
        const bool isCapital = character >= 'A' && character <= 'Z';
        if (isCapital && !name.empty() && name.back() >= 'a' && name.back() <= 'z') name += ' ';
        name += character;
    }
    return name;
}

// The tools that are to be started, were they there. The names of their records are those of bundles that may be gone.
std::set<std::string> wantedTools() {
    std::set<std::string> wanted;
    const auto defaults = UtiliaToolLauncher::getDefaults();
    const auto listed = defaults ? defaults->arrayForKey(kLaunchAtLoginToolsKey) : std::nullopt;
    for (const Value& one : listed.value_or(Array())) {
        if (const std::string* const identifier = one.string()) wanted.insert(*identifier);
    }
    Array records;
    accessAppGroupPlist([&records](platform::UserDefaults& suite) {
        records = suite.arrayForKey(kSchedulerKey).value_or(Array());
    });
    const Date now = Date::now();
    for (const Value& one : records) {
        const Dictionary* const record = one.dictionary();
        const auto identifier = record ? record->string(kSchedulerBundleIdKey) : std::nullopt;
        if (!identifier) continue;
        const Value* const date = record->find(kSchedulerDateKey);
        const bool isDue = record->boolean(kSchedulerLaunchAtDateKey) && date && date->date() &&
                           *date->date() <= now;
        if (isDue || record->boolean(kSchedulerLaunchAtLoginKey)) wanted.insert(*identifier);
    }
    return wanted;
}

bool areRestrictedToolsHidden() {
    const auto settings = KAVAdminStorage::init(kKAVOpenExisting, nullptr);
    return settings && settings->boolForKey(kHideRestrictedToolsKey);
}

std::optional<std::string> canonicalName(const std::string& bundlePath) {
    const auto bundle = Bundle::bundleWithPath(bundlePath);
    const auto capabilities =
        bundle ? bundle->infoDictionary().dictionary("ToolCapabilities") : std::nullopt;
    return capabilities ? capabilities->string("CanonicalName") : std::nullopt;
}

std::string nameOfBundle(const std::string& path) {
    const auto bundle = Bundle::bundleWithPath(path);
    const auto name = bundle ? bundle->infoDictionary().string("CFBundleName") : std::nullopt;
    return name && !name->empty() ? *name : stringByDeletingPathExtension(lastPathComponent(path));
}

std::string lowered(std::string text) {
    for (char& character : text) {
        if (character >= 'A' && character <= 'Z')
            character = static_cast<char>(character - 'A' + 'a');
    }
    return text;
}

bool comesBefore(const ToolEntry& left, const ToolEntry& right) {
    return std::pair(lowered(left.name), left.identifier) <
           std::pair(lowered(right.name), right.identifier);
}

// Made anew, and logged, when the administrator has changed what is allowed.
std::shared_ptr<ToolSets> currentToolSets() {
    auto current = ToolSets::sharedInstance();
    if (current && ToolSets::loadWhiteList() == current->whiteList()) return current;
    return ToolSets::createSharedInstance();
}

Error refusal(std::string_view identifier, std::string_view why) {
    return Error::utilia(UtiliaErrorCode::Refused,
                         std::string(identifier) + ": " + std::string(why));
}

}  // namespace

// Held by a shared pointer, so that a handle may end after the list.
struct ToolList::Observers {
    std::map<std::uint64_t, Observer> all;
    std::uint64_t next = 1;
};

ToolList::ToolList(std::chrono::milliseconds gather)
    : gather_(gather), observers_(std::make_shared<Observers>()) {}

ToolList::~ToolList() {
    while (!watched_.empty()) forget(watched_.begin()->first);
}

const ToolEntry* ToolList::find(std::string_view identifier) const {
    const auto found = std::find_if(entries_.begin(), entries_.end(), [&](const ToolEntry& entry) {
        return entry.identifier == identifier;
    });
    return found == entries_.end() ? nullptr : &*found;
}

Handle ToolList::observe(Observer observer) {
    const std::uint64_t number = observers_->next++;
    observers_->all.emplace(number, std::move(observer));
    return Handle([observers = observers_, number] { observers->all.erase(number); });
}

// ---- what there is

ToolEntry ToolList::examine(const std::string& identifier, const ToolSets& toolSets) const {
    ToolEntry entry;
    entry.identifier = identifier;
    entry.name = shortName(identifier);
    const auto path = Workspace::findApplicationWithBundleIdentifier(identifier);
    if (path) {
        entry.path = *path;
        entry.name = nameOfBundle(*path);
        if (!toolSets.isToolAllowedWithBundleId(identifier))
            entry.condition = Condition::Restricted;
    } else {
        const bool isThere = !path.error().is(UtiliaErrorCode::NotFound);
        entry.condition = isThere ? Condition::Damaged : Condition::Missing;
        entry.reason = path.error().description;
    }
    return entry;
}

std::vector<ToolEntry> ToolList::lookAround() const {
    const auto toolSets = currentToolSets();
    const bool isHiding = areRestrictedToolsHidden();
    const std::set<std::string> wanted = wantedTools();
    std::vector<ToolEntry> found;
    for (const std::string& identifier : toolSets->currentUnrestrictedToolSet()) {
        ToolEntry entry = examine(identifier, *toolSets);
        if (entry.condition == Condition::Missing && !wanted.contains(identifier)) continue;
        if (entry.condition == Condition::Restricted && isHiding) continue;
        found.push_back(std::move(entry));
    }
    std::sort(found.begin(), found.end(), comesBefore);
    return found;
}

void ToolList::reload() {
    openPorts(std::exchange(dirty_, {}));
    const std::set<std::string> restarted = std::exchange(restarted_, {});
    std::vector<ToolEntry> fresh = lookAround();
    Change change;
    for (const ToolEntry& old : entries_) {
        const auto now = std::find_if(fresh.begin(), fresh.end(), [&](const ToolEntry& entry) {
            return entry.identifier == old.identifier;
        });
        if (now == fresh.end()) change.gone.push_back(old.identifier);
        if (now == fresh.end() || !now->isReady() || now->path != old.path) forget(old.identifier);
    }
    for (ToolEntry& entry : fresh) {
        if (entry.isReady() && !watched_.contains(entry.identifier)) watch(entry);
        entry = withState(std::move(entry));
        const ToolEntry* const before = find(entry.identifier);
        if (before && *before == entry && !restarted.contains(entry.identifier)) continue;
        change.tools.push_back(entry.identifier);
        if (entry.condition == Condition::Damaged && (!before || before->reason != entry.reason))
            KULogVariadic("Tool %@ is damaged: %@", entry.identifier, entry.reason);
    }
    restarted_.clear();  // of those that are watched from now on, whose state is in the entry
    change.isListChanged =
        !std::equal(fresh.begin(), fresh.end(), entries_.begin(), entries_.end(),
                    [](const auto& a, const auto& b) { return a.identifier == b.identifier; });
    entries_ = std::move(fresh);
    if (!change.isListChanged && change.tools.empty() && change.gone.empty()) return;
    const auto observers = observers_->all;
    for (const auto& [number, observer] : observers) {
        if (observers_->all.contains(number)) observer(change);
    }
}

void ToolList::watch(const ToolEntry& entry) {
    auto proxy = std::make_shared<ToolDataAgentProvider>();
    proxy->setupWithToolURL(entry.path, entry.identifier, canonicalName(entry.path));
    Handle observation =
        proxy->observe([this, identifier = entry.identifier](ToolDataAgentProvider::Property what) {
            if (what == ToolDataAgentProvider::Property::ToolPort) restarted_.insert(identifier);
            changed(identifier);
        });
    watched_[entry.identifier] = {proxy, std::move(observation)};
    proxy->setSending(ToolDataAgentProvider::Sending::KeepsLate);
    proxy->setKeptHandler([this, identifier = entry.identifier](AgentMessage message, Kept fate) {
        if (const auto over = keptOver_) over(identifier, message, fate);
    });
    proxy->setToolIconNeeded(true);
    proxy->setMenuIconNeeded(true);
    proxy->requestStatus();
}

void ToolList::forget(const std::string& identifier) {
    const auto found = watched_.find(identifier);
    if (found == watched_.end()) return;
    const auto proxy = found->second.proxy;
    watched_.erase(found);
    ToolDataServerProvider::sharedInstance().removeTool(proxy);
}

// ---- what changes

void ToolList::changed(const std::string& identifier) {
    dirty_.insert(identifier);
    // The first change begins the time; those that follow in it are gathered.
    if (!delivery_)
        delivery_ = platform::Timer::scheduledTimer(gather_, false, [this] { deliver(); });
}

// A tool that speaks runs, whatever it spoke of. This tells nobody unless the port is new.
void ToolList::openPorts(const std::set<std::string>& identifiers) const {
    for (const std::string& identifier : identifiers) {
        ToolDataAgentProvider* const proxy = proxyOf(identifier);
        if (proxy && !proxy->toolPort()) proxy->ensureToolPortOpen();
    }
}

void ToolList::deliver() {
    delivery_.reset();
    Change change;
    const std::set<std::string> changed = std::exchange(dirty_, {});
    openPorts(changed);
    const std::set<std::string> restarted = std::exchange(restarted_, {});
    for (const std::string& identifier : changed) {
        const auto entry =
            std::find_if(entries_.begin(), entries_.end(),
                         [&](const ToolEntry& one) { return one.identifier == identifier; });
        if (entry == entries_.end()) continue;
        ToolEntry now = withState(*entry);
        if (now == *entry && !restarted.contains(identifier)) continue;
        *entry = std::move(now);
        change.tools.push_back(identifier);
    }
    dirty_.clear();
    if (change.tools.empty()) return;
    const auto observers = observers_->all;
    for (const auto& [number, observer] : observers) {
        if (observers_->all.contains(number)) observer(change);
    }
}

ToolEntry ToolList::withState(ToolEntry entry) const {
    const ToolDataAgentProvider* const proxy = proxyOf(entry.identifier);
    if (!proxy) return entry;
    entry.isRunning = proxy->toolPort() != nullptr;
    entry.status = proxy->status();
    entry.menuText = proxy->menuText().value_or("");
    entry.toolIcon = proxy->toolIcon();
    entry.menuIcon = proxy->menuIcon();
    return entry;
}

ToolDataAgentProvider* ToolList::proxyOf(std::string_view identifier) const {
    const auto found = watched_.find(identifier);
    return found == watched_.end() ? nullptr : found->second.proxy.get();
}

// ---- what the user wants

Result<void> ToolList::activate(std::string_view identifier) {
    const ToolEntry* const entry = find(identifier);
    if (!entry)
        return Error::utilia(UtiliaErrorCode::NotFound,
                             std::string(identifier) + ": is not in the list");
    switch (entry->condition) {
    case Condition::Restricted:
        return refusal(identifier, "the administrator does not allow it");
    case Condition::Damaged:
        return refusal(identifier, entry->reason);
    case Condition::Missing:
        return refusal(identifier, "is not installed");
    case Condition::Ready:
        break;
    }
    ToolDataAgentProvider* const proxy = proxyOf(identifier);
    if (proxy && proxy->sendCommand(AgentMessage::MenuIconClicked)) return {};
    return Workspace::launchAppWithBundleIdentifier(identifier,
                                                    platform::WorkspaceLaunchOptions::Async);
}

Result<void> ToolList::turnOff(std::string_view identifier) {
    const Telling telling = tell(identifier, AgentMessage::TurnToolOff);
    if (telling == Telling::Told || telling == Telling::Kept) return {};
    return Error::utilia(UtiliaErrorCode::NotFound,
                         std::string(identifier) + ": does not run, or does not listen");
}

Telling ToolList::tell(std::string_view identifier, AgentMessage message) {
    ToolDataAgentProvider* const proxy = proxyOf(identifier);
    if (!proxy) return Telling::No;
    if (proxy->sendCommand(message)) return proxy->isKeeping() ? Telling::Kept : Telling::Told;
    // What is kept for a tool that has just ended is no sign that it lives.
    const auto& port = proxy->toolPort();
    return port && port->isValid() && proxy->isKeeping() ? Telling::NoRoom : Telling::No;
}

bool ToolList::isDeaf(std::string_view identifier) const {
    const ToolDataAgentProvider* const proxy = proxyOf(identifier);
    // Held while it is asked: a port that turns out to be dead is given up by the proxy.
    const auto port = proxy ? proxy->toolPort() : nullptr;
    return port && !port->hasRoom() && port->isValid();
}

void ToolList::setKeptHandler(KeptHandler over) { keptOver_ = std::move(over); }

}  // namespace utilia::agent
