#include "Applications/Agent/AgentApplication.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <QApplication>
#include <QDir>
#include <QEvent>
#include <QFileInfo>
#include <QStandardPaths>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Model/StandingMessages.h"
#include "Applications/Agent/Model/Storage.h"
#include "Applications/Agent/Model/Suggestions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace utilia::agent {
namespace {

using Outcome = ScheduleRunner::Outcome;
using namespace std::chrono_literals;

// Packages come in many files.
constexpr auto kReloadDelay = 500ms;

}  // namespace

AgentApplication::AgentApplication()
    : published_(new PublishedTools(&toolsPlace_, tools_)),
      icon_(new TrayIcon(&iconPlace_, [this] { show(AgentWindow::Page::Tools); })),
      menu_(new TrayMenu(&menuPlace_, tools_,
                         {.activate = [this](const std::string& tool) { activate(tool); },
                          .showWindow = [this] { show(AgentWindow::Page::Tools); },
                          .showSettings = [this] { show(AgentWindow::Page::Settings); },
                          .quit = [] { platform::Application::sharedApplication().terminate(); }})),
      schedules_(
          {.tell =
               [this](const std::string& tool) {
                   return tools_.tell(tool, AgentMessage::DateScheduleFired);
               },
           .launch = [this](const std::string& tool) { return launchUnlessItRuns(tool); },
           .launchAnyhow = [this](const std::string& tool) { return launch(tool); },
           .launchAtLogin = [this](const std::string& tool) { return launchUnlessItRuns(tool); }}),
      deaf_({.isDeaf = [this](const std::string& tool) { return tools_.isDeaf(tool); },
             .hearsAgain = [this](const std::string& tool) { schedules_.tryAgain(tool); },
             .changed = [this] { updateMessages(); }}) {
    observation_ = tools_.observe([this](const ToolList::Change& change) { follow(change); });
    icon_->setShownHandler([this] { panelIsKnown(); });
    tools_.setKeptHandler([this](const std::string& tool, AgentMessage message,
                                 ToolList::Kept fate) { keptIsOver(tool, message, fate); });
    reload_.setSingleShot(true);
    reload_.setInterval(kReloadDelay);
    connect(&reload_, &QTimer::timeout, this, [this] {
        tools_.reload();
        watchInstalledTools();
        schedules_.toolsHaveChanged();
    });
    for (const auto signal :
         {&QFileSystemWatcher::directoryChanged, &QFileSystemWatcher::fileChanged})
        connect(&installations_, signal, this, [this] { reload_.start(); });
    connect(&records_, &QFileSystemWatcher::directoryChanged, this, [this] { reload_.start(); });
    qApp->installEventFilter(this);
}

AgentApplication::~AgentApplication() = default;

void AgentApplication::start(const std::vector<std::string>& arguments) {
    isBroughtUp_ = LoginSession::isBringingUsUp();
    AgentScheduler::upgradeSchedulerData();
    tools_.reload();
    watchInstalledTools();
    bus_.start({.connected = [this](const QDBusConnection& bus) { busIsThere(bus); },
                .missed = [this] { busIsMissed(); }});
    schedules_.start();
    if (const auto session = LoginSession::numberInEnvironment()) {
        sessionIsKnown(session);
    } else {
        displaySession_.ask([this](const LoginSession::Number& told) { sessionIsKnown(told); });
    }
    if (!arguments.empty()) applicationShouldHandleReopen(false, arguments);
}

void AgentApplication::sessionIsKnown(const LoginSession::Number& session) {
    isSessionKnown_ = true;
    if (LoginSession::isNew(session)) {
        isStartedBySession_ = isBroughtUp_;
        schedules_.startAtLogin(LoginSession::toolsToStart(tools_.entries()),
                                [session] { LoginSession::finish(session); });
    }
    panelIsKnown();
}

// ---- the window

void AgentApplication::show(AgentWindow::Page page) {
    if (!window_) {
        window_ = std::make_unique<AgentWindow>(tools_);
        window_->setShownHandler([this] { updateMessages(); });
    }
    window_->present(page);
}

void AgentApplication::panelIsKnown() {
    updateMessages();
    const bool isWithoutBus = bus_.state() == SessionBus::State::Missing;
    const bool isWithoutPanel = icon_->isKnown() && !icon_->isShown();
    if (!isWithoutBus && !(icon_->isKnown() && isSessionKnown_)) return;
    if (std::exchange(isPlaceKnown_, true) || window_) return;
    if (!isWithoutBus && !(isWithoutPanel && !isStartedBySession_) && !Storage::unwritableFolder())
        return;
    // Not inside a constructor or a message of the bus.
    QMetaObject::invokeMethod(
        this, [this] { show(AgentWindow::Page::Tools); }, Qt::QueuedConnection);
}

QStringList AgentApplication::messages() const {
    Troubles troubles;
    if (bus_.state() == SessionBus::State::Missing) troubles.bus = Troubles::Bus::Missing;
    if (bus_.state() == SessionBus::State::Lost) troubles.bus = Troubles::Bus::Lost;
    troubles.isWithoutPanel = icon_->isKnown() && !icon_->isShown();
    troubles.unwritableFolder = Storage::unwritableFolder();
    for (const std::string& identifier : deaf_.identifiers()) {
        if (const ToolEntry* const tool = tools_.find(identifier))
            troubles.unresponsiveTools.push_back(tool->name);
    }
    QStringList all;
    for (const StandingMessage& message : standingMessages(troubles))
        all.append(textWithName(message.key, QString::fromStdString(message.name)));
    return all;
}

