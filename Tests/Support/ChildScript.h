#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TestLog.h"

// A child that is a real application under its test's command: its main loop runs, and each line
// from the test is one command, executed on the main thread and answered with exactly one line.
//
//     UTILIA_CHILD_ROLE(tool) {
//         ChildScript script(self);
//         script.on("double", [](const auto& arguments) { return arguments[0] + arguments[0]; });
//         return script.run();
//     }
//
//     ScriptedChild child(bundle.role("tool"));
//     EXPECT_EQ(child.ask("double", {"a"}), "aa");

namespace utilia::test {

// Fields as one line and back; tabs, line breaks and backslashes inside fields are kept.
std::string joinFields(const std::vector<std::string>& fields);
std::vector<std::string> splitFields(const std::string& line);

// The child's side. Collects the log lines of the process from its construction on. Built-in
// commands: "log" (all lines so far, as fields), "clear-log", "finish-launching", "terminate"
// (answered before the application terminates).
class ChildScript final {
public:
    using Arguments = std::vector<std::string>;
    using Command = std::function<std::string(const Arguments& arguments)>;

    explicit ChildScript(ChildRole& self);

    void on(const std::string& name, Command command);

    // Says "ready", then serves until the application terminates; answers its exit status. The
    // process ends when the test's end of the channel closes.
    int run();
    // The same, but the application has not finished launching until "finish-launching".
    int runWithoutLaunching();

    TestLog& log() { return log_; }

    // Serves the main loop inside a command until `done`; false after 60 s.
    static bool waitUntil(const std::function<bool()>& done);

private:
    void execute(const std::string& line);
    void startReading();

    ChildRole& self_;
    TestLog log_;
    std::map<std::string, Command> commands_;
};

// The test's side.
class ScriptedChild final {
public:
    // Waits until the child is ready; throws std::runtime_error when it does not get there.
    explicit ScriptedChild(ChildProcess process);

    // One command and its answer; throws std::runtime_error when the child ends or stays silent.
    std::string ask(const std::string& command, const std::vector<std::string>& arguments = {});
    // The command alone; the answer is to be taken with answer().
    void tell(const std::string& command, const std::vector<std::string>& arguments = {});
    std::string answer(std::chrono::milliseconds timeout = std::chrono::seconds(60));

    std::vector<std::string> log() { return splitFields(ask("log")); }
    // How many of the child's log lines contain the text.
    std::size_t countInLog(std::string_view text);

    // In an orderly way; throws std::runtime_error when its exit status is not 0.
    void terminate();

    ChildProcess& process() { return process_; }

private:
    ChildProcess process_;
};

}  // namespace utilia::test
