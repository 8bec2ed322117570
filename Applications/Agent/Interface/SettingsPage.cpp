#include "Applications/Agent/Interface/SettingsPage.h"

#include <QCheckBox>
#include <QGroupBox>
#include <QLabel>
#include <QVBoxLayout>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Model/Suggestions.h"
#include "Common/Platform/Bundle.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"

namespace utilia::agent {
namespace {

std::optional<std::string> ownURL() {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    return bundle ? std::optional(bundle->bundlePath()) : std::nullopt;
}

}  // namespace

SettingsPage::SettingsPage(std::function<void()> suggestionsChanged, QWidget* parent)
    : QScrollArea(parent), suggestionsChanged_(std::move(suggestionsChanged)) {
    setFrameShape(QFrame::NoFrame);
    setWidgetResizable(true);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* const content = new QWidget(this);
    auto* const layout = new QVBoxLayout(content);
    addGeneral(*layout);
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

void SettingsPage::addWhatIsNew(QVBoxLayout& layout) {
    const QString version = QString::fromStdString(
        VersionManager::versionToString(VersionManager::mainBundleVersion()));
    auto* const group = new QGroupBox(textWithName(kWhatIsNewText, version), this);
    auto* const column = new QVBoxLayout(group);
    description_ = new QLabel(group);
    description_->setTextFormat(Qt::PlainText);
    description_->setWordWrap(true);
    description_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    column->addWidget(description_);
    layout.addWidget(group);
}

void SettingsPage::update() {
    openAtLogin_->setChecked(CommonAuxiliary::sharedInstance().findAppInLoginItems(ownURL()));
    suggestTools_->setChecked(Suggestions::areEnabled());
    const auto description = CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(
        VersionManager::mainBundleVersion());
    description_->setText(description ? QString::fromStdString(*description)
                                      : text(kNoDescriptionText));
}

void SettingsPage::takeFocus() { openAtLogin_->setFocus(); }

}  // namespace utilia::agent
