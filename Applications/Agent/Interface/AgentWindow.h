#pragma once

#include <functional>
#include <string>

#include <QMainWindow>
#include <QStringList>

#include "Applications/Agent/Model/ToolList.h"

class QTabWidget;

namespace utilia::agent {

class MessageBar;
class SettingsPage;
class ToolsPage;

// The agent's window: the tools, and the settings. Closing it leaves the agent running.
//
// Threads: the main thread. The list outlives this object.
class AgentWindow final : public QMainWindow {
public:
    explicit AgentWindow(ToolList& tools);

    enum class Page { Tools, Settings };
    // Shows the window on this page, in front of others.
    void present(Page page);
    // Says it on the page of the tools where this one could not be started.
    void reportStart(const std::string& identifier, const Result<void>& started);
    // What is to be known on every page.
    void setMessages(const QStringList& messages);
    // Called whenever the window appears.
    void setShownHandler(std::function<void()> shown) { shown_ = std::move(shown); }

protected:
    void showEvent(QShowEvent* event) override;

private:
    std::function<void()> shown_;
    MessageBar* messages_;
    QTabWidget* pages_;
    ToolsPage* tools_;
    SettingsPage* settings_;
};

}  // namespace utilia::agent
