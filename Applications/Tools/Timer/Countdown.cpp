#include "Applications/Tools/Timer/Countdown.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "Common/UtiliaCommon/Scheduler/ToolScheduler.h"

namespace utilia::tools {
namespace {

constexpr const char* kCountdownKey = "Countdown";
constexpr const char* kLengthKey = "Length";  // seconds
constexpr const char* kHeldKey = "Held";      // seconds that were left when it last was held
constexpr const char* kEndKey = "End";        // a date; absent while it is held

std::int64_t secondsOf(const Dictionary& kept, const char* key) {
    const Value* const value = kept.find(key);
    const std::int64_t* const seconds = value ? value->integer() : nullptr;
    return seconds ? std::max<std::int64_t>(*seconds, 0) : 0;
}

Date after(std::int64_t seconds) {
    return Date::fromUnixTime(Date::now().unixTime() + static_cast<double>(seconds));
}

}  // namespace

// A tool can be killed between any two steps. The countdown is one value, which is replaced at once, so that no mixture
// of two is found afterwards; and as long as it has an end, that end is in the schedule: it gets there before, and goes
// after. A date in the schedule without a countdown that ends then is harmless: the tool is started, and sees for itself.

Countdown::Countdown(platform::UserDefaults& kept) : kept_(kept) {
    const auto found = kept.dictionaryForKey(kCountdownKey);
    if (!found) return;
    const Value* const end = found->find(kEndKey);
    if (end && end->date()) end_ = *end->date();
    held_ = secondsOf(*found, kHeldKey);
    if (end_ || held_ > 0) length_ = secondsOf(*found, kLengthKey);
}

void Countdown::start(std::int64_t seconds) {
    // The schedule has room for one date: the one before must not wait for its end any more.
    hold();
    begin(seconds, seconds);
}

void Countdown::hold() {
    if (!end_) return;
    held_ = secondsLeft();
    end_.reset();
    keep();
    ToolScheduler::cancelDateSchedule();
}

void Countdown::goOn() {
    if (isHeld()) begin(length_, held_);
}

void Countdown::clear() {
    if (!isSet()) return;
    length_ = 0;
    held_ = 0;
    end_.reset();
    keep();
    ToolScheduler::cancelDateSchedule();
}

void Countdown::begin(std::int64_t length, std::int64_t left) {
    const Date end = after(left);
    ToolScheduler::scheduleAtDate(end, 0);
    length_ = length;
    held_ = left;
    end_ = end;
    keep();
}

std::int64_t Countdown::secondsLeft() const {
    if (!end_) return held_;
    return std::max<std::int64_t>(std::llround(end_->unixTime() - Date::now().unixTime()), 0);
}

void Countdown::keep() const {
    if (!isSet()) return kept_.removeObjectForKey(kCountdownKey);
    Dictionary countdown{{kLengthKey, length_}, {kHeldKey, held_}};
    if (end_) countdown.set(kEndKey, *end_);
    kept_.setObject(std::move(countdown), kCountdownKey);
}

}  // namespace utilia::tools
