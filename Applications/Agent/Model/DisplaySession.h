#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace utilia::agent {

// The number of the user's graphical session, as the system's login manager tells it (over the system bus). It is what
// $XDG_SESSION_ID holds in programs that the session starts itself; those that the user's service manager starts do not
// get the variable.
//
// Threads: the main thread.
class DisplaySession final {
public:
    // Empty where nobody tells it in time.
    using Answer = std::function<void(const std::optional<std::string>& session)>;
    static constexpr std::chrono::seconds kPatience{3};

    DisplaySession() = default;
    ~DisplaySession();
    DisplaySession(const DisplaySession&) = delete;
    DisplaySession& operator=(const DisplaySession&) = delete;

    // Once. The answer comes later, from the main loop, unless the object ends before; within the patience also from a bus
    // that takes connections and says nothing. A failure is logged.
    void ask(Answer answer, std::chrono::nanoseconds patience = kPatience);

private:
    struct Question;

    std::shared_ptr<Question> question_;
};

}  // namespace utilia::agent
