#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include <QAbstractButton>
#include <QDialog>
#include <QLabel>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QTextDocument>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/SettingsPage.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Unit/Interface/OffscreenApplication.h"

// What the agent's settings say of usage reporting, as an application with its texts. The tests of builds with and without
// uploads have the same roles.

namespace utilia {
namespace {

using test::ChildRole;

std::string oneLine(QString text) {
    return text.replace(QLatin1Char('\n'), QLatin1Char('|')).toStdString();
}

class UsagePage final {
public:
    UsagePage() {
        page_.resize(800, 600);
        page_.show();
    }
    // Of labels, check boxes and buttons, as far as they are seen.
    void sayTexts(const ChildRole& self) const {
        for (const QWidget* const widget : page_.findChildren<QWidget*>()) {
            const auto* const button = qobject_cast<const QAbstractButton*>(widget);
            const auto* const label = qobject_cast<const QLabel*>(widget);
            if (!widget->isVisible() || (!button && !label)) continue;
            self.say(oneLine(button ? button->text() : label->text()));
        }
    }
    QDialog& press(std::string_view key) {
        for (auto* const button : page_.findChildren<QAbstractButton*>()) {
            if (button->text() == agent::text(key)) button->click();
        }
        return *page_.findChild<QDialog*>();
    }

private:
    test::OffscreenApplication application_;
    agent::SettingsPage page_{[] {}, nullptr};
};

// Title and visible labels of the dialog.
void sayLabels(const ChildRole& self, const QDialog& dialog) {
    self.say(oneLine(dialog.windowTitle()));
    for (const QLabel* const label : dialog.findChildren<QLabel*>()) {
        if (label->isVisible()) self.say(oneLine(label->text()));
    }
}

// The bytes that are shown: the view's own text has a blank in the place of one that does not break.
std::string shown(const QPlainTextEdit& view) {
    return view.document()
        ->toRawText()
        .replace(QChar(QChar::ParagraphSeparator), QLatin1Char('\n'))
        .toStdString();
}

}  // namespace

UTILIA_CHILD_ROLE(sayUsagePage) {
    const UsagePage page;
    page.sayTexts(self);
    return 0;
}

// Says what the preview says while it looks and, after a line from the test, when it has looked: its labels, "documents:",
// and the line of each. What is shown of each goes to the files 0, 1, … of a folder; before the last one is chosen a file is
// removed: FOLDER [FILE].
UTILIA_CHILD_ROLE(sayPreview) {
    UsagePage page;
    QDialog& dialog = page.press(agent::kPreviewText);
    sayLabels(self, dialog);
    self.say("looking");
    (void)self.waitForLine();
    auto& list = *dialog.findChild<QListWidget*>();
    auto& view = *dialog.findChild<QPlainTextEdit*>();
    const auto isLooking = [&] {
        for (const QLabel* const label : dialog.findChildren<QLabel*>()) {
            if (label->isVisible() && label->text() == agent::text(agent::kOneMomentText))
                return true;
        }
        return false;
    };
    if (!test::eventually([&] {
            platform::RunLoop::currentRunLoop().runFor(std::chrono::milliseconds(10));
            return !isLooking();
        }))
        return 1;
    sayLabels(self, dialog);
    self.say("documents:");
    for (int row = 0; row < list.count(); ++row) {
        self.say(oneLine(list.item(row)->text()));
        if (row == list.count() - 1 && self.arguments.size() > 1)
            std::filesystem::remove(self.arguments[1]);
        list.setCurrentRow(row);
        std::ofstream(self.arguments.at(0) + "/" + std::to_string(row)) << shown(view);
    }
    return 0;
}

}  // namespace utilia
