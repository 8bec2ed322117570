#include "Applications/Agent/Interface/SettingsPage.h"

#include <string>

#include <QCheckBox>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/PreviewDialog.h"
#include "Applications/Agent/Interface/SentReportsDialog.h"
#include "Applications/Agent/Interface/UsageTexts.h"
#include "Applications/Agent/Model/Suggestions.h"
#include "Applications/Reporting/SentReports.h"
#include "Common/Platform/Bundle.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/ReportUpload.h"
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

// Over the whole window, until it is closed.
void open(QDialog* dialog) {
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->resize(dialog->parentWidget()->size());
    dialog->open();
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
    shareUsage_ =
        new QCheckBox(text(isReportUploadBuilt() ? kShareUsageText : kRecordUsageText), group);
    shareUsage_->setEnabled(!log.isDisabledByAdministrator());
    usage_ = new QLabel(group);
    usage_->setTextFormat(Qt::PlainText);
    usage_->setWordWrap(true);
    auto* const previewButton = new QPushButton(text(kPreviewText), group);
    column->addWidget(shareUsage_);
    column->addWidget(usage_);
    auto* const sentButton = new QPushButton(text(kSentText), group);
    // A build that sends nothing may have taken the place of one that did.
    sentButton->setVisible(isReportUploadBuilt() || !reporting::SentReports().all().empty());
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
    connect(previewButton, &QPushButton::clicked, this,
            [this] { open(new PreviewDialog(window())); });
    connect(sentButton, &QPushButton::clicked, this,
            [this] { open(new SentReportsDialog(window())); });
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
    usage_->setText(text(usageExplanation()));
    suggestTools_->setChecked(Suggestions::areEnabled());
    const auto description = CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(
        VersionManager::mainBundleVersion());
    description_->setText(description ? QString::fromStdString(*description)
                                      : text(kNoDescriptionText));
}

void SettingsPage::takeFocus() { openAtLogin_->setFocus(); }

}  // namespace utilia::agent
