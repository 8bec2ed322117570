#include "Common/UtiliaCommon/ToolDataProvider/ToolDataAgentProvider.h"

#include <chrono>
#include <map>
#include <utility>
#include <vector>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/CallbackGuard.h"
#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/UtiliaCommon/ToolDataProvider/KeptCommandsInternal.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataServerProvider.h"

namespace utilia {
namespace {

using platform::NotificationCenter;
using platform::PortMessage;
using platform::PortNameServer;

constexpr std::string_view kWhat = "The channel to a tool";

// Says "Agent port" of a tool's port. It always has, and people search their logs for it.
void logFailure(const platform::PortException& exception) {
    KULogVariadic("Failed to send Command to Agent port. Exception: %@ Reason: %@",
                  exception.name(), exception.reason());
}

// As a URL gives it: both ends form their texts from this one.
std::string withoutTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
    return std::string(path);
}

}  // namespace

// Observers may remove the proxy that tells them, so whatever calls out holds the proxy until it
// returns (`self`).

// Kept apart from the proxy, so that a handle may outlive it.
struct ToolDataAgentProvider::Observers {
    std::uint64_t next = 0;
    std::map<std::uint64_t, std::shared_ptr<const Observer>> all;
};

ToolDataAgentProvider::ToolDataAgentProvider() = default;

// The port server holds every listed proxy, so a proxy that ends is not listed any more.
ToolDataAgentProvider::~ToolDataAgentProvider() = default;

void ToolDataAgentProvider::setupWithToolURL(std::string_view toolURL, std::string_view bundleId,
                                             std::optional<std::string> canonicalName) {
    const bool isSetUp = unlessOutOfMemory(kWhat, [&] {
        std::string name = withoutTrailingSlashes(toolURL);
        std::string canonicalPath = canonicalToolPath(name, canonicalName);
        std::string identifier(bundleId);
        persist_ = std::make_shared<ToolPersistentDataReader>(lastPathComponent(name), identifier);
        name_ = std::move(name);
        canonicalName_ = std::move(canonicalName);
        canonicalPath_ = std::move(canonicalPath);
        bundleId_ = std::move(identifier);
        return true;
    });
    if (isSetUp) ToolDataServerProvider::sharedInstance().addTool(shared_from_this());
}

bool ToolDataAgentProvider::matches(std::string_view toolPath) const {
    return toolPath == name_ || (canonicalName_ && toolPath == canonicalPath_);
}

bool ToolDataAgentProvider::ensureToolPortOpen() {
    if (toolPort_) return true;
    const auto self = weak_from_this().lock();
    auto port = unlessOutOfMemory(kWhat, [this] {
        return PortNameServer::systemDefaultPortNameServer().portForName(
            toolPortName(canonicalPath_));
    });
    if (!port) return false;
    auto invalid = NotificationCenter::defaultCenter().addObserver(
        platform::NSPortDidBecomeInvalidNotification, port.get(),
        [this](const void*) { portDied(); });
    // A port whose end would go unnoticed is not held.
    if (!invalid) return false;
    toolPort_ = std::move(port);
    toolPortInvalid_ = std::move(invalid);
    changed(Property::ToolPort);
    sendToolIconNeeded();
    sendMenuIconNeeded();
    return toolPort_ != nullptr;
}

void ToolDataAgentProvider::portDied() {
    if (!toolPort_) return;
    const auto self = weak_from_this().lock();
    toolPortInvalid_.reset();
    toolPort_ = nullptr;
    changed(Property::ToolPort);
    if (status_ == kToolStatusActive) {
        setStatus(kToolStatusInactive);
    } else if (status_ == kToolStatusPermanent) {
        setPermanentIcons();
    }
}

void ToolDataAgentProvider::setStatus(std::uint64_t status) {
    const auto self = weak_from_this().lock();
    const bool isOpen = ensureToolPortOpen();
    status_ = status == kToolStatusActive && !isOpen ? kToolStatusInactive : status;
    changed(Property::Status);
}

void ToolDataAgentProvider::setWasLaunched(bool wasLaunched) {
    wasLaunched_ = wasLaunched;
    changed(Property::WasLaunched);
}

void ToolDataAgentProvider::setToolIcon(std::shared_ptr<platform::Image> toolIcon) {
    toolIcon_ = std::move(toolIcon);
    changed(Property::ToolIcon);
}

void ToolDataAgentProvider::setMenuIcon(std::shared_ptr<platform::Image> menuIcon) {
    menuIcon_ = std::move(menuIcon);
    changed(Property::MenuIcon);
}

void ToolDataAgentProvider::setMenuText(std::optional<std::string> menuText) {
    menuText_ = std::move(menuText);
    changed(Property::MenuText);
}

void ToolDataAgentProvider::setPersist(std::shared_ptr<ToolPersistentDataReader> persist) {
    persist_ = std::move(persist);
}

