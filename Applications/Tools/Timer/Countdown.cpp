#include "Applications/Tools/Timer/Countdown.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "Applications/Tools/Timer/TimerText.h"
#include "Common/Logging/Log.h"
#include "Common/UtiliaCommon/Scheduler/ToolScheduler.h"

namespace utilia::tools {
namespace {

constexpr const char* kCountdownKey = "Countdown";
constexpr const char* kLengthKey = "Length";  // seconds
constexpr const char* kHeldKey = "Held";      // seconds that were left when it last was held
constexpr const char* kEndKey = "End";        // a date; absent while it is held

// Empty for what no countdown keeps.
std::optional<std::int64_t> secondsOf(const Dictionary& kept, const char* key) {
    const Value* const value = kept.find(key);
    const std::int64_t* const seconds = value ? value->integer() : nullptr;
    if (!seconds || *seconds < 0 || *seconds > kLongestSeconds) return std::nullopt;
    return *seconds;
}

std::int64_t secondsUntil(Date end) {
    const double seconds = end.unixTime() - Date::now().unixTime();
    return std::llround(std::clamp<double>(seconds, 0, kLongestCountedSeconds));
}

Date after(std::int64_t seconds) {
    return Date::fromUnixTime(Date::now().unixTime() + static_cast<double>(seconds));
}

}  // namespace

// A tool can be killed between any two steps. The countdown is one value, which is replaced at once, so that no mixture
// of two is found afterwards; and as long as it has an end, that end is in the schedule: it gets there before, and goes
// after. A date in the schedule without a countdown that ends then is harmless: the tool is started, and sees for itself.
//
// Others can write preferences, too. A part of a countdown that is of no use costs only that part: one that has an end
// ends then, and any other is held.

Countdown::Countdown(platform::UserDefaults& kept) : kept_(kept) {
    const auto found = kept.objectForKey(kCountdownKey);
    if (!found) return;
    const bool isSound = found->dictionary() && takeOver(*found->dictionary());
    if (!isSound)
        KULogVariadic(isSet() ? "The countdown in the preferences is damaged, but can be used"
                              : "The countdown in the preferences is damaged, and lost");
}

bool Countdown::takeOver(const Dictionary& found) {
    const Value* const end = found.find(kEndKey);
    if (end && end->date()) end_ = *end->date();
    const auto length = secondsOf(found, kLengthKey);
    const auto held = secondsOf(found, kHeldKey);
    held_ = held.value_or(length.value_or(0));
    length_ = length.value_or(0);
    if (length_ == 0) length_ = held_;
    if (length_ == 0 && end_) length_ = std::clamp<std::int64_t>(secondsLeft(), 1, kLongestSeconds);
    return length.value_or(0) > 0 && held && (!end || end_);
}

void Countdown::start(std::int64_t seconds) {
    // The schedule has room for one date: the one before must not wait for its end any more.
    hold();
    begin(seconds, seconds);
}

void Countdown::hold() {
    if (!end_) return;
    // A clock that was set back makes any time of it.
    held_ = std::min(secondsLeft(), kLongestSeconds);
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

std::int64_t Countdown::secondsLeft() const { return end_ ? secondsUntil(*end_) : held_; }

void Countdown::keep() const {
    if (!isSet()) return kept_.removeObjectForKey(kCountdownKey);
    Dictionary countdown{{kLengthKey, length_}, {kHeldKey, held_}};
    if (end_) countdown.set(kEndKey, *end_);
    kept_.setObject(std::move(countdown), kCountdownKey);
}

}  // namespace utilia::tools
