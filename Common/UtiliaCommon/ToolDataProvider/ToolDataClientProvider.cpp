#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"

#include <chrono>
#include <cstdlib>

#include "Common/Foundation/StringHash.h"
#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/RunLoop.h"
#include "Common/Platform/Workspace.h"

// Nothing here keeps looking for an agent. Its port is looked up at the moment when there is
// something to say, and forgotten when it ends. A tool that is started before its agent, or
// outlives it, so finds the next one by itself: with its next message at the latest.

namespace utilia {
namespace {

using platform::Application;
using platform::Bundle;
using platform::FileManager;
using platform::NotificationCenter;
using platform::Port;
using platform::PortMessage;
using platform::PortNameServer;

constexpr std::string_view kWhat = "The channel to the agent";
constexpr std::string_view kToolCapabilitiesKey = "ToolCapabilities";
constexpr std::string_view kCanonicalNameKey = "CanonicalName";

std::string mainBundlePath() {
    const Bundle* const main = Bundle::mainBundle();
    return main ? main->bundlePath() : std::string();
}

std::optional<std::string> declaredCanonicalName(const Bundle* bundle) {
    const auto capabilities =
        bundle ? bundle->infoDictionary().dictionary(kToolCapabilitiesKey) : std::nullopt;
    return capabilities ? capabilities->string(kCanonicalNameKey) : std::nullopt;
}

}  // namespace

ToolDataClientProvider::ToolDataClientProvider() {
    unlessOutOfMemory(kWhat, [this] { openServicePort(); });
    persist_.emplace();
    if (persist_->isPermanent()) {
        toolStatus_ = kToolStatusPermanent;
        unlessOutOfMemory(kWhat, [this] { menuText_ = persist_->menuText(); });
    }
    if (Application::sharedApplication().isFinishedLaunching()) {
        appDidFinishLaunching();
    } else {
        didFinishLaunching_ = NotificationCenter::defaultCenter().addObserver(
            platform::NSApplicationDidFinishLaunchingNotification, nullptr,
            [this](const void*) { appDidFinishLaunching(); });
    }
}

void ToolDataClientProvider::openServicePort() {
    const std::string path = mainBundlePath();
    toolId_.assign(path.begin(), path.end());
    portName_ = std::string(kToolPortNamePrefix) +
                hexadecimal(portNameHashFromBundle(Bundle::mainBundle()));
    servicePort_ = Port::port();
    servicePort_->setDelegate(this);
    PortNameServer::systemDefaultPortNameServer().registerPort(servicePort_, portName_);
    servicePort_->scheduleInRunLoop();
}

ToolDataClientProvider::~ToolDataClientProvider() {
    unsubscribeFromAgentPort();
    if (!servicePort_) return;
    servicePort_->invalidate();
    servicePort_->removeFromRunLoop();
    servicePort_->setDelegate(nullptr);
}

void ToolDataClientProvider::setServicePort(std::shared_ptr<Port> servicePort) {
    // Whoever else holds the old one must not reach this object after its end.
    if (servicePort_ && servicePort_ != servicePort) servicePort_->setDelegate(nullptr);
    servicePort_ = std::move(servicePort);
}

void ToolDataClientProvider::setAgentPort(std::shared_ptr<Port> agentPort) {
    agentPortInvalid_.reset();
    agentPort_ = std::move(agentPort);
}

std::uint64_t ToolDataClientProvider::portNameHashFromBundle(const Bundle* bundle) {
    return unlessOutOfMemory(kWhat, [&] {
        return stringHash(canonicalToolPath(mainBundlePath(), declaredCanonicalName(bundle)));
    });
}

void ToolDataClientProvider::appDidFinishLaunching() {
    willTerminate_ = NotificationCenter::defaultCenter().addObserver(
        platform::NSApplicationWillTerminateNotification, nullptr,
        [this](const void*) { appWillTerminate(); });
}

void ToolDataClientProvider::appWillTerminate() {
    sendToolIcon();
    sendMenuIcon();
    sendMenuText();
}

void ToolDataClientProvider::setToolIcon(std::shared_ptr<platform::Image> toolIcon) {
    persist_->setToolIcon(toolIcon);
    toolIcon_ = std::move(toolIcon);
    if (toolIconNeeded_) sendToolIcon();
}

void ToolDataClientProvider::setMenuIcon(std::shared_ptr<platform::Image> menuIcon) {
    persist_->setMenuIcon(menuIcon);
    menuIcon_ = std::move(menuIcon);
    if (menuIconNeeded_) sendMenuIcon();
}

void ToolDataClientProvider::setMenuText(std::optional<std::string> menuText) {
    const bool isKept = unlessOutOfMemory(kWhat, [&] {
        persist_->setMenuText(menuText);
        menuText_ = std::move(menuText);
        return true;
    });
    if (isKept && menuIconNeeded_) sendMenuText();
}

void ToolDataClientProvider::setToolStatus(std::uint64_t toolStatus) {
    persist_->setIsPermanent(toolStatus == kToolStatusPermanent);
    toolStatus_ = toolStatus;
    sendStatus();
}

void ToolDataClientProvider::sendToolIcon() {
    unlessOutOfMemory(kWhat, [this] {
        if (!checkAgentPort()) return;
        const auto tiff = toolIcon_ ? toolIcon_->TIFFRepresentation() : std::nullopt;
        std::vector<PortMessage::Component> components{toolId_};
        if (tiff) components.emplace_back(*tiff);
        send(ToolMessage::ToolIcon, std::move(components),
             "Failed to send Icon to Agent port. Exception: %@ Reason: %@");
    });
}

void ToolDataClientProvider::sendMenuIcon() {
    unlessOutOfMemory(kWhat, [this] {
        if (!menuIcon_ || !checkAgentPort()) return;
        const auto tiff = menuIcon_->TIFFRepresentation();
        if (!tiff) {
            KULogVariadic("The menu icon has no picture to send.");
            return;
        }
        const auto isTemplate = encodeFlag(menuIcon_->isTemplate());
        send(ToolMessage::MenuIcon, {toolId_, *tiff, isTemplate},
             "Failed to send Menu Icon to Agent port. Exception: %@ Reason: %@");
    });
}

void ToolDataClientProvider::sendMenuText() {
    unlessOutOfMemory(kWhat, [this] {
        if (!menuText_ || !checkAgentPort()) return;
        send(ToolMessage::MenuText, {toolId_, encodeText(*menuText_)},
             "Failed to send Menu text to Agent port. Exception: %@ Reason: %@");
    });
}

void ToolDataClientProvider::sendStatus() {
    unlessOutOfMemory(kWhat, [this] {
        if (!checkAgentPort()) return;
        const auto status = encodeStatus(toolStatus_);
        send(ToolMessage::Status, {toolId_, status},
             "Failed to send Status to Agent port. Exception: %@ Reason: %@");
    });
}

void ToolDataClientProvider::updateResources() {
    unlessOutOfMemory(kWhat, [this] {
        if (!checkAgentPort()) return;
        if (KUIsExtendedLoggingOn()) KULogVariadic("Push Agent to update resources");
        send(ToolMessage::UpdateResources, {toolId_},
             "Failed to send command to update resources to Agent port. Exception: %@ Reason: %@");
    });
}

void ToolDataClientProvider::send(ToolMessage id, std::vector<PortMessage::Component> components,
                                  std::string_view failureFormat) {
    // The port is held for the call: a handler that runs meanwhile may let it go.
    PortMessage message(agentPort_, std::move(components));
    message.setMsgid(static_cast<std::uint32_t>(id));
    try {
        message.sendBeforeDate(std::chrono::steady_clock::now() + sendTimeout(id));
    } catch (const platform::PortException& exception) {
        KULogVariadic(failureFormat, exception.name(), exception.reason());
    }
}

bool ToolDataClientProvider::checkAgentPort() {
    if (agentPort_) return true;
    auto port = PortNameServer::systemDefaultPortNameServer().portForName(kAgentPortName);
    if (!port) return false;
    auto invalid = NotificationCenter::defaultCenter().addObserver(
        platform::NSPortDidBecomeInvalidNotification, port.get(),
        [this](const void*) { portDidBecomeInvalid(); });
    // A port whose end would go unnoticed is not held.
    if (!invalid) return false;
    agentPort_ = std::move(port);
    agentPortInvalid_ = std::move(invalid);
    isAgentConnected_ = true;
    return true;
}

void ToolDataClientProvider::portDidBecomeInvalid() { unsubscribeFromAgentPort(); }

void ToolDataClientProvider::unsubscribeFromAgentPort() {
    if (!agentPort_) return;
    agentPortInvalid_.reset();
    // Let go first: invalidating may call out, and must not come back to a port that is on its way
    // out.
    const auto port = std::exchange(agentPort_, nullptr);
    isAgentConnected_ = false;
    port->invalidate();
}

bool ToolDataClientProvider::launchAgentIfNeeded() {
    constexpr int kTurns = 50;
    constexpr std::chrono::milliseconds kTurn(100);
    if (checkAgentPort()) return true;
    const bool isLaunched = unlessOutOfMemory(kWhat, [] {
        const auto launched = platform::Workspace::launchAppWithBundleIdentifier(
            kAgentBundleIdentifier, platform::WorkspaceLaunchOptions::Async);
        if (!launched) KULogVariadic("The agent cannot be launched: %@", launched.error());
        return static_cast<bool>(launched);
    });
    if (!isLaunched) return false;
    auto& loop = platform::RunLoop::currentRunLoop();
    for (int turn = 0; turn < kTurns && !checkAgentPort(); ++turn) loop.runFor(kTurn);
    return checkAgentPort();
}

void ToolDataClientProvider::handlePortMessage(const PortMessage& message) {
    const auto decoded = unlessOutOfMemory(kWhat, [&]() -> std::optional<DecodedAgentMessage> {
        const auto checked = decodeAgentMessage(message.msgid(), message.components());
        if (checked) return *checked;
        const std::string& why = checked.error().description;
        refusals_.log(why, "A message from the agent is dropped: " + why);
        return std::nullopt;
    });
    if (decoded) applyAgentMessage(*decoded);
}

void ToolDataClientProvider::applyAgentMessage(const DecodedAgentMessage& decoded) {
    if (!decoded.message) return;
    switch (*decoded.message) {
    case AgentMessage::StatusRequest:
        sendStatus();
        break;
    case AgentMessage::ToolIconNeeded:
        toolIconNeeded_ = decoded.flag.value_or(toolIconNeeded_);
        if (toolIconNeeded_) sendToolIcon();
        break;
    case AgentMessage::MenuIconNeeded:
        menuIconNeeded_ = decoded.flag.value_or(menuIconNeeded_);
        if (menuIconNeeded_) {
            sendMenuIcon();
            sendMenuText();
        }
        break;
    case AgentMessage::DateScheduleFired:
        dateScheduleBlock_.call();
        break;
    case AgentMessage::TurnToolOff:
        turnToolOff();
        break;
    case AgentMessage::MenuIconClicked:
        clickMenuIcon();
        break;
    }
}

void ToolDataClientProvider::turnToolOff() {
    // The application ends in every case, also when its block fails.
    struct TerminateAtEnd {
        ~TerminateAtEnd() { Application::sharedApplication().terminate(); }
    } const terminateAtEnd;
    turnToolOffBlock_.call();
}

void ToolDataClientProvider::clickMenuIcon() {
    if (clickMenuIconBlock_.call()) return;
    Application::sharedApplication().reopen({});
}

std::optional<std::string> ToolDataClientProvider::requestAccessToDirectory(std::string_view path,
                                                                            std::string_view,
                                                                            std::uint64_t) const {
    return unlessOutOfMemory(kWhat, [&]() -> std::optional<std::string> {
        if (!FileManager::isWritableFileAtPath(path)) return std::nullopt;
        return std::string(path);
    });
}

std::string ToolDataClientProvider::getToolSpecialDirectory(ToolSpecialDirectory directory) const {
    if (directory != ToolSpecialDirectory::ToolDesktopDirectory) {
        // A wrong argument is the caller's bug, in every kind of build.
        KULogVariadic("Assertion failed: (%s), function %s, module %s.",
                      "directory == ToolDesktopDirectory",
                      "-[ToolDataClientProvider getToolSpecialDirectory:]",
                      "ToolDataProvider/ToolDataClientProvider");
        std::abort();
    }
    return unlessOutOfMemory(kWhat, [] { return FileManager::desktopDirectory(); });
}

}  // namespace utilia