void ToolDataAgentProvider::setToolIconNeeded(bool needed) {
    if (toolIconNeeded_ == needed) return;
    const auto self = weak_from_this().lock();
    toolIconNeeded_ = needed;
    sendToolIconNeeded();
    changed(Property::ToolIconNeeded);
}

void ToolDataAgentProvider::setMenuIconNeeded(bool needed) {
    if (menuIconNeeded_ == needed) return;
    const auto self = weak_from_this().lock();
    menuIconNeeded_ = needed;
    sendMenuIconNeeded();
    changed(Property::MenuIconNeeded);
}

void ToolDataAgentProvider::sendToolIconNeeded() {
    sendWish(AgentMessage::ToolIconNeeded, toolIconNeeded_);
}

void ToolDataAgentProvider::sendMenuIconNeeded() {
    sendWish(AgentMessage::MenuIconNeeded, menuIconNeeded_);
}

void ToolDataAgentProvider::sendWish(AgentMessage message, bool needed) {
    const auto flag = encodeFlag(needed);
    sendCommand(message, PortMessage::Component(flag));
}

bool ToolDataAgentProvider::sendCommand(AgentMessage id,
                                        std::optional<PortMessage::Component> params) {
    const auto self = weak_from_this().lock();
    if (!ensureToolPortOpen()) return false;
    return unlessOutOfMemory(kWhat, [&] {
        try {
            send(id, params);
        } catch (const platform::PortException& exception) {
            logFailure(exception);
            return false;
        }
        return true;
    });
}

void ToolDataAgentProvider::send(AgentMessage id, std::optional<PortMessage::Component> params) {
    if (kept_) return kept_->send(toolPort_, id, params);
    sendAgentMessage(toolPort_, id, params, std::chrono::steady_clock::now() + sendTimeout(id));
}

void ToolDataAgentProvider::setSending(Sending sending) {
    kept_.reset();
    if (sending == Sending::Waits) return;
    unlessOutOfMemory(kWhat, [this] {
        kept_ = std::make_shared<KeptCommands>(
            [weak = weak_from_this()](AgentMessage id, const platform::PortException* failure) {
                if (const auto self = weak.lock()) self->keptCommandIsOver(id, failure);
            });
    });
}

void ToolDataAgentProvider::setKeptHandler(std::function<void(AgentMessage, Kept)> over) {
    keptOver_ = std::move(over);
}

bool ToolDataAgentProvider::isKeeping() const { return kept_ && !kept_->isEmpty(); }

void ToolDataAgentProvider::keptCommandIsOver(AgentMessage id,
                                              const platform::PortException* failure) {
    if (failure) {
        logFailure(*failure);
        if (id == AgentMessage::StatusRequest) showPersisted();
    }
    if (const auto over = keptOver_) over(id, failure ? Kept::Failed : Kept::Sent);
}

void ToolDataAgentProvider::requestStatus() {
    const auto self = weak_from_this().lock();
    if (!sendCommand(AgentMessage::StatusRequest)) showPersisted();
}

void ToolDataAgentProvider::showPersisted() {
    if (!persist_ || !persist_->isPermanent()) return;
    setStatus(kToolStatusPermanent);
    setPermanentIcons();
}

void ToolDataAgentProvider::setPermanentIcons() {
    if (!persist_) return;
    const auto self = weak_from_this().lock();
    if (auto icon = persist_->toolIcon()) setToolIcon(std::move(icon));
    if (auto icon = persist_->menuIcon()) setMenuIcon(std::move(icon));
    if (auto text = persist_->menuText()) setMenuText(std::move(text));
}

Handle ToolDataAgentProvider::observe(Observer observer) {
    return unlessOutOfMemory(kWhat, [&] {
        if (!observers_) observers_ = std::make_shared<Observers>();
        const std::uint64_t id = observers_->next;
        // Made first: an observer that nobody could end must not be told anything.
        Handle handle([weak = std::weak_ptr(observers_), id] {
            if (const auto observers = weak.lock()) observers->all.erase(id);
        });
        observers_->all.emplace(id, std::make_shared<const Observer>(std::move(observer)));
        ++observers_->next;
        return handle;
    });
}

void ToolDataAgentProvider::changed(Property property) {
    if (!observers_) return;
    // An observer may end any handle, and observe anew: one that was ended is not called any more,
    // a new one not yet.
    const auto self = weak_from_this().lock();
    const auto observers = observers_;
    const std::uint64_t end = observers->next;
    auto each = observers->all.begin();
    while (each != observers->all.end() && each->first < end) {
        const std::uint64_t id = each->first;
        const auto observer = each->second;
        // One that throws keeps neither the others nor the tool's further proxies from the news.
        runGuarded("An observer of a tool", [&] { (*observer)(property); });
        each = observers->all.upper_bound(id);
    }
}

}  // namespace utilia
