// What the server does when those it calls out to fail.

#include <stdexcept>

#include "Common/Platform/Application.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataAgentProvider.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataServerProvider.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::test {
namespace {

constexpr std::string_view kToolPath = "/Applications/Sample Tool.app";

void deliver(ToolMessage message, std::vector<MessageBytes> components) {
    ToolDataServerProvider::sharedInstance().handlePortMessage(
        platform::PortMessage(static_cast<std::uint32_t>(message), std::move(components)));
}

class ToolDataServerGuard : public testing::Test {
protected:
    std::shared_ptr<ToolDataAgentProvider> addProxy() {
        auto proxy = std::make_shared<ToolDataAgentProvider>();
        proxy->setupWithToolURL(kToolPath, "com.korvane.utilia.SampleTool", std::nullopt);
        proxies_.push_back(proxy);
        return proxy;
    }
    ~ToolDataServerGuard() override {
        for (const auto& proxy : proxies_)
            ToolDataServerProvider::sharedInstance().removeTool(proxy);
    }

    TemporaryHome home_;
    TestLog log_;

private:
    std::vector<std::shared_ptr<ToolDataAgentProvider>> proxies_;
};

TEST_F(ToolDataServerGuard, AnObserverThatThrowsKeepsNobodyFromTheMessage) {
    const auto first = addProxy();
    const auto second = addProxy();
    std::vector<ToolDataAgentProvider::Property> heard;
    const Handle throwing = first->observe(
        [](ToolDataAgentProvider::Property) { throw std::runtime_error("no room on screen"); });
    const Handle listening = first->observe(
        [&](ToolDataAgentProvider::Property property) { heard.push_back(property); });

    deliver(ToolMessage::Status, {encodeText(kToolPath), encodeStatus(kToolStatusPermanent)});

    EXPECT_EQ(first->status(), kToolStatusPermanent);
    EXPECT_TRUE(first->wasLaunched());
    EXPECT_EQ(second->status(), kToolStatusPermanent);
    EXPECT_TRUE(second->wasLaunched());
    EXPECT_EQ(heard, (std::vector{ToolDataAgentProvider::Property::Status,
                                  ToolDataAgentProvider::Property::WasLaunched}));
    EXPECT_EQ(log_.count("An observer of a tool threw: no room on screen"), 2u);
}

TEST_F(ToolDataServerGuard, ADelegateThatThrowsIsAskedOnceForEveryProxyAllTheSame) {
    struct Delegate final : platform::ApplicationDelegate {
        void silentUpdateResources() override {
            ++calls;
            throw std::runtime_error("offline");
        }
        int calls = 0;
    } delegate;
    platform::Application::sharedApplication().setDelegate(&delegate);
    addProxy();
    addProxy();

    deliver(ToolMessage::UpdateResources, {encodeText(kToolPath)});

    platform::Application::sharedApplication().setDelegate(nullptr);
    EXPECT_EQ(delegate.calls, 2);
    EXPECT_EQ(log_.count("silentUpdateResources threw: offline"), 2u);
}

TEST_F(ToolDataServerGuard, AFloodOfOneMistakeIsOneLine) {
    const auto proxy = addProxy();
    for (int i = 0; i < 1000; ++i) {
        deliver(ToolMessage::Status, {encodeText(kToolPath)});
        deliver(ToolMessage::MenuIcon, {encodeText(kToolPath), encodeText("no picture")});
    }
    EXPECT_EQ(log_.count("A message from a tool is dropped: message 100: the status is missing"),
              1u);
    EXPECT_EQ(log_.count("The menu icon of /Applications/Sample Tool.app is not a picture"), 1u);
    EXPECT_EQ(proxy->status(), kToolStatusInactive);
}

}  // namespace
}  // namespace utilia::test
