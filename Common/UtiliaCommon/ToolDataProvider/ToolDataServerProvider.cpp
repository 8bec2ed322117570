#include "Common/UtiliaCommon/ToolDataProvider/ToolDataServerProvider.h"

#include <cstddef>
#include <new>
#include <utility>

#include "Common/Logging/CallbackGuard.h"
#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/Image.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataAgentProvider.h"

namespace utilia {
namespace {

using platform::Image;
using platform::Port;
using platform::PortMessage;
using platform::PortNameServer;

constexpr std::string_view kWhat = "The channel to the tools";

void silentUpdateResources() {
    if (auto* const delegate = platform::Application::sharedApplication().delegate()) {
        runGuarded("silentUpdateResources", [&] { delegate->silentUpdateResources(); });
    } else {
        KULogVariadic(
            "A tool asks to update resources, but this application has no delegate to do it.");
    }
}

}  // namespace

ToolDataServerProvider& ToolDataServerProvider::sharedInstance() {
    // Never destroyed, and there also when there is no memory for it.
    alignas(ToolDataServerProvider) static std::byte place[sizeof(ToolDataServerProvider)];
    static ToolDataServerProvider* const instance = new (place) ToolDataServerProvider;
    return *instance;
}

ToolDataServerProvider::ToolDataServerProvider() {
    unlessOutOfMemory(kWhat, [this] {
        servicePort_ = Port::port();
        servicePort_->setDelegate(this);
        PortNameServer::systemDefaultPortNameServer().registerPort(servicePort_, kAgentPortName);
        servicePort_->scheduleInRunLoop();
    });
}

ToolDataServerProvider::~ToolDataServerProvider() {
    if (!servicePort_) return;
    servicePort_->invalidate();
    servicePort_->removeFromRunLoop();
    servicePort_->setDelegate(nullptr);
}

ToolDataServerProvider::Tools ToolDataServerProvider::tools() const {
    return unlessOutOfMemory(kWhat, [this] { return tools_ ? *tools_ : Tools(); });
}

void ToolDataServerProvider::addTool(std::shared_ptr<ToolDataAgentProvider> tool) {
    unlessOutOfMemory(kWhat, [&] {
        auto tools = tools_ ? std::make_shared<Tools>(*tools_) : std::make_shared<Tools>();
        tools->push_back(std::move(tool));
        tools_ = std::move(tools);
    });
}

void ToolDataServerProvider::removeTool(const std::shared_ptr<ToolDataAgentProvider>& tool) {
    if (!tools_) return;
    // What goes may be held by nothing but the list, and the argument may lie in it.
    const auto removed = tool;
    if (tools_.use_count() == 1) {
        std::erase(*tools_, removed);
        return;
    }
    unlessOutOfMemory(kWhat, [&] {
        auto tools = std::make_shared<Tools>(*tools_);
        std::erase(*tools, removed);
        tools_ = std::move(tools);
    });
}

void ToolDataServerProvider::handlePortMessage(const PortMessage& message) {
    unlessOutOfMemory(kWhat, [&] {
        const auto decoded = decodeToolMessage(message.msgid(), message.components());
        if (!decoded) {
            const std::string& why = decoded.error().description;
            refusals_.log(why, "A message from a tool is dropped: " + why);
            return;
        }
        // The list as it is now: what a proxy tells its observers may add and remove proxies.
        const auto tools = tools_;
        if (!tools) return;
        for (const auto& tool : *tools) {
            if (tool->matches(decoded->toolPath)) apply(*decoded, *tool);
        }
    });
}

std::shared_ptr<Image> ToolDataServerProvider::decodeImage(MessageBytes bytes,
                                                           std::string_view what,
                                                           std::string_view toolPath) {
    auto image = Image::initWithData(bytes);
    if (!image) {
        refusals_.log(what, std::string(what) + std::string(toolPath) +
                                " is not a picture; the tool is shown without.");
    }
    return image;
}

void ToolDataServerProvider::apply(const DecodedToolMessage& message, ToolDataAgentProvider& tool) {
    if (const auto* const status = std::get_if<StatusReport>(&message.body)) {
        tool.setStatus(status->status);
        tool.setWasLaunched(true);
    } else if (const auto* const icon = std::get_if<ToolIconReport>(&message.body)) {
        tool.setToolIcon(icon->image
                             ? decodeImage(*icon->image, "The tool icon of ", message.toolPath)
                             : nullptr);
    } else if (const auto* const menuIcon = std::get_if<MenuIconReport>(&message.body)) {
        auto image = decodeImage(menuIcon->image, "The menu icon of ", message.toolPath);
        // Before it is shown to observers, so that nobody sees the icon without its flag.
        if (image && menuIcon->isTemplate) image->setTemplate(*menuIcon->isTemplate);
        tool.setMenuIcon(std::move(image));
    } else if (const auto* const text = std::get_if<MenuTextReport>(&message.body)) {
        if (text->text) tool.setMenuText(std::string(*text->text));
    } else if (std::holds_alternative<UpdateResourcesRequest>(message.body)) {
        silentUpdateResources();
    }
}

}  // namespace utilia
