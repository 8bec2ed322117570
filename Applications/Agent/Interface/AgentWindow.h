#pragma once

#include <QMainWindow>

#include "Applications/Agent/Model/ToolList.h"

class QTabWidget;

namespace utilia::agent {

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
    // Whether the desktop is known to show no status icon.
    void setWithoutTray(bool isWithoutTray);

protected:
    void showEvent(QShowEvent* event) override;

private:
    QTabWidget* pages_;
    ToolsPage* tools_;
    SettingsPage* settings_;
};

}  // namespace utilia::agent
