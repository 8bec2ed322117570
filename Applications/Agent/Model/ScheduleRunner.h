#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "Applications/Agent/Model/ToolList.h"
#include "Common/Foundation/Handle.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/DateTimer.h"
#include "Common/Platform/RunLoop.h"

namespace utilia::agent {

// When a repeated launch is due next: the first date after `now` that lies whole intervals after `date`. Empty for an
// interval that means no repeat: not a number, less than a second, or so long that no date comes of it.
std::optional<Date> nextDate(Date date, double interval, Date now);

// Acts on the scheduler records: starts tools at their dates, and those that want it at login.
//
// The rule. A date is acted on once, as soon as it is over: at once when the agent runs, after waking up when the machine
// slept, at its start when the agent did not run. Of a repeated launch that was missed several times only one is made
// up for, and the next one is at the next whole interval after now. Tools are started one by one, kSpread apart, the
// oldest date first, so that what has gathered does not come all at once.
//
// A tool that cannot be started (restricted, damaged, not installed) keeps its record as it is and stays due. It is
// tried again when the records or the installed tools change, and at the next start of the agent.
//
// The record is changed when the tool knows of its date: what is told to a tool that runs and has room for it is known at
// once, what is kept for it when it is sent, a start when the tool that was started speaks and can be told. Until then
// the date is due, also for an agent that is started after this one was killed: it starts or tells the tool once more,
// and forgets none. A tool that ends with what was kept for it is started. One that was started and says nothing for
// kPatience, as those without any interest in the agent, had its date by being started; while this agent runs it is told
// when it speaks after all. A record that its tool changes meanwhile is the tool's.
//
// A tool that is found running, and that nobody can tell yet, was started by somebody else: it comes up, or it is ending,
// or it has no interest in the agent. It is told when it speaks, and started when it has ended; where neither is heard of
// for kPatience it is launched as it is, which brings it to the front, or starts it when it has ended meanwhile.
//
// Threads: the agent's main thread.
class ScheduleRunner final {
public:
    enum class Outcome {
        Done,
        Runs,  // nothing was done, since it runs
        NotNow,
    };
    // What is done to tools. A tool whose date has come is told when it runs, and launched otherwise.
    struct Actions {
        std::function<Telling(const std::string& identifier)> tell;
        // Unless it runs, by what the system says this moment.
        std::function<Outcome(const std::string& identifier)> launch;
        // Also when it runs.
        std::function<Outcome(const std::string& identifier)> launchAnyhow;
        std::function<Outcome(const std::string& identifier)> launchAtLogin;
    };
    // The world's time, which tests bend.
    struct Time {
        std::function<Date()> now = &Date::now;
        std::function<Handle(Date, std::function<void()>)> at =
            &platform::DateTimer::scheduledTimer;
        std::function<Handle(std::chrono::nanoseconds, std::function<void()>)> after =
            [](std::chrono::nanoseconds time, std::function<void()> call) {
                return platform::Timer::scheduledTimer(time, false, std::move(call));
            };
    };
    static constexpr std::chrono::seconds kSpread{2};
    static constexpr std::chrono::seconds kPatience{10};

    explicit ScheduleRunner(Actions actions) : ScheduleRunner(std::move(actions), Time()) {}
    ScheduleRunner(Actions actions, Time time);
    ~ScheduleRunner();
    ScheduleRunner(const ScheduleRunner&) = delete;
    ScheduleRunner& operator=(const ScheduleRunner&) = delete;

    // Looks at the records, and again whenever somebody says that they have changed.
    void start();
    // The bus is there by which records are said to have changed, and was not before. Waits until it knows that somebody
    // listens, at most 200 ms.
    void listenAgain();
    // What could not be started before may be able to now.
    void toolsHaveChanged();
    // A tool is heard of, and runs.
    void toolHasSpoken(const std::string& identifier);
    // A tool that had no room for a message has room again, or does not run any more.
    void tryAgain(const std::string& identifier);
    // A tool does not run.
    void toolHasEnded(const std::string& identifier);
    // A message that was kept for a tool, of a date of its, was sent or was not.
    void keptIsOver(const std::string& identifier, ToolList::Kept fate);
    // The user has logged in, and these want to be started then. Each once, also when its date is due as well. `done` is
    // called when all of them had their turn, and time to come up.
    void startAtLogin(const std::vector<std::string>& identifiers, std::function<void()> done);

private:
    // One launch of one record.
    using Occasion = std::tuple<std::string, std::string, Date>;  // identifier, name, date
    struct Work {
        std::string identifier;
        std::optional<Occasion> occasion;  // empty: because of the login
    };

    // What a tool is owed: to know that its dates have come.
    struct Debt {
        enum class State { Started, Runs, Kept, Undelivered };
        State state = State::Started;
        std::set<Occasion> occasions = {};  // whose records are as they were
        Handle patience = {};
    };

    void listen();
    void look();
    bool isOwed(const Occasion& occasion) const;
    void owe(const Occasion& occasion, Debt::State state);
    void endPatience(const std::string& identifier);
    void settle(const std::set<Occasion>& occasions);
    void workOn();
    void actOn(const Work& work);
    void hasLaunched(const Occasion& occasion, Outcome outcome);
    std::optional<Date> advance(const Occasion& occasion) const;
    bool isQueued(const Occasion& occasion) const;
    bool isLoginQueued() const;

    const Actions actions_;
    const Time time_;
    std::deque<Work> queue_;
    std::function<void()> loginDone_;
    // What was acted on and has its record as before, which cannot be changed: when it is due next, if ever. Goes by
    // memory, in the life of this process.
    std::map<Occasion, std::optional<Date>> handled_;
    std::set<Occasion> waiting_;         // could not be started
    std::map<std::string, Debt> debts_;  // by identifier
    Handle nextDate_;
    Handle pause_;
    bool isStarted_ = false;
};

}  // namespace utilia::agent