void AgentApplication::updateMessages() {
    if (window_) window_->setMessages(messages());
}

bool AgentApplication::applicationShouldHandleReopen(bool, const std::vector<std::string>&) {
    show(AgentWindow::Page::Tools);
    return true;
}

// A tool that brings resources has them installed itself, by ResourceManager; nothing is fetched from anywhere. What may
// be new to the agent is the tool.
void AgentApplication::silentUpdateResources() { reload_.start(); }

bool AgentApplication::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::ApplicationPaletteChange && watched == qApp) {
        icon_->update();
        menu_->update();
    }
    return QObject::eventFilter(watched, event);
}

// ---- the bus

void AgentApplication::busIsThere(const QDBusConnection& bus) {
    if (std::exchange(isBusMissed_, false)) {
        if (const QStringList watched = records_.directories(); !watched.isEmpty())
            records_.removePaths(watched);
        // By itself it listens again only when it next tries to, which may be half a minute later.
        schedules_.listenAgain();
        // What was told while nobody could hear it.
        reload_.start();
        if (busBack_) busBack_();
    }
    published_->publish(bus);
    icon_->show(bus, &menuPlace_);
    updateMessages();
}

void AgentApplication::busIsMissed() {
    isBusMissed_ = true;
    icon_->forgetBus();
    if (const auto folder = Storage::sharedFolder())
        records_.addPath(QString::fromStdString(*folder));
    // What was told between the end of the bus and now.
    schedules_.toolsHaveChanged();
    panelIsKnown();
}

// ---- tools

void AgentApplication::activate(const std::string& identifier) {
    const auto done = tools_.activate(identifier);
    if (done) return;
    show(AgentWindow::Page::Tools);
    window_->reportStart(identifier, done);
}

// Launching a tool that runs would bring it to the front. The launcher may have started it just now, and nothing was heard
// of its port yet. What the list of tools says is of a moment ago.
Outcome AgentApplication::launchUnlessItRuns(const std::string& identifier) {
    if (!platform::RunningApplication::runningApplicationsWithBundleIdentifier(identifier).empty())
        return Outcome::Runs;
    return launch(identifier);
}

Outcome AgentApplication::launch(const std::string& identifier) {
    const ToolEntry* const tool = tools_.find(identifier);
    if (tool) {
        unlisted_.erase(identifier);
    } else if (unlisted_.insert(identifier).second) {
        // A tool of the catalogue that is due is listed also when it is not installed.
        reload_.start();
    }
    if (!tool || !tool->isReady()) return Outcome::NotNow;
    const auto launched = platform::Workspace::launchAppWithBundleIdentifier(
        identifier, platform::WorkspaceLaunchOptions::Async);
    if (launched) return Outcome::Done;
    KULogVariadic("Tool %@: %@", identifier, launched.error());
    return Outcome::NotNow;
}

void AgentApplication::follow(const ToolList::Change& change) {
    for (const std::string& identifier : change.gone) {
        deaf_.forget(identifier);
        schedules_.toolHasEnded(identifier);
    }
    for (const std::string& identifier : change.tools) {
        const ToolEntry* const tool = tools_.find(identifier);
        deaf_.forget(identifier);
        if (tool && tool->isRunning) {
            if (known_.insert(identifier).second) Suggestions::setKnown(identifier);
            schedules_.toolHasSpoken(identifier);
        } else {
            schedules_.toolHasEnded(identifier);
        }
    }
}

// A click that comes to nothing is the user's to know of. A date is told when the tool hears again.
void AgentApplication::keptIsOver(const std::string& identifier, AgentMessage message,
                                  ToolList::Kept fate) {
    if (message == AgentMessage::DateScheduleFired) schedules_.keptIsOver(identifier, fate);
    if (fate == ToolList::Kept::Sent) {
        deaf_.forget(identifier);
    } else if (deaf_.hasNotTaken(identifier)) {
        return;
    }
    // It has room, or has ended; whoever waits for it to speak might wait for ever.
    schedules_.tryAgain(identifier);
}

// Folders that do not exist yet are watched through the nearest one that does.
void AgentApplication::watchInstalledTools() {
    QStringList wanted = QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation);
    wanted.append(QString::fromStdString(KAVPathHelper::dirPath()));
    wanted.append(QString::fromStdString(KAVPathHelper::filePath()));
    QStringList paths;
    for (QString path : wanted) {
        while (!QFileInfo::exists(path) && path.contains(QLatin1Char('/')))
            path.truncate(path.lastIndexOf(QLatin1Char('/')));
        if (!path.isEmpty() && !paths.contains(path)) paths.append(path);
    }
    const QStringList watched = installations_.files() + installations_.directories();
    for (const QString& path : watched) {
        if (!paths.removeOne(path)) installations_.removePath(path);
    }
    if (!paths.isEmpty()) installations_.addPaths(paths);
}

}  // namespace utilia::agent
