#include <chrono>
#include <stdexcept>

#include "Benchmarks/Messages/Channel.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/RunLoop.h"

namespace utilia::bench {
namespace {

using namespace std::chrono_literals;
using platform::Port;
using platform::PortMessage;
using platform::PortNameServer;
using platform::RunLoop;

constexpr std::uint32_t kIdentifier = 100;

class PortReceiver final : public MessageReceiver, public platform::PortDelegate {
public:
    explicit PortReceiver(const std::string& name) {
        port_->setDelegate(this);
        if (!PortNameServer::systemDefaultPortNameServer().registerPort(port_, name)) {
            throw std::runtime_error("the port " + name + " cannot be registered");
        }
        port_->scheduleInRunLoop();
    }
    ~PortReceiver() override { port_->invalidate(); }

    void run(const std::function<bool(Bytes)>& take, const std::function<bool()>& done) override {
        take_ = &take;
        goesOn_ = true;
        RunLoop& loop = RunLoop::currentRunLoop();
        if (!done) loop.run();
        while (goesOn_ && !done()) loop.runFor(50ms);
    }

    void handlePortMessage(const PortMessage& message) override {
        if (goesOn_ && !(*take_)(message.component(0).value())) {
            goesOn_ = false;
            RunLoop::currentRunLoop().stop();
        }
    }

private:
    std::shared_ptr<Port> port_ = Port::port();
    const std::function<bool(Bytes)>* take_ = nullptr;
    bool goesOn_ = false;
};

class PortSender final : public MessageSender {
public:
    explicit PortSender(const std::string& name)
        : port_(PortNameServer::systemDefaultPortNameServer().portForName(name)) {
        if (!port_) throw std::runtime_error("there is no port " + name);
    }

    void send(Bytes message) override {
        PortMessage carried(port_, {message});
        carried.setMsgid(kIdentifier);
        carried.sendBeforeDate(std::chrono::steady_clock::now() + 10s);
    }

private:
    std::shared_ptr<Port> port_;
};

class PortChannel final : public MessageChannel {
public:
    void prepare(const Settings&) override {}
    std::unique_ptr<MessageReceiver> receiver(const std::string& name) override {
        return std::make_unique<PortReceiver>("com.korvane.utilia.benchmark." + name);
    }
    std::unique_ptr<MessageSender> sender(const std::string& name) override {
        return std::make_unique<PortSender>("com.korvane.utilia.benchmark." + name);
    }
};

}  // namespace

std::unique_ptr<MessageChannel> makePortChannel() { return std::make_unique<PortChannel>(); }

}  // namespace utilia::bench
