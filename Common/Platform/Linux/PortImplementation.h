#pragma once

#include <memory>

#include "Common/Platform/Linux/PortReceiver.h"
#include "Common/Platform/Linux/PortSender.h"
#include "Common/Platform/Port.h"

namespace utilia::platform {

// A port is one of the two ends.
struct Port::Implementation {
    std::shared_ptr<PortReceiver> receiver;
    std::unique_ptr<PortSender> sender;
    bool isValid = true;
    bool isInvalidationPosted = false;

    // Ends the port without posting anything.
    void close();
    // What a sender found while it was sending: the port is invalid from here on, and its loop
    // posts that soon.
    void noticeDeath(Port& port);
};

// A sending port on the connection.
std::shared_ptr<Port> makeSendingPort(std::unique_ptr<PortSender> sender);

}  // namespace utilia::platform
