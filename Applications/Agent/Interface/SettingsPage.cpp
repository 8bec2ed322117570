#include "Applications/Agent/Interface/SettingsPage.h"

#include <string>
#include <vector>

#include <QCheckBox>
#include <QDialog>
#include <QFontDatabase>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/SentReportsDialog.h"
#include "Applications/Agent/Model/Suggestions.h"
#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"

namespace utilia::agent {
namespace {

std::optional<std::string> ownURL() {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    return bundle ? std::optional(bundle->bundlePath()) : std::nullopt;
}

// Without the build number, which means nothing to users.
QString ownVersion() {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    const Dictionary info = bundle ? bundle->infoDictionary() : Dictionary();
    const Value* const version = info.find("CFBundleShortVersionString");
    const std::string* const text = version ? version->string() : nullptr;
    return QString::fromStdString(text ? *text : std::string());
}

// What the next upload would send: the reports that wait, and those that it would make of the logs.
QString documentsToSend() {
    constexpr std::size_t kMaximumSize = 64u << 20;
    QString documents;
    if (const auto waiting = waitingReports(reportFolder())) {
        for (const std::string& report : *waiting) {
            const auto bytes = platform::FileManager::contentsAtPath(
                stringByAppendingPathComponent(reportFolder(), report), kMaximumSize);
            if (bytes)
                documents += QString::fromUtf8(reinterpret_cast<const char*>(bytes->data()),
                                               static_cast<qsizetype>(bytes->size()));
        }
    }
    for (const std::string& document : CEPLogDocuments())
        documents += QString::fromStdString(document);
    return documents;
}

}  // namespace

SettingsPage::SettingsPage(std::function<void()> suggestionsChanged, QWidget* parent)
    : QScrollArea(parent), suggestionsChanged_(std::move(suggestionsChanged)) {
    setFrameShape(QFrame::NoFrame);
    setFocusPolicy(Qt::NoFocus);  // Page Down comes here from the controls
    setWidgetResizable(true);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* const content = new QWidget(this);
    auto* const layout = new QVBoxLayout(content);
    addGeneral(*layout);
    addUsage(*layout);
    addWhatIsNew(*layout);
    layout->addStretch(1);
    setWidget(content);
    update();
}

void SettingsPage::addGeneral(QVBoxLayout& layout) {
    auto* const group = new QGroupBox(text(kGeneralText), this);
    auto* const column = new QVBoxLayout(group);
    openAtLogin_ = new QCheckBox(text(kOpenAtLoginText), group);
    suggestTools_ = new QCheckBox(text(kSuggestToolsText), group);
    column->addWidget(openAtLogin_);
    column->addWidget(suggestTools_);
    layout.addWidget(group);
    connect(openAtLogin_, &QCheckBox::clicked, this, [this](bool isWanted) {
        auto& items = CommonAuxiliary::sharedInstance();
        if (isWanted) {
            items.addAppToLoginItems(ownURL());
        } else {
            items.removeAppFromLoginItems(ownURL());
        }
        update();  // shows what came of it
    });
    connect(suggestTools_, &QCheckBox::clicked, this, [this](bool isWanted) {
        Suggestions::setEnabled(isWanted);
        suggestionsChanged_();
    });
}

void SettingsPage::addUsage(QVBoxLayout& layout) {
    auto* const group = new QGroupBox(text(kUsageText), this);
    auto* const column = new QVBoxLayout(group);
    CEPLog& log = CEPLog::sharedInstance();
    shareUsage_ = new QCheckBox(text(kShareUsageText), group);
    shareUsage_->setEnabled(!log.isDisabledByAdministrator());
    auto* const explanation = new QLabel(
        text(log.isDisabledByAdministrator() ? kUsageByAdministratorText : kUsageExplanationText),
        group);
    explanation->setTextFormat(Qt::PlainText);
    explanation->setWordWrap(true);
    auto* const previewButton = new QPushButton(text(kPreviewText), group);
    column->addWidget(shareUsage_);
    column->addWidget(explanation);
    auto* const sentButton = new QPushButton(text(kSentText), group);
    auto* const buttons = new QHBoxLayout;
    buttons->addWidget(previewButton);
    buttons->addWidget(sentButton);
    buttons->addStretch(1);
    column->addLayout(buttons);
    layout.addWidget(group);
    connect(shareUsage_, &QCheckBox::clicked, this, [this, &log](bool isWanted) {
        if (isWanted) {
            log.enableCEP();
        } else {
            log.disableCEP();
        }
        update();
    });
    connect(previewButton, &QPushButton::clicked, this, [this] { preview(); });
    connect(sentButton, &QPushButton::clicked, this, [this] {
        auto* const dialog = new SentReportsDialog(window());
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->resize(window()->size());
        dialog->open();
    });
}

void SettingsPage::preview() {
    auto* const dialog = new QDialog(window());
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(text(kPreviewTitleText));
    auto* const column = new QVBoxLayout(dialog);
    const QString documents = documentsToSend();
    auto* const view =
        new QPlainTextEdit(documents.isEmpty() ? text(kNothingToSendText) : documents, dialog);
    view->setReadOnly(true);
    view->setAccessibleName(dialog->windowTitle());
    if (!documents.isEmpty()) {
        view->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
        view->setLineWrapMode(QPlainTextEdit::NoWrap);
        view->setTabStopDistance(4 * view->fontMetrics().horizontalAdvance(QLatin1Char(' ')));
    }
    // The documents are in English markup, whatever the layout's direction.
    view->setLayoutDirection(documents.isEmpty() ? layoutDirection() : Qt::LeftToRight);
    auto* const close = new QPushButton(text(kCloseText), dialog);
    column->addWidget(view);
    column->addWidget(close, 0, Qt::AlignTrailing);
    connect(close, &QPushButton::clicked, dialog, &QDialog::accept);
    dialog->resize(window()->size());
    dialog->open();
}

void SettingsPage::addWhatIsNew(QVBoxLayout& layout) {
    auto* const group = new QGroupBox(textWithName(kWhatIsNewText, ownVersion()), this);
    auto* const column = new QVBoxLayout(group);
    description_ = new QLabel(group);
    description_->setTextFormat(Qt::PlainText);
    description_->setWordWrap(true);
    description_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    description_->setFocusPolicy(Qt::StrongFocus);
    column->addWidget(description_);
    layout.addWidget(group);
}

void SettingsPage::update() {
    openAtLogin_->setChecked(CommonAuxiliary::sharedInstance().findAppInLoginItems(ownURL()));
    shareUsage_->setChecked(!CEPLog::sharedInstance().isCEPDisabled());
    suggestTools_->setChecked(Suggestions::areEnabled());
    const auto description = CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(
        VersionManager::mainBundleVersion());
    description_->setText(description ? QString::fromStdString(*description)
                                      : text(kNoDescriptionText));
}

void SettingsPage::takeFocus() { openAtLogin_->setFocus(); }

}  // namespace utilia::agent
