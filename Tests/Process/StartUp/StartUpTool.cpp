// A tool of the product as it is installed: it loads the shared library, which checks it before
// main. Tells what becomes of it, in lines on the channel of ChildProcess; a word "report=PATH"
// among its arguments, or "ReportPipe" in its Info.plist, sends them to a named pipe instead. Other words that it knows:
//
//   --show-ui       says that it was asked to show itself
//   show-agent      asks the agent to show itself
//   many-clients    asks for its connection with the agent from many threads at once
//   client          has a connection with the agent, and something to keep
//   no-loop         returns from main at once, with status 7
//   ignore-quit     runs a loop of its own, and does nothing when it is asked to quit
//   look            tells what was opened before main
//   listed=ID       tells whether this process is listed as that application
//   helper=NAME     tells where the framework's helper of that name is
//
// Without them it runs until it is terminated.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "Common/Platform/Application.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/RunLoop.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace {

using utilia::UtiliaCommon;
using utilia::platform::Application;
using utilia::platform::MainQueue;
using utilia::platform::RunLoop;
using utilia::platform::RunningApplication;

int channel = 3;

void say(const std::string& line) {
    const std::string text = line + "\n";
    if (write(channel, text.data(), text.size()) < 0) _exit(99);
}

std::string listing(const std::string& identifier) {
    const auto running = RunningApplication::runningApplicationsWithBundleIdentifier(identifier);
    const bool isListed = std::any_of(running.begin(), running.end(), [](const auto& one) {
        return one.processIdentifier() == getpid();
    });
    return isListed ? "listed" : "not listed";
}

// The kinds of what was opened, and how many threads there are.
void tellWhatIsOpen() {
    std::set<std::string> kinds;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        const std::string target = std::filesystem::read_symlink(entry, ignored).string();
        if (std::stoi(entry.path().filename().string()) <= channel) continue;
        kinds.insert(target.substr(0, target.find(':')));
    }
    for (const std::string& kind : kinds) {
        if (kind == "socket" || kind == "anon_inode") say("open " + kind);
    }
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("/Modules/") != std::string::npos) say("module " + line);
        if (line.find("libgio") != std::string::npos) say("gio " + line);
    }
    const auto threads = std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                       std::filesystem::directory_iterator());
    say("threads " + std::to_string(threads));
}

void askFromManyThreads() {
    std::atomic<bool> go{false};
    std::vector<const void*> clients(16);
    std::vector<std::thread> threads;
    for (const void*& client : clients) {
        threads.emplace_back([&go, &client] {
            while (!go) std::this_thread::yield();
            client = &UtiliaCommon::toolDataClientProvider();
        });
    }
    go = true;
    for (std::thread& thread : threads) thread.join();
    const bool isOne = std::all_of(clients.begin(), clients.end(), [&](const void* client) {
        return client && client == clients.front();
    });
    say(isOne ? "one client" : "several clients");
}

int serve(Application& application, bool ignoresQuit) {
    if (!ignoresQuit) return application.run();
    application.setQuitHandler([] { say("asked to quit"); });
    application.finishLaunching();
    RunLoop::mainRunLoop().runFor(std::chrono::hours(1));
    return 8;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    const auto has = [&](std::string_view word) {
        return std::find(words.begin(), words.end(), word) != words.end();
    };
    const auto valueOf = [&](std::string_view name) {
        for (const std::string& word : words) {
            if (word.starts_with(name)) return word.substr(name.size());
        }
        return std::string();
    };
    std::string pipe = valueOf("report=");
    if (const auto* const bundle = utilia::platform::Bundle::mainBundle(); bundle && pipe.empty())
        pipe = bundle->infoDictionary().string("ReportPipe").value_or("");
    if (!pipe.empty()) channel = open(pipe.c_str(), O_WRONLY | O_CLOEXEC);

    say("main");
    if (!UtiliaCommon::utiliaCommon()) say("no facade");
    if (has("--show-ui")) say("shows itself");
    if (has("show-agent")) UtiliaCommon::utiliaCommon()->showAgentUI();
    if (has("many-clients")) askFromManyThreads();
    if (has("look")) tellWhatIsOpen();
    if (const std::string identifier = valueOf("listed="); !identifier.empty())
        say(listing(identifier));
    if (const std::string helper = valueOf("helper="); !helper.empty())
        say(UtiliaCommon::utiliaCommon()->pathForAuxiliaryExecutable(helper).value_or("none"));
    if (has("no-loop")) return 7;

    auto& application = Application::sharedApplication();
    const utilia::Handle ending = utilia::platform::NotificationCenter::defaultCenter().addObserver(
        utilia::platform::NSApplicationWillTerminateNotification, nullptr,
        [](const void*) { say("will-terminate"); });
    if (has("client")) {
        utilia::ToolDataClientProvider& client = UtiliaCommon::toolDataClientProvider();
        if (&client != &UtiliaCommon::toolDataClientProvider()) say("two clients");
        client.setMenuText("kept");
        client.setToolStatus(utilia::kToolStatusPermanent);
    }
    class Delegate final : public utilia::platform::ApplicationDelegate {
        bool applicationShouldHandleReopen(bool,
                                           const std::vector<std::string>& arguments) override {
            std::string line = "reopen";
            for (const std::string& argument : arguments) line += "|" + argument;
            say(line);
            return true;
        }
    } delegate;
    application.setDelegate(&delegate);
    MainQueue::async([] { say("first turn"); });
    const int status = serve(application, has("ignore-quit"));
    say("main returns");
    return status;
}
