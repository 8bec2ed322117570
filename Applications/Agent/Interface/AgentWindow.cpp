#include "Applications/Agent/Interface/AgentWindow.h"

#include <QKeySequence>
#include <QScreen>
#include <QShortcut>
#include <QTabBar>
#include <QTabWidget>
#include <QVBoxLayout>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/MessageBar.h"
#include "Applications/Agent/Interface/SettingsPage.h"
#include "Applications/Agent/Interface/ToolPictures.h"
#include "Applications/Agent/Interface/ToolsPage.h"

namespace utilia::agent {

AgentWindow::AgentWindow(ToolList& tools)
    : messages_(new MessageBar(this)), pages_(new QTabWidget(this)),
      tools_(new ToolsPage(tools, this)),
      settings_(new SettingsPage([this] { tools_->updateSuggestion(); }, this)) {
    setWindowTitle(
        QString::fromUtf8(kProductName.data(), static_cast<qsizetype>(kProductName.size())));
    setWindowIcon(agentIcon());
    pages_->addTab(tools_, text(kToolsText));
    pages_->addTab(settings_, text(kSettingsText));
    pages_->setDocumentMode(true);
    // The keyboard goes to the tabs, and not to what is around them.
    pages_->setFocusPolicy(Qt::NoFocus);
    pages_->tabBar()->setFocusPolicy(Qt::TabFocus);
    auto* const content = new QWidget(this);
    auto* const layout = new QVBoxLayout(content);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(messages_);
    layout->addWidget(pages_, 1);
    setCentralWidget(content);

    const int em = fontMetrics().averageCharWidth();
    // With large letters a small screen must still show the buttons.
    resize(
        QSize(em * 64, fontMetrics().height() * 30).boundedTo(screen()->availableSize() * 9 / 10));
    for (const QKeySequence& keys :
         {QKeySequence(QKeySequence::Close), QKeySequence(Qt::Key_Escape)}) {
        connect(new QShortcut(keys, this), &QShortcut::activated, this, [this] { close(); });
    }
    connect(pages_, &QTabWidget::currentChanged, this, [this] { settings_->update(); });
}

void AgentWindow::reportStart(const std::string& identifier, const Result<void>& started) {
    tools_->reportStart(identifier, started);
}

void AgentWindow::setMessages(const QStringList& messages) { messages_->setMessages(messages); }

void AgentWindow::showEvent(QShowEvent* event) {
    settings_->update();
    QMainWindow::showEvent(event);
    if (shown_) shown_();
}

void AgentWindow::present(Page page) {
    pages_->setCurrentIndex(page == Page::Tools ? 0 : 1);
    show();
    setWindowState(windowState() & ~Qt::WindowMinimized);
    raise();
    activateWindow();
    if (page == Page::Tools) {
        tools_->takeFocus();
    } else {
        settings_->takeFocus();
    }
}

}  // namespace utilia::agent
