#include "Applications/Agent/Model/ScheduleRunner.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "Common/Logging/Log.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

namespace utilia::agent {
namespace {

constexpr double kShortestInterval = 1.0;  // seconds
// A sum of this size still has fractions of a second.
constexpr double kLatest = 1e11;

double intervalIn(const Dictionary& record) {
    const Value* const interval = record.find(kSchedulerIntervalKey);
    return interval ? interval->doubleValue() : 0;
}

}  // namespace

std::optional<Date> nextDate(Date date, double interval, Date now) {
    if (!std::isfinite(interval) || interval < kShortestInterval) return std::nullopt;
    const double passed = now.secondsSinceReferenceDate - date.secondsSinceReferenceDate;
    const double steps = std::max(std::floor(passed / interval), 0.0) + 1;
    double next = date.secondsSinceReferenceDate + steps * interval;
    // Rounding may have met `now` itself.
    if (next <= now.secondsSinceReferenceDate) next += interval;
    if (!std::isfinite(next) || std::abs(next) > kLatest) return std::nullopt;
    return Date{next};
}

ScheduleRunner::ScheduleRunner(Actions actions, Time time)
    : actions_(std::move(actions)), time_(std::move(time)) {}

ScheduleRunner::~ScheduleRunner() {
    if (isStarted_) AgentScheduler::removeUpdateObserver(this);
}

void ScheduleRunner::start() {
    if (std::exchange(isStarted_, true)) return;
    listen();
    look();
}

void ScheduleRunner::listen() {
    AgentScheduler::addUpdateObserver(this, [this] {
        waiting_.clear();
        look();
    });
}

void ScheduleRunner::listenAgain() {
    if (!isStarted_) return;
    AgentScheduler::removeUpdateObserver(this);
    listen();
}

void ScheduleRunner::toolsHaveChanged() {
    waiting_.clear();
    if (isStarted_) look();
}

void ScheduleRunner::startAtLogin(const std::vector<std::string>& identifiers,
                                  std::function<void()> done) {
    loginDone_ = std::move(done);
    for (const std::string& identifier : identifiers) {
        const bool isQueuedAlready =
            std::any_of(queue_.begin(), queue_.end(),
                        [&](const Work& work) { return work.identifier == identifier; });
        // One that is owed a date was started, or found running, for that.
        if (!isQueuedAlready && !debts_.contains(identifier))
            queue_.push_back({identifier, std::nullopt});
    }
    workOn();
}

bool ScheduleRunner::isQueued(const Occasion& occasion) const {
    return std::any_of(queue_.begin(), queue_.end(),
                       [&](const Work& work) { return work.occasion == occasion; });
}

bool ScheduleRunner::isLoginQueued() const {
    return std::any_of(queue_.begin(), queue_.end(),
                       [](const Work& work) { return !work.occasion; });
}

void ScheduleRunner::look() {
    const Date now = time_.now();
    std::optional<Date> next;
    std::vector<Occasion> due;
    std::map<Occasion, std::optional<Date>> handled;
    AgentScheduler::enumerateTools([&](const auto& identifier, const auto& name, const auto& date) {
        if (!identifier || !name || !date) return;
        Occasion occasion(*identifier, *name, *date);
        std::optional<Date> when = date;
        if (const auto found = handled_.find(occasion); found != handled_.end()) {
            handled.insert(*found);
            when = found->second;
        }
        if (!when) return;
        if (*when > now) {
            if (!next || *when < *next) next = when;
        } else if (!waiting_.contains(occasion) && !isQueued(occasion) && !isOwed(occasion)) {
            due.push_back(std::move(occasion));
        }
    });
    handled_ = std::move(handled);
    nextDate_.reset();
    if (next) nextDate_ = time_.at(*next, [this] { look(); });
    std::stable_sort(due.begin(), due.end(), [](const Occasion& left, const Occasion& right) {
        return std::get<Date>(left) < std::get<Date>(right);
    });
    for (Occasion& occasion : due) {
        const std::string& identifier = std::get<0>(occasion);
        // One start is enough for a login and a date.
        std::erase_if(queue_, [&](const Work& work) {
            return !work.occasion && work.identifier == identifier;
        });
        queue_.push_back({identifier, std::move(occasion)});
    }
    workOn();
}

void ScheduleRunner::workOn() {
    // Not before the time of the last one is over, in which it comes up.
    if (!pause_ && loginDone_ && !isLoginQueued()) std::exchange(loginDone_, nullptr)();
    while (!pause_ && !queue_.empty()) {
        const Work work = std::move(queue_.front());
        queue_.pop_front();
        pause_ = time_.after(kSpread, [this] {
            pause_.reset();
            workOn();
        });
        actOn(work);
    }
}

void ScheduleRunner::actOn(const Work& work) {
    if (!work.occasion) {
        (void)actions_.launchAtLogin(work.identifier);
        return;
    }
    switch (actions_.tell(work.identifier)) {
    case Telling::Told:
        return settle({*work.occasion});
    case Telling::Kept:
        return owe(*work.occasion, Debt::State::Kept);
    case Telling::NoRoom:
        return owe(*work.occasion, Debt::State::Undelivered);
    case Telling::No:
        break;
    }
    hasLaunched(*work.occasion, actions_.launch(work.identifier));
}

void ScheduleRunner::hasLaunched(const Occasion& occasion, Outcome outcome) {
    switch (outcome) {
    case Outcome::Done:
        return owe(occasion, Debt::State::Started);
    case Outcome::Runs:
        return owe(occasion, Debt::State::Runs);
    case Outcome::NotNow:
        break;
    }
    KULogVariadic("Tool %@ is due, and cannot be started now. It stays due.",
                  std::get<0>(occasion));
    waiting_.insert(occasion);
}

// ---- what tools are owed

bool ScheduleRunner::isOwed(const Occasion& occasion) const {
    const auto found = debts_.find(std::get<0>(occasion));
    return found != debts_.end() && found->second.occasions.contains(occasion);
}

void ScheduleRunner::owe(const Occasion& occasion, Debt::State state) {
    const std::string& identifier = std::get<0>(occasion);
    Debt& debt = debts_[identifier];
    debt.state = state;
    debt.occasions.insert(occasion);
    debt.patience.reset();
    if (state == Debt::State::Started || state == Debt::State::Runs)
        debt.patience = time_.after(kPatience, [this, identifier] { endPatience(identifier); });
}

void ScheduleRunner::endPatience(const std::string& identifier) {
    Debt& debt = debts_[identifier];
    debt.patience.reset();
    const std::set<Occasion> occasions = std::exchange(debt.occasions, {});
    if (debt.state == Debt::State::Started) return settle(occasions);
    debts_.erase(identifier);
    const Outcome outcome = actions_.launchAnyhow(identifier);
    for (const Occasion& occasion : occasions) hasLaunched(occasion, outcome);
}

void ScheduleRunner::settle(const std::set<Occasion>& occasions) {
    for (const Occasion& occasion : occasions) {
        handled_[occasion] = advance(occasion);
    }
    look();
}

void ScheduleRunner::toolHasSpoken(const std::string& identifier) {
    const auto debt = debts_.find(identifier);
    if (debt == debts_.end() || debt->second.state == Debt::State::Kept) return;
    const Telling telling = actions_.tell(identifier);
    if (telling == Telling::No) return;
    debt->second.state = telling == Telling::NoRoom ? Debt::State::Undelivered : Debt::State::Kept;
    debt->second.patience.reset();
    if (telling == Telling::Told) keptIsOver(identifier, ToolList::Kept::Sent);
}

void ScheduleRunner::tryAgain(const std::string& identifier) {
    const auto debt = debts_.find(identifier);
    if (debt == debts_.end() || debt->second.state != Debt::State::Undelivered) return;
    debts_.erase(debt);
    look();
}

void ScheduleRunner::toolHasEnded(const std::string& identifier) {
    const auto debt = debts_.find(identifier);
    if (debt == debts_.end() || debt->second.state == Debt::State::Started) return;
    debts_.erase(debt);
    look();
}

void ScheduleRunner::keptIsOver(const std::string& identifier, ToolList::Kept fate) {
    const auto debt = debts_.find(identifier);
    if (debt == debts_.end() || debt->second.state != Debt::State::Kept) return;
    if (fate == ToolList::Kept::Failed) {
        debt->second.state = Debt::State::Undelivered;
        return;
    }
    const Debt settled = std::move(debt->second);
    debts_.erase(debt);
    settle(settled.occasions);
}

// ---- the records

// Answers the next date, also where the record could not be changed.
std::optional<Date> ScheduleRunner::advance(const Occasion& occasion) const {
    const auto& [identifier, name, occasionDate] = occasion;
    const Date date = occasionDate;
    double interval = 0;
    readSchedulerPlist(identifier, name,
                       [&](const Dictionary& record) { interval = intervalIn(record); });
    const auto next = nextDate(date, interval, time_.now());
    updateSchedulerPlist(identifier, name, [&](Dictionary& record) {
        const Value* const stored = record.find(kSchedulerDateKey);
        const bool isSame = stored && stored->date() && *stored->date() == date &&
                            record.boolean(kSchedulerLaunchAtDateKey);
        if (!isSame) return;  // the tool has changed its mind
        if (next) {
            record.set(kSchedulerDateKey, *next);
        } else {
            record.remove(kSchedulerDateKey);
            record.remove(kSchedulerLaunchAtDateKey);
        }
    });
    return next;
}

}  // namespace utilia::agent
