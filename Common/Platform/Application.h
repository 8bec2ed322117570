#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Common/Foundation/Export.h"

namespace utilia::platform {

// What the host application answers when the framework asks. Every method has a default.
class UTILIA_EXPORT ApplicationDelegate {
public:
    virtual ~ApplicationDelegate() = default;
    // The user asked for the application although it runs already. `arguments` are those of a
    // second start; empty otherwise. Answers whether the framework should go on as usual.
    virtual bool applicationShouldHandleReopen(bool hasVisibleWindows,
                                               const std::vector<std::string>& arguments);
    // A tool asked the agent to fetch its resources anew. The default logs that this application
    // cannot.
    virtual void silentUpdateResources();
};

// The life cycle of the running application, without any toolkit.
//
//     auto& application = Application::sharedApplication();
//     application.setDelegate(&delegate);
//     return application.run();
//
// Threads: the main thread, except terminate(), which any thread may call.
class UTILIA_EXPORT Application final {
public:
    static Application& sharedApplication();

    // Not held; null for none.
    void setDelegate(ApplicationDelegate* delegate);
    ApplicationDelegate* delegate() const;

    // Ends the start-up. In an application bundle: hands this process's arguments over when an
    // instance of the same bundle (identifier and path) runs already, and ends the process with
    // status 0; else becomes that instance and is listed as running. A copy of the bundle at
    // another path is an instance of its own, and so is a program without a bundle.
    //
    // From here on SIGTERM, SIGINT and SIGHUP call terminate(), unless the process ignores them or
    // handles them itself. Further signals while it ends change nothing. Then
    // NSApplicationDidFinishLaunchingNotification is posted. Only the first call does anything.
    void finishLaunching();
    bool isFinishedLaunching() const;

    // What finishLaunching() hands over instead of this process's arguments: such as file names that
    // mean something in its folder only.
    void setHandedOverArguments(std::vector<std::string> arguments);

    // Says, before finishLaunching(), that this process was only started to end: finishLaunching()
    // then makes it no instance and does not list it, so that an instance that runs is neither
    // reopened nor joined.
    void setLaunchedToTerminate();
    bool isLaunchedToTerminate() const;

    // finishLaunching(), then serves the main loop until terminate(). Answers the exit status, 0.
    int run();

    // Posts NSApplicationWillTerminateNotification exactly once however often it is called, asks
    // the loop to quit, and returns. Whoever starts the application from here on is the first
    // instance again. From another thread: the main loop does it in its next turn.
    void terminate();
    bool isTerminating() const;
    // The same, for a process that must end with it: afterwards `exit`, which is not to return, is
    // called on the main thread. run() calls it when its loop has stopped, instead of returning. A
    // host's loop has kExitTimeout to end the process by itself; if it still runs then, it is
    // called from there. Only the first call's `exit` counts.
    void terminateAndExit(std::function<void()> exit);
    static constexpr std::chrono::milliseconds kExitTimeout{2000};

    // How a host toolkit quits its own loop, tells whether a window shows, and comes to the front.
    // Without them run()'s loop is stopped, no window shows, and activating does nothing.
    void setQuitHandler(std::function<void()> quit);
    void setWindowsVisibleHandler(std::function<bool()> windowsVisible);
    void setActivateHandler(std::function<void()> activate);

    bool hasVisibleWindows() const;
    void activateIgnoringOtherApps(bool ignoring);

    // Acts as a reopen by the user: the delegate with `arguments`, then activation.
    void reopen(const std::vector<std::string>& arguments);

    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

private:
    Application();
    ~Application();
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace utilia::platform
