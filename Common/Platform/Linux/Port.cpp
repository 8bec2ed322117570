#include "Common/Platform/Port.h"

#include <new>
#include <utility>

#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/PortImplementation.h"
#include "Common/Platform/Linux/RunLoopImplementation.h"
#include "Common/Platform/NotificationCenter.h"

namespace utilia::platform {
namespace {

void postInvalidation(Port& port) {
    if (std::exchange(port.implementation().isInvalidationPosted, true)) return;
    NotificationCenter::defaultCenter().post(NSPortDidBecomeInvalidNotification, &port);
}

// Lets std::make_shared reach the constructor.
struct ConstructiblePort final : Port {
    explicit ConstructiblePort(std::unique_ptr<Implementation> implementation)
        : Port(std::move(implementation)) {}
};

}  // namespace

void Port::Implementation::close() {
    isValid = false;
    if (receiver) receiver->close();
    if (sender) sender->close();
}

void Port::Implementation::noticeDeath(Port& port) {
    if (!isValid) return;
    close();
    sender->runLoop().perform([noticed = port.weak_from_this()] {
        if (const auto living = noticed.lock()) postInvalidation(*living);
    });
}

std::shared_ptr<Port> makeSendingPort(std::unique_ptr<PortSender> sender) {
    auto implementation = std::make_unique<Port::Implementation>();
    implementation->sender = std::move(sender);
    auto port = std::make_shared<ConstructiblePort>(std::move(implementation));
    port->implementation().sender->setPort(port);
    return port;
}

Port::Port(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}

Port::~Port() { implementation_->close(); }

std::shared_ptr<Port> Port::port() {
    auto implementation = std::make_unique<Implementation>();
    implementation->receiver = std::make_shared<PortReceiver>();
    return std::make_shared<ConstructiblePort>(std::move(implementation));
}

bool Port::isValid() const { return implementation_->isValid; }

void Port::invalidate() {
    // An observer may drop the last reference to this port.
    const auto self = weak_from_this().lock();
    implementation_->close();
    postInvalidation(*this);
}

bool Port::hasRoom() {
    if (!implementation_->isValid || !implementation_->sender) return false;
    try {
        switch (implementation_->sender->room()) {
        case PortSender::Room::Some:
            return true;
        case PortSender::Room::None:
            return false;
        case PortSender::Room::Dead:
            implementation_->noticeDeath(*this);
            return false;
        }
    } catch (const std::bad_alloc&) {
        KULogVariadic("Port %@: no memory to connect", implementation_->sender->name());
    }
    return false;
}

void Port::setDelegate(PortDelegate* delegate) {
    if (implementation_->receiver && implementation_->isValid)
        implementation_->receiver->setDelegate(delegate);
}

void Port::scheduleInRunLoop() {
    if (implementation_->receiver && implementation_->isValid)
        implementation_->receiver->schedule(currentLoopWatches());
}

void Port::removeFromRunLoop() {
    if (implementation_->receiver) implementation_->receiver->unschedule();
}

}  // namespace utilia::platform
