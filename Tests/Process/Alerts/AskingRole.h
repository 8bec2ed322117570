#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia::test {

// A tool that asks, in its own process and without a terminal. It says "asking", then the answer's number, then each
// line of its log.
class AskingTool final {
public:
    // `role` is "askAgentQuestion", "askQuestion" with the style, the message and the buttons as arguments, or another
    // one that says the same.
    AskingTool(const TestBundle& bundle, const std::string& role,
               std::vector<std::string> arguments, std::map<std::string, std::string> environment);

    // Waits for the answer; std::runtime_error when there is none.
    int answer();
    // After the answer.
    std::vector<std::string> log();
    ChildProcess& process() { return process_; }

private:
    ChildProcess process_;
};

// Without the languages of whoever runs the tests, in these, and without a session bus.
std::map<std::string, std::string> environmentWithLanguage(const std::string& language);

// Runs `ask` in a role: says all that AskingTool wants to hear.
int sayAnswer(const ChildRole& self, const std::function<int()>& ask);

}  // namespace utilia::test
