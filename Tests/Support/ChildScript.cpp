#include "Tests/Support/ChildScript.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include <unistd.h>

#include "Common/Platform/Application.h"
#include "Common/Platform/RunLoop.h"

namespace utilia::test {

using platform::Application;
using platform::MainQueue;
using platform::RunLoop;

std::string joinFields(const std::vector<std::string>& fields) {
    std::string line;
    for (const std::string& field : fields) {
        for (const char c : field) {
            if (c == '\\') {
                line += "\\\\";
            } else if (c == '\t') {
                line += "\\t";
            } else if (c == '\n') {
                line += "\\n";
            } else {
                line += c;
            }
        }
        line += '\t';
    }
    return line;
}

std::vector<std::string> splitFields(const std::string& line) {
    std::vector<std::string> fields;
    std::string field;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\t') {
            fields.push_back(std::move(field));
            field.clear();
        } else if (line[i] == '\\' && i + 1 < line.size()) {
            const char next = line[++i];
            field += next == 't' ? '\t' : next == 'n' ? '\n' : next;
        } else {
            field += line[i];
        }
    }
    return fields;
}

ChildScript::ChildScript(ChildRole& self) : self_(self) {
    on("log", [this](const Arguments&) { return joinFields(log_.lines()); });
    on("clear-log", [this](const Arguments&) {
        log_.clear();
        return std::string();
    });
    on("finish-launching", [](const Arguments&) {
        Application::sharedApplication().finishLaunching();
        return std::string();
    });
    on("terminate", [](const Arguments&) {
        MainQueue::async([] { Application::sharedApplication().terminate(); });
        return std::string();
    });
}

void ChildScript::on(const std::string& name, Command command) {
    commands_[name] = std::move(command);
}

int ChildScript::run() {
    Application::sharedApplication().finishLaunching();
    return runWithoutLaunching();
}

int ChildScript::runWithoutLaunching() {
    startReading();
    self_.say(joinFields({"ready"}));
    if (Application::sharedApplication().isFinishedLaunching())
        return Application::sharedApplication().run();
    // Application::run() would finish the launch; its loop alone does not.
    (void)RunLoop::mainRunLoop().runUntil(
        [] { return Application::sharedApplication().isTerminating(); }, std::chrono::hours(1));
    return 0;
}

void ChildScript::startReading() {
    // Never joined: it blocks on the channel for as long as the process lives.
    std::thread([this] {
        for (;;) {
            const std::string line = self_.waitForLine();
            if (line.empty()) _exit(0);
            MainQueue::async([this, line] { execute(line); });
        }
    }).detach();
}

void ChildScript::execute(const std::string& line) {
    std::vector<std::string> fields = splitFields(line);
    const auto found = fields.empty() ? commands_.end() : commands_.find(fields.front());
    if (found == commands_.end()) {
        self_.say(joinFields({"no such command: " + line}));
        return;
    }
    fields.erase(fields.begin());
    self_.say(joinFields({found->second(fields)}));
}

bool ChildScript::waitUntil(const std::function<bool()>& done) {
    return RunLoop::currentRunLoop().runUntil(done, std::chrono::seconds(60));
}

ScriptedChild::ScriptedChild(ChildProcess process) : process_(std::move(process)) {
    if (const std::string first = answer(); first != "ready")
        throw std::runtime_error("the child said: " + first);
}

std::string ScriptedChild::ask(const std::string& command,
                               const std::vector<std::string>& arguments) {
    tell(command, arguments);
    return answer();
}

void ScriptedChild::tell(const std::string& command, const std::vector<std::string>& arguments) {
    std::vector<std::string> fields{command};
    fields.insert(fields.end(), arguments.begin(), arguments.end());
    process_.say(joinFields(fields));
}

std::string ScriptedChild::answer(std::chrono::milliseconds timeout) {
    const auto line = process_.waitForLine(timeout);
    if (!line) {
        const auto status = process_.waitForExit(std::chrono::milliseconds(100));
        throw std::runtime_error(status ? "the child ended with status " + std::to_string(*status)
                                        : "the child does not answer");
    }
    const auto fields = splitFields(*line);
    return fields.empty() ? std::string() : fields.front();
}

std::size_t ScriptedChild::countInLog(std::string_view text) {
    std::size_t found = 0;
    for (const std::string& line : log()) found += line.find(text) != std::string::npos ? 1 : 0;
    return found;
}

void ScriptedChild::terminate() {
    ask("terminate");
    const auto status = process_.waitForExit();
    if (!status) throw std::runtime_error("the child does not end");
    if (*status != 0)
        throw std::runtime_error("the child ended with status " + std::to_string(*status));
}

}  // namespace utilia::test
