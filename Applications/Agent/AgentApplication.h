#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>

#include <QFileSystemWatcher>
#include <QObject>
#include <QTimer>

#include "Applications/Agent/Bus/PublishedTools.h"
#include "Applications/Agent/Bus/SessionBus.h"
#include "Applications/Agent/Interface/AgentWindow.h"
#include "Applications/Agent/Model/DeafTools.h"
#include "Applications/Agent/Model/DisplaySession.h"
#include "Applications/Agent/Model/LoginSession.h"
#include "Applications/Agent/Model/ScheduleRunner.h"
#include "Applications/Agent/Model/ToolList.h"
#include "Applications/Agent/Tray/TrayIcon.h"
#include "Applications/Agent/Tray/TrayMenu.h"
#include "Common/Platform/Application.h"

namespace utilia::agent {

// The agent as the user meets it: the list of tools behind a status icon, a window and an object on the session bus, and
// the schedules.
//
// The window is made when it is first wanted. It opens by itself where there is no bus, where changes cannot be kept, and
// where no panel shows the icon when the agent has started, unless the session started it; not when bus or panel end
// later, as they do when a session ends. It opens also to say that a tool of the menu cannot be started.
//
// Without a bus nobody tells that schedules have changed: the file of the shared store is watched instead.
//
// Threads: the main thread.
class AgentApplication final : public QObject, public platform::ApplicationDelegate {
public:
    AgentApplication();
    ~AgentApplication() override;

    // `arguments` are those of the program, without its name.
    void start(const std::vector<std::string>& arguments);
    // Called when a bus that was lost is back, for what else talked to it.
    void setBusBackHandler(std::function<void()> back) { busBack_ = std::move(back); }

    bool applicationShouldHandleReopen(bool hasVisibleWindows,
                                       const std::vector<std::string>& arguments) override;
    void silentUpdateResources() override;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void show(AgentWindow::Page page);
    void activate(const std::string& identifier);
    ScheduleRunner::Outcome launchUnlessItRuns(const std::string& identifier);
    ScheduleRunner::Outcome launch(const std::string& identifier);
    void follow(const ToolList::Change& change);
    void watchInstalledTools();
    void sessionIsKnown(const LoginSession::Number& session);
    void panelIsKnown();
    void busIsThere(const QDBusConnection& bus);
    void busIsMissed();
    QStringList messages() const;
    void updateMessages();
    void keptIsOver(const std::string& identifier, AgentMessage message, ToolList::Kept fate);

    ToolList tools_;
    // What is put on the bus; each object carries one interface.
    QObject toolsPlace_;
    QObject iconPlace_;
    QObject menuPlace_;
    PublishedTools* published_;
    TrayIcon* icon_;
    TrayMenu* menu_;
    SessionBus bus_;
    ScheduleRunner schedules_;
    DeafTools deaf_;
    std::unique_ptr<AgentWindow> window_;
    QFileSystemWatcher installations_;
    QTimer reload_;
    QFileSystemWatcher records_;
    std::set<std::string> unlisted_;  // were due, and looked for once more
    std::set<std::string> known_;     // what has run under this agent
    std::function<void()> busBack_;
    Handle observation_;
    DisplaySession displaySession_;
    bool isBroughtUp_ = false;  // by the session, if this is the first start in it
    bool isSessionKnown_ = false;
    bool isStartedBySession_ = false;
    bool isPlaceKnown_ =
        false;  // whether there was a panel for the icon when the agent had started
    bool isBusMissed_ = false;
};

}  // namespace utilia::agent
