#pragma once

#include <memory>
#include <vector>

#include "Common/Platform/Port.h"

namespace utilia::platform {

// The components of a message that a receiver fills again and again, so that a delivery allocates
// nothing.
struct PortMessageAccess {
    static std::vector<PortMessage::Component>& components(PortMessage& message) {
        return message.components_;
    }
};

}  // namespace utilia::platform
