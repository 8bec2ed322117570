#include "Applications/Agent/Interface/ToolsPage.h"

#include <algorithm>
#include <chrono>

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListView>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QShortcut>
#include <QVBoxLayout>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/ToolItemModel.h"
#include "Applications/Agent/Model/Storage.h"
#include "Applications/Agent/Model/Suggestions.h"
#include "Common/Logging/Log.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"

namespace utilia::agent {
namespace {

constexpr auto kStoreDelay = std::chrono::milliseconds(100);

QLabel* makeLine(QWidget* parent) {
    auto* const label = new QLabel(parent);
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    return label;
}

QString nameOf(const ToolList& tools, const std::string& identifier) {
    const ToolEntry* const tool = tools.find(identifier);
    return QString::fromStdString(tool ? tool->name : identifier);
}

}  // namespace

ToolsPage::ToolsPage(ToolList& tools, QWidget* parent)
    : QWidget(parent), tools_(tools), model_(new ToolItemModel(tools, this)),
      view_(new QListView(this)), empty_(makeLine(this)) {
    view_->setModel(model_);
    view_->setItemDelegate(new ToolItemDelegate(view_));
    view_->setUniformItemSizes(true);
    view_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    view_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    view_->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    view_->setAccessibleName(text(kToolListText));
    empty_->setText(text(kNoToolsText));
    empty_->setAlignment(Qt::AlignCenter);

    auto* const layout = new QVBoxLayout(this);
    layout->addWidget(makeSuggestion());
    layout->addWidget(view_, 1);
    layout->addWidget(empty_, 1);
    layout->addWidget(makeButtons());

    connect(view_, &QListView::activated, this, [this] { activate(); });
    view_->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(view_, &QListView::customContextMenuRequested, this, &ToolsPage::showMenu);
    // For keyboards that have no key for menus.
    auto* const menuKeys = new QShortcut(Qt::SHIFT | Qt::Key_F10, view_);
    menuKeys->setContext(Qt::WidgetShortcut);
    connect(menuKeys, &QShortcut::activated, this, [this] { showMenu({}); });
    connect(view_->selectionModel(), &QItemSelectionModel::currentChanged, this, [this] {
        if (view_->currentIndex().isValid()) lastSelected_ = selected();
        updateButtons();
    });
    // A file that is replaced makes several changes of its folder.
    storeChanged_.setSingleShot(true);
    storeChanged_.setInterval(kStoreDelay);
    connect(&store_, &QFileSystemWatcher::directoryChanged, this, [this] {
        if (!storeChanged_.isActive()) storeChanged_.start();
    });
    connect(&storeChanged_, &QTimer::timeout, this, &ToolsPage::updateSuggestion);
    observation_ = tools_.observe([this](const ToolList::Change& change) { follow(change); });
    follow({.isListChanged = true, .tools = {}, .gone = {}});
}

QWidget* ToolsPage::makeSuggestion() {
    auto* const bar = new QFrame(this);
    bar->setFrameShape(QFrame::StyledPanel);
    auto* const row = new QHBoxLayout(bar);
    suggestionLabel_ = makeLine(bar);
    auto* const tryIt = new QPushButton(text(kTryText), bar);
    auto* const notNow = new QPushButton(text(kNotNowText), bar);
    row->addWidget(suggestionLabel_, 1);
    row->addWidget(tryIt);
    row->addWidget(notNow);
    setTabOrder(notNow, view_);
    connect(tryIt, &QPushButton::clicked, this, [this] {
        const std::string identifier = suggested_;
        Suggestions::setKnown(identifier);
        reportStart(identifier, tools_.activate(identifier));
        updateSuggestion();
    });
    connect(notNow, &QPushButton::clicked, this, [this] {
        Suggestions::setKnown(suggested_);
        updateSuggestion();
    });
    bar->hide();
    suggestion_ = bar;
    return bar;
}

QWidget* ToolsPage::makeButtons() {
    auto* const box = new QWidget(this);
    auto* const row = new QHBoxLayout(box);
    row->setContentsMargins(0, 0, 0, 0);
    atLogin_ = new QCheckBox(text(kStartToolAtLoginText), box);
    turnOff_ = new QPushButton(text(kQuitToolText), box);
    open_ = new QPushButton(text(kStartText), box);
    row->addWidget(atLogin_);
    row->addStretch(1);
    row->addWidget(turnOff_);
    row->addWidget(open_);
    connect(open_, &QPushButton::clicked, this, [this] { activate(); });
    connect(turnOff_, &QPushButton::clicked, this,
            [this] { report(tools_.turnOff(selected()), selected(), kCannotQuitToolText); });
    connect(atLogin_, &QCheckBox::clicked, this, [this](bool isWanted) {
        if (isWanted) {
            UtiliaToolLauncher::addToolToLaunchAtLogin(selected());
        } else {
            UtiliaToolLauncher::removeToolFromLaunchAtLogin(selected());
        }
        updateButtons();
    });
    return box;
}

void ToolsPage::takeFocus() { view_->setFocus(); }

void ToolsPage::showEvent(QShowEvent* event) {
    // First, so that no pause comes in between.
    if (const auto folder = Storage::sharedFolder())
        store_.addPath(QString::fromStdString(*folder));
    updateSuggestion();
    QWidget::showEvent(event);
}

void ToolsPage::hideEvent(QHideEvent* event) {
    if (const QStringList watched = store_.directories(); !watched.isEmpty())
        store_.removePaths(watched);
    storeChanged_.stop();
    QWidget::hideEvent(event);
}

std::vector<ToolsPage::Use> ToolsPage::uses() const {
    std::vector<Use> all;
    for (const ToolEntry& tool : tools_.entries())
        all.push_back({tool.identifier, tool.name, tool.isReady(), tool.isRunning, tool.status});
    return all;
}

void ToolsPage::updateSuggestion() {
    if (!isVisible()) return;
    uses_ = uses();
    suggested_ = Suggestions::next(tools_.entries()).value_or("");
    suggestion_->setVisible(!suggested_.empty());
    if (suggested_.empty()) return;
    suggestionLabel_->setText(textWithName(kSuggestionText, nameOf(tools_, suggested_)));
    // Who comes to a button by the keyboard hears what it is about.
    for (QPushButton* const button : suggestion_->findChildren<QPushButton*>())
        button->setAccessibleDescription(suggestionLabel_->text());
}

std::string ToolsPage::selected() const {
    return view_->currentIndex().data(ToolItemModel::IdentifierRole).toString().toStdString();
}

void ToolsPage::follow(const ToolList::Change& change) {
    if (change.isListChanged) {
        const bool isEmpty = model_->rowCount() == 0;
        view_->setVisible(!isEmpty);
        empty_->setVisible(isEmpty);
        const int row = std::max(model_->rowOf(lastSelected_), 0);
        if (!isEmpty) view_->setCurrentIndex(model_->index(row));
    }
    bool isSelectedChanged = change.isListChanged;
    for (const std::string& identifier : change.tools) {
        isSelectedChanged = isSelectedChanged || identifier == lastSelected_;
        const ToolEntry* const tool = tools_.find(identifier);
        if (tool && tool->isRunning && identifier == suggested_) Suggestions::setKnown(identifier);
    }
    if (isSelectedChanged) updateButtons();
    // Most changes are of texts, and what is stored costs more to look at than all tools.
    if (isVisible() && uses() != uses_) updateSuggestion();
}

void ToolsPage::updateButtons() {
    const ToolEntry* const tool = tools_.find(selected());
    const bool isRunning = tool && tool->isRunning;
    open_->setText(text(isRunning ? kClickText : kStartText));
    const QString explanation = isRunning ? text(kClickExplanationText) : QString();
    open_->setToolTip(explanation);
    open_->setAccessibleDescription(explanation);
    open_->setEnabled(tool && tool->isReady());
    turnOff_->setEnabled(isRunning);
    const bool isAtLogin = tool && UtiliaToolLauncher::isToolInLaunchAtLogin(tool->identifier);
    // A tool that is missing can still be taken off the list.
    atLogin_->setEnabled(tool && (tool->isReady() || isAtLogin));
    atLogin_->setChecked(isAtLogin);
}

void ToolsPage::activate() {
    const std::string identifier = selected();
    const ToolEntry* const tool = tools_.find(identifier);
    if (!tool || !tool->isReady()) return;
    reportStart(identifier, tools_.activate(identifier));
}

// The buttons once more, where the mouse is, or for the menu key at the tool.
void ToolsPage::showMenu(const QPoint& place) {
    const QModelIndex tool = view_->currentIndex();
    if (!tool.isValid()) return;
    auto* const menu = new QMenu(this);
    menu->setAttribute(Qt::WA_DeleteOnClose);
    for (QAbstractButton* const button :
         std::initializer_list<QAbstractButton*>{open_, turnOff_, atLogin_}) {
        QAction* const action = menu->addAction(button->text());
        action->setEnabled(button->isEnabled());
        action->setCheckable(button->isCheckable());
        action->setChecked(button->isChecked());
        connect(action, &QAction::triggered, button, &QAbstractButton::click);
    }
    const bool isAtMouse = view_->indexAt(place) == tool;
    menu->popup(
        view_->viewport()->mapToGlobal(isAtMouse ? place : view_->visualRect(tool).center()));
}

void ToolsPage::reportStart(const std::string& identifier, const Result<void>& started) {
    report(started, identifier, kCannotStartText);
}

void ToolsPage::report(const Result<void>& result, const std::string& identifier,
                       std::string_view format) {
    if (result) return;
    KULogVariadic("Tool %@: %@", identifier, result.error());
    // The menu of the panel can be used while one is open.
    for (QMessageBox* const before : findChildren<QMessageBox*>()) before->close();
    auto* const box = new QMessageBox(QMessageBox::Warning, window()->windowTitle(),
                                      textWithName(format, nameOf(tools_, identifier)),
                                      QMessageBox::NoButton, this);
    box->addButton(text(kCloseText), QMessageBox::AcceptRole);
    box->setInformativeText(QString::fromStdString(result.error().description));
    box->setTextFormat(Qt::PlainText);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

}  // namespace utilia::agent
