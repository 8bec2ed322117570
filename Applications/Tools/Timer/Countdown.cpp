#include "Applications/Tools/Timer/Countdown.h"

#include <algorithm>
#include <cmath>

#include "Common/UtiliaCommon/Scheduler/ToolScheduler.h"

namespace utilia::tools {
namespace {

constexpr const char* kLengthKey = "CountdownLength";  // seconds
constexpr const char* kHeldKey = "CountdownHeld";      // seconds left
constexpr const char* kEndKey = "CountdownEnd";        // a date

Date after(std::int64_t seconds) {
    return Date::fromUnixTime(Date::now().unixTime() + static_cast<double>(seconds));
}

}  // namespace

Countdown::Countdown(platform::UserDefaults& kept)
    : kept_(kept), length_(std::max<std::int64_t>(kept.integerForKey(kLengthKey), 0)),
      held_(std::max<std::int64_t>(kept.integerForKey(kHeldKey), 0)) {
    const auto end = kept.objectForKey(kEndKey);
    if (end && end->date()) end_ = *end->date();
    if (!end_ && held_ == 0) length_ = 0;
}

void Countdown::start(std::int64_t seconds) {
    length_ = seconds;
    held_ = seconds;
    end_ = after(seconds);
    keep();
}

void Countdown::hold() {
    if (!end_) return;
    held_ = secondsLeft();
    end_.reset();
    keep();
}

void Countdown::goOn() {
    if (!isHeld()) return;
    end_ = after(held_);
    keep();
}

void Countdown::clear() {
    if (!isSet()) return;
    length_ = 0;
    held_ = 0;
    end_.reset();
    keep();
}

std::int64_t Countdown::secondsLeft() const {
    if (!end_) return held_;
    return std::max<std::int64_t>(std::llround(end_->unixTime() - Date::now().unixTime()), 0);
}

void Countdown::keep() const {
    // The end comes last, and goes first: of a tool that is killed in between, a countdown is held.
    if (!end_) kept_.removeObjectForKey(kEndKey);
    kept_.setObject(length_, kLengthKey);
    kept_.setObject(held_, kHeldKey);
    if (end_) {
        kept_.setObject(*end_, kEndKey);
        ToolScheduler::scheduleAtDate(*end_, 0);
    } else {
        ToolScheduler::cancelDateSchedule();
    }
}

}  // namespace utilia::tools
