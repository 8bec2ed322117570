#include "Common/UtiliaCommon/ToolDataProvider/ToolDataAgentProvider.h"

#include <chrono>
#include <map>
#include <utility>
#include <vector>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/CallbackGuard.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataServerProvider.h"

namespace utilia {
namespace {

using platform::NotificationCenter;
using platform::PortMessage;
using platform::PortNameServer;

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

ToolDataAgentProvider::ToolDataAgentProvider() : observers_(std::make_shared<Observers>()) {}

// The port server holds every listed proxy, so a proxy that ends is not listed any more.
ToolDataAgentProvider::~ToolDataAgentProvider() = default;

void ToolDataAgentProvider::setupWithToolURL(std::string_view toolURL, std::string_view bundleId,
                                             std::optional<std::string> canonicalName) {
    name_ = withoutTrailingSlashes(toolURL);
    canonicalName_ = std::move(canonicalName);
    canonicalPath_ = canonicalToolPath(name_, canonicalName_);
    bundleId_ = bundleId;
    persist_ = std::make_shared<ToolPersistentDataReader>(lastPathComponent(name_), bundleId);
    ToolDataServerProvider::sharedInstance().addTool(shared_from_this());
}

bool ToolDataAgentProvider::matches(std::string_view toolPath) const {
    return toolPath == name_ || (canonicalName_ && toolPath == canonicalPath_);
}

bool ToolDataAgentProvider::ensureToolPortOpen() {
    if (toolPort_) return true;
    const auto self = weak_from_this().lock();
    toolPort_ =
        PortNameServer::systemDefaultPortNameServer().portForName(toolPortName(canonicalPath_));
    if (!toolPort_) return false;
    toolPortInvalid_ = NotificationCenter::defaultCenter().addObserver(
        platform::NSPortDidBecomeInvalidNotification, toolPort_.get(),
        [this](const void*) { portDied(); });
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
    std::vector<PortMessage::Component> components;
    if (params) components.push_back(*params);
    PortMessage message(toolPort_, std::move(components));
    message.setMsgid(static_cast<std::uint32_t>(id));
    try {
        message.sendBeforeDate(std::chrono::steady_clock::now() + sendTimeout(id));
    } catch (const platform::PortException& exception) {
        // Says "Agent port" of a tool's port. It always has, and people search their logs for it.
        KULogVariadic("Failed to send Command to Agent port. Exception: %@ Reason: %@",
                      exception.name(), exception.reason());
        return false;
    }
    return true;
}

void ToolDataAgentProvider::requestStatus() {
    const auto self = weak_from_this().lock();
    if (sendCommand(AgentMessage::StatusRequest)) return;
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
    const std::uint64_t id = observers_->next++;
    observers_->all.emplace(id, std::make_shared<const Observer>(std::move(observer)));
    return Handle([weak = std::weak_ptr(observers_), id] {
        if (const auto observers = weak.lock()) observers->all.erase(id);
    });
}

void ToolDataAgentProvider::changed(Property property) {
    if (observers_->all.empty()) return;
    // An observer may end any handle; one that was ended is not called any more.
    const auto self = weak_from_this().lock();
    const auto observers = observers_;
    std::vector<std::uint64_t> ids;
    ids.reserve(observers->all.size());
    for (const auto& [id, observer] : observers->all) ids.push_back(id);
    for (const std::uint64_t id : ids) {
        const auto found = observers->all.find(id);
        if (found == observers->all.end()) continue;
        const auto observer = found->second;
        // One that throws keeps neither the others nor the tool's further proxies from the news.
        runGuarded("An observer of a tool", [&] { (*observer)(property); });
    }
}

}  // namespace utilia
