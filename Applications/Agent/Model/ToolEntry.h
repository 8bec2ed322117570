#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Common/Platform/Image.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia::agent {

// What a user is shown of one tool. A value: later changes do not show in it.
struct ToolEntry {
    enum class Condition {
        Ready,
        Restricted,  // the administrator does not allow it
        Damaged,     // its desktop entry leads to no application of this identifier
        Missing,     // it is to be started, and is not installed
    };

    std::string identifier;
    std::string name;  // as its bundle calls itself
    std::string path;  // of its bundle; empty when it is damaged or missing
    Condition condition = Condition::Ready;
    std::string reason;  // why it is damaged or missing, for a log or an expert
    bool isRunning = false;
    std::uint64_t status = kToolStatusInactive;
    std::string menuText;
    std::shared_ptr<platform::Image> toolIcon;  // null without one
    std::shared_ptr<platform::Image> menuIcon;

    bool isReady() const { return condition == Condition::Ready; }
    bool isPermanent() const { return status == kToolStatusPermanent; }
    bool isActive() const { return status == kToolStatusActive; }

    friend bool operator==(const ToolEntry&, const ToolEntry&) = default;
};

}  // namespace utilia::agent
